// Verify end to end: real signed packages through the four processes, every
// row of both failure tables, the endpoints, stray requests and several
// clients at once.
#include <atomic>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "e2e_support.h"
#include "eka/result_code.h"

namespace verifier_e2e {
namespace {

using update::registry::ipc::PackageType;
using signature_verifier::host::testing::WriteBytes;
using signature_verifier::host::testing::ToBytes;

constexpr std::uint16_t kProduct = 0;
constexpr std::uint16_t kApplist = 1;
constexpr std::uint32_t kErrorReplySize = 0x80000020u;
constexpr std::uint32_t kNormalReplySize = 0x18u;

const Bytes kListBytes = ToBytes("{\"applications\": [\"launcher\", \"settings\"]}\n");

// A small archive of 64 KiB with every byte value.
Bytes ArchiveBytes()
{
    Bytes bytes(64 * 1024);
    for (std::size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 7 + 3);
    return bytes;
}

std::string FailureMessage(const std::string& fullDescription)
{
    return ": " + fullDescription + " ; detailed: exception during: Verify";
}

class VerifyE2ETest : public ::testing::Test {
protected:
    void SetUp() override { setting = &Shared(); }

    Entities& entities() { return setting->entities; }

    // A session of `type` whose folder holds the named files with their
    // contents, then signed when `sign`.
    Package MakePackage(PackageType type, const std::vector<std::pair<std::string, Bytes>>& files, bool sign = true,
                        const std::string& signer = "signer")
    {
        const Package package = OpenPackage(entities().Registry(), type);
        for (const auto& [name, bytes] : files)
            WriteBytes(package.folder / name, bytes);
        if (sign)
            SignPackage(setting->pki, package.folder, signer);
        return package;
    }

    // One request on a connection of its own; `lines` gets the verifier's
    // log lines it caused.
    Answer Request(std::uint16_t riid, std::uint32_t handle, std::vector<LogLine>& lines,
                   std::uint16_t method = nv_IVerifier_Verify_mid)
    {
        const std::size_t mark = entities().LogMark();
        VerifierClient client;
        const Answer answer = client.Call(riid, handle, method);
        lines = VerifierLines(entities().LogSince(mark));
        return answer;
    }

    SharedSetting* setting = nullptr;
};

TEST_F(VerifyE2ETest, Verify_SignedPackagesPassOnBothEndpoints)
{
    const Package list = MakePackage(PackageType::AppList, {{kList, kListBytes}});
    const Package archive = MakePackage(PackageType::Product, {{kArchive, ArchiveBytes()}});

    // The application list through an in-test client, on the riid the
    // endpoint table gives.
    std::uint32_t applistRiid = 0;
    {
        VerifierClient client;
        applistRiid = client.Riid("Verifier.applist");
        EXPECT_EQ(client.Riid("Verifier.product"), kProduct);
    }
    ASSERT_EQ(applistRiid, kApplist);
    std::vector<LogLine> lines;
    const Answer answer = Request(static_cast<std::uint16_t>(applistRiid), list.handle, lines);
    ASSERT_EQ(answer.rc, NK_EOK);
    EXPECT_EQ(answer.reply.base_.size, kNormalReplySize);
    EXPECT_EQ(answer.reply.base_.riid, kApplist);
    EXPECT_EQ(answer.Result(), 0);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, "info");
    EXPECT_EQ(lines[0].where, "applist_verifier:54");
    EXPECT_EQ(lines[0].message, "AppList file " + (list.folder / kList).generic_string() +
                                    " verification with signature file " + (list.folder / kListSign).generic_string() +
                                    " was succeeded");

    // The archive through verifier-cli.
    const std::size_t mark = entities().LogMark();
    const auto run = registry_test::Run({VERIFIER_CLI_PATH, "verify", "product", std::to_string(archive.handle)},
                                        entities().root());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out, "0x00000000 (No error)\n");
    lines = VerifierLines(entities().LogSince(mark));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, "info");
    EXPECT_EQ(lines[0].where, "product_verifier:57");
    EXPECT_EQ(lines[0].message, "Update file " + (archive.folder / kArchive).generic_string() +
                                    " verification with signature file " +
                                    (archive.folder / kArchiveSign).generic_string() + " was succeeded");
}

// One failure row: what to set up, and what reaches the client and the log.
struct FailureRow {
    const char* name;
    std::uint16_t riid;
    std::function<Package()> arrange;
    std::optional<std::uint32_t> handle;  // the request's handle word when not the package's
    std::uint32_t code;
    // The exception's full description; without the code for kCheckerDirectoryFailure.
    std::function<std::string(const Package&)> description;
};

void RunRows(const std::vector<FailureRow>& rows,
             const std::function<Answer(std::uint16_t, std::uint32_t, std::vector<LogLine>&)>& request)
{
    for (const FailureRow& row : rows) {
        SCOPED_TRACE(row.name);
        const Package package = row.arrange();
        std::vector<LogLine> lines;
        const Answer answer = request(row.riid, row.handle.value_or(package.handle), lines);
        ASSERT_EQ(answer.rc, NK_EOK);
        EXPECT_EQ(answer.reply.base_.riid, row.riid);
        EXPECT_EQ(answer.reply.base_.mid, nv_IVerifier_Verify_mid);
        EXPECT_EQ(answer.reply.base_.size, kErrorReplySize);
        const auto code = static_cast<std::uint32_t>(answer.Result());
        std::string description = row.description(package);
        if (row.code == kCheckerDirectoryFailure) {
            EXPECT_TRUE(IsCheckerDirectoryFailure(code)) << std::hex << code;
            description += ": " + eka::FormatResultCode(static_cast<eka::result_t>(code));
        } else {
            EXPECT_EQ(code, row.code);
        }
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, "error");
        EXPECT_EQ(lines[0].where.rfind("manage_exception:", 0), 0u) << lines[0].where;
        EXPECT_EQ(lines[0].message, FailureMessage(description));
    }
}

TEST_F(VerifyE2ETest, Verify_ApplistFailureTable)
{
    const auto withFiles = [this](std::vector<std::pair<std::string, Bytes>> files, bool sign = false) {
        return [this, files, sign] { return MakePackage(PackageType::AppList, files, sign); };
    };
    const auto path = [](const char* name) {
        return [name](const Package& p) { return (p.folder / name).string(); };
    };
    const std::vector<FailureRow> rows = {
        {"no handle (0xFFFFFF on the wire)", kApplist, withFiles({}), 0x00FFFFFFu, 0x80000046u,
         [](const Package&) { return std::string("invalid handle: 0x80000046 (Invalid argument)"); }},
        {"no handle (0xFFFFFFFF on the wire)", kApplist, withFiles({}), 0xFFFFFFFFu, 0x80000046u,
         [](const Package&) { return std::string("invalid handle: 0x80000046 (Invalid argument)"); }},
        {"unknown handle: the registry's own code", kApplist, withFiles({}), 0x00ABCDEFu, 0x8000004Cu,
         [](const Package&) {
             return std::string("Expression failedfailed get info from session registry: 0x8000004c (Not found)");
         }},
        {"list missing", kApplist, withFiles({{kListSign, ToBytes("signature")}}), std::nullopt, 0x80000046u,
         [&](const Package& p) {
             return "AppList file doesn't exist " + path(kList)(p) + ": 0x80000046 (Invalid argument)";
         }},
        {"signature missing", kApplist, withFiles({{kList, kListBytes}}), std::nullopt, 0x80000046u,
         [&](const Package& p) {
             return "AppList signature file doesn't exist " + path(kListSign)(p) + ": 0x80000046 (Invalid argument)";
         }},
        {"tampered list", kApplist,
         [this] {
             const Package p = MakePackage(PackageType::AppList, {{kList, kListBytes}});
             Bytes changed = kListBytes;
             changed[5] ^= 0x20;
             WriteBytes(p.folder / kList, changed);
             return p;
         },
         std::nullopt, 0xFFFF4000u,
         [&](const Package& p) {
             return "Expression failedFailed to verify AppList file " + path(kList)(p) + " with signature file " +
                    path(kListSign)(p) + ": 0xffff4000 (Unknown result code)";
         }},
        {"signer that no trusted root vouches for", kApplist,
         [this] { return MakePackage(PackageType::AppList, {{kList, kListBytes}}, true, "wrong-signer"); },
         std::nullopt, 0xFFFEC000u,
         [&](const Package& p) {
             return "Expression failedFailed to verify AppList file " + path(kList)(p) + " with signature file " +
                    path(kListSign)(p) + ": 0xfffec000 (Unknown result code)";
         }},
        // It passes the existence test; the checker cannot read it. Its code
        // depends on the file system, so the description comes without it.
        {"a directory named like the list: the checker's failure", kApplist,
         [this] {
             const Package p = MakePackage(PackageType::AppList, {{kListSign, ToBytes("signature")}}, false);
             fs::create_directory(p.folder / kList);
             return p;
         },
         std::nullopt, kCheckerDirectoryFailure,
         [&](const Package& p) {
             return "Expression failedFailed to verify AppList file " + path(kList)(p) + " with signature file " +
                    path(kListSign)(p);
         }},
    };
    RunRows(rows, [this](std::uint16_t riid, std::uint32_t handle, std::vector<LogLine>& lines) {
        return Request(riid, handle, lines);
    });
}

TEST_F(VerifyE2ETest, Verify_ProductFailureTable)
{
    const auto withFiles = [this](std::vector<std::pair<std::string, Bytes>> files) {
        return [this, files] { return MakePackage(PackageType::Product, files, false); };
    };
    const auto path = [](const char* name) {
        return [name](const Package& p) { return (p.folder / name).string(); };
    };
    const std::vector<FailureRow> rows = {
        {"no handle", kProduct, withFiles({}), 0x00FFFFFFu, 0x80000046u,
         [](const Package&) { return std::string("invalid handle: 0x80000046 (Invalid argument)"); }},
        {"unknown handle: the registry's own code", kProduct, withFiles({}), 0x00ABCDEFu, 0x8000004Cu,
         [](const Package&) {
             return std::string("Expression failedfailed get info from session registry: 0x8000004c (Not found)");
         }},
        {"archive missing", kProduct, withFiles({{kArchiveSign, ToBytes("signature")}}), std::nullopt, 0x80000046u,
         [&](const Package& p) {
             return "update archive file doesn't exist " + path(kArchive)(p) + ": 0x80000046 (Invalid argument)";
         }},
        {"signature missing", kProduct, withFiles({{kArchive, ArchiveBytes()}}), std::nullopt, 0x80000046u,
         [&](const Package& p) {
             return "update signature file doesn't exist " + path(kArchiveSign)(p) + ": 0x80000046 (Invalid argument)";
         }},
        // The hash is taken of a directory: it does not open (tmpfs), or it
        // opens and reading it fails (ext4); either is an exception without
        // a code, 0x80000151.
        {"hashing failed: a directory named like the archive", kProduct,
         [this] {
             const Package p = MakePackage(PackageType::Product, {{kArchiveSign, ToBytes("signature")}}, false);
             fs::create_directory(p.folder / kArchive);
             return p;
         },
         std::nullopt, 0x80000151u,
         [](const Package&) {
             return std::string("Expression failedfailed get update file hash: 0x80000151 (Exception has no result code)");
         }},
        {"tampered archive", kProduct,
         [this] {
             const Package p = MakePackage(PackageType::Product, {{kArchive, ArchiveBytes()}});
             Bytes changed = ArchiveBytes();
             changed.back() ^= 0x01;
             WriteBytes(p.folder / kArchive, changed);
             return p;
         },
         std::nullopt, 0xFFFF4000u,
         [&](const Package& p) {
             return "Expression failedFailed to verify update file " + path(kArchive)(p) + " with signature file " +
                    path(kArchiveSign)(p) + ": 0xffff4000 (Unknown result code)";
         }},
    };
    RunRows(rows, [this](std::uint16_t riid, std::uint32_t handle, std::vector<LogLine>& lines) {
        return Request(riid, handle, lines);
    });
}

TEST_F(VerifyE2ETest, Dispatch_InterfaceIndexSelectsTheVerifier)
{
    // Each folder holds one signed file: only its own verifier passes it.
    const Package list = MakePackage(PackageType::AppList, {{kList, kListBytes}});
    const Package archive = MakePackage(PackageType::Product, {{kArchive, ArchiveBytes()}});
    struct Row {
        const char* name;
        std::uint16_t riid;
        const Package& package;
        std::uint32_t code;
        const char* where;  // of the one line logged
    };
    const std::vector<Row> rows = {
        {"index 1 on the list", kApplist, list, 0, "applist_verifier:54"},
        {"index 0 on the list", kProduct, list, 0x80000046u, nullptr},
        {"index 0 on the archive", kProduct, archive, 0, "product_verifier:57"},
        {"index 1 on the archive", kApplist, archive, 0x80000046u, nullptr},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<LogLine> lines;
        const Answer answer = Request(row.riid, row.package.handle, lines);
        ASSERT_EQ(answer.rc, NK_EOK);
        EXPECT_EQ(static_cast<std::uint32_t>(answer.Result()), row.code);
        ASSERT_EQ(lines.size(), 1u);
        if (row.where != nullptr) {
            EXPECT_EQ(lines[0].where, row.where);
        } else {
            // The missing file names the verifier that looked for it.
            const std::string expected =
                row.riid == kProduct ? "update archive file doesn't exist " : "AppList file doesn't exist ";
            EXPECT_EQ(lines[0].message.find(": " + expected), 0u) << lines[0].message;
        }
    }
}

TEST_F(VerifyE2ETest, Dispatch_UnknownIndexesAreRefusedAndServingGoesOn)
{
    // The first requests the entity ever gets name nothing it serves.
    struct Row {
        const char* name;
        std::uint16_t riid;
        std::uint16_t method;
        std::uint32_t code;
    };
    const std::vector<Row> rows = {
        {"interface 2", 2, 0, 0x80000001u},
        {"method 3 of interface 1", kApplist, 3, 0x80000057u},
        {"interface 0xFFFF", 0xFFFF, 0, 0x80000001u},
        {"method 1 of interface 0", kProduct, 1, 0x80000057u},
    };
    VerifierClient client;
    const std::size_t mark = entities().LogMark();
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const Answer answer = client.Call(row.riid, 1, row.method);
        ASSERT_EQ(answer.rc, NK_EOK);
        EXPECT_EQ(answer.reply.base_.riid, row.riid);
        EXPECT_EQ(answer.reply.base_.mid, row.method);
        EXPECT_EQ(answer.reply.base_.size, kErrorReplySize);
        EXPECT_EQ(static_cast<std::uint32_t>(answer.reply.result), row.code);
    }
    EXPECT_TRUE(VerifierLines(entities().LogSince(mark)).empty());

    // Still serving, on the same connection and on a new one.
    EXPECT_EQ(static_cast<std::uint32_t>(client.Call(kApplist, 0x00FFFFFFu).Result()), 0x80000046u);
    std::vector<LogLine> lines;
    EXPECT_EQ(static_cast<std::uint32_t>(Request(kProduct, 0x00FFFFFFu, lines).Result()), 0x80000046u);
    EXPECT_FALSE(entities().Verifier().Wait(std::chrono::milliseconds(0)).has_value());
}

TEST_F(VerifyE2ETest, Verify_SeveralClientsAtOnceEachServedInTurn)
{
    const Package list = MakePackage(PackageType::AppList, {{kList, kListBytes}});
    const Package archive = MakePackage(PackageType::Product, {{kArchive, ArchiveBytes()}});
    constexpr int kClients = 6;
    constexpr int kRounds = 8;
    const std::size_t mark = entities().LogMark();
    std::atomic<int> wrong{0};
    std::atomic<int> transportFailures{0};
    std::vector<std::thread> clients;
    for (int c = 0; c < kClients; ++c) {
        clients.emplace_back([&] {
            VerifierClient client;
            for (int round = 0; round < kRounds; ++round) {
                const Answer a = client.Call(kApplist, list.handle);
                const Answer b = client.Call(kProduct, archive.handle);
                const Answer c2 = client.Call(kApplist, 0x00FFFFFFu);
                transportFailures += (a.rc != NK_EOK) + (b.rc != NK_EOK) + (c2.rc != NK_EOK);
                wrong += (a.Result() != 0) + (b.Result() != 0) +
                         (static_cast<std::uint32_t>(c2.Result()) != 0x80000046u);
            }
        });
    }
    for (auto& thread : clients)
        thread.join();
    EXPECT_EQ(transportFailures.load(), 0);
    EXPECT_EQ(wrong.load(), 0);

    // Every request left its one line, all written by the one IPC thread.
    int passed = 0;
    int failed = 0;
    std::set<std::string> threads;
    for (const LogLine& line : VerifierLines(entities().LogSince(mark))) {
        passed += line.message.ends_with(" was succeeded");
        failed += line.level == "error";
        threads.insert(line.ids);
    }
    EXPECT_EQ(passed, 2 * kClients * kRounds);
    EXPECT_EQ(failed, kClients * kRounds);
    EXPECT_EQ(threads.size(), 1u);
}

}  // namespace
}  // namespace verifier_e2e
