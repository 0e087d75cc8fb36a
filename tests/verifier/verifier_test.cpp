// The Verifier entity in this process: where a session's package lies; the
// two verifiers through their Verify on fake peers, each row one outcome
// with the code returned, the calls made to the peers and the one line
// logged; and the entity's body on a scripted transport, with the start-ups
// that fail.
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>
#include <signature_verifier/update_verifier.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "entity.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"
#include "support/scripted_transport.h"
#include "update/common.h"
#include "update/registry/ipc/proxy.h"
#include "update/registry/ipc/registry.h"
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"
#include "verifier_api/messages.h"

namespace verifier_test {
namespace {

using namespace test_support;

// The verifiers' two peers in one in-process fake: a registry whose GetInfo
// answers `session` with `getInfo`, and a signature checker whose calls
// answer `verify`, `getHash` and `verifyHash`. Every call is recorded as a
// line of text; kThrows in an answer makes that call throw instead.
namespace reg = update::registry::ipc;
namespace fs = std::filesystem;

inline constexpr std::int32_t kThrows = 0x7EEEEEEE;

class FakePeers final : public reg::IRegistry, public signature_verifier::wrapper::ISignatureVerifier {
public:
    reg::SessionInfo session;
    int getInfo = 0, verify = 0, getHash = 0, verifyHash = 0;  // a hash that GetHash gives is a5 01 ff
    mutable std::vector<std::string> calls;

    int GetInfo(unsigned int handle, reg::SessionInfo& info) const override
    {
        calls.push_back("GetInfo " + std::to_string(handle));
        info = session;
        return Answer(getInfo);
    }
    std::int32_t Verify(const fs::path& data, const fs::path& signature) override
    {
        calls.push_back("Verify " + data.string() + " " + signature.string());
        return Answer(verify);
    }
    std::int32_t GetHash(const fs::path& file, std::vector<std::uint8_t>& hash) override
    {
        calls.push_back("GetHash " + file.string() + " " + std::to_string(hash.size()));
        if (getHash >= 0)
            hash = {0xA5, 0x01, 0xFF};
        return Answer(getHash);
    }
    std::int32_t VerifyHash(const std::vector<std::uint8_t>& hash, const fs::path& signature) override
    {
        calls.push_back(fmt::format("VerifyHash {:02x} {}", fmt::join(hash, ""), signature.string()));
        return Answer(verifyHash);
    }

    // Not called by the verifiers.
    int Open(reg::PackageType, unsigned int&) override { return Answer(kThrows); }
    int Close(unsigned int) override { return Answer(kThrows); }
    int GetSessions(std::vector<reg::SessionInfo>&) const override { return Answer(kThrows); }
    int GetHandle(const eka::guid_t&, unsigned int&) const override { return Answer(kThrows); }
    int SetState(unsigned int, reg::UpdateState) override { return Answer(kThrows); }

private:
    static std::int32_t Answer(std::int32_t answer)
    {
        if (answer == kThrows)
            throw std::runtime_error("peer broke");
        return answer;
    }
};

TEST(PackageLayoutTest, GetPackagePath_FilesOfOnePackage)
{
    struct Row {
        const char* folder;
        const char* directory;
    };
    const Row rows[] = {
        {"abc", "/update_storage/abc"},
        {"a/b/", "/update_storage/a/b/"},
        {"../x", "/update_storage/../x"},  // not resolved: the registry owns the folder names
        {"/tmp/x", "/tmp/x"},              // an absolute folder replaces the root
    };
    for (const Row& row : rows) {
        update::registry::ipc::SessionInfo info;
        info.path = row.folder;
        EXPECT_EQ(update::GetPackagePath(info).native(), row.directory) << row.folder;
    }
    const std::filesystem::path dir = "/update_storage/abc";
    EXPECT_EQ(dir / update::GetAppListFileName(), "/update_storage/abc/appcollectioninfo.nos.vantor.json");
    EXPECT_EQ(dir / update::GetAppListSignatureName(), "/update_storage/abc/appcollectioninfo.nos.vantor.json.sign");
    EXPECT_EQ(dir / update::GetUpdateArchiveName(), "/update_storage/abc/update_vantor3.tar.gz");
    EXPECT_EQ(dir / update::GetUpdateSignatureName(), "/update_storage/abc/update_vantor3.sign");
}

TEST(PackageLayoutTest, GenerateUuid_RandomVersion4)
{
    const eka::guid_t first = update::GenerateUuid();
    const eka::guid_t second = update::GenerateUuid();
    EXPECT_NE(first.bytes, second.bytes);
    for (const eka::guid_t& id : {first, second}) {
        EXPECT_EQ(id.bytes[6] & 0xF0, 0x40);
        EXPECT_EQ(id.bytes[8] & 0xC0, 0x80);
    }
}

enum Kind { kApplist, kProduct };

std::string Failure(const std::string& what) { return ": " + what + " ; detailed: exception during: Verify"; }

std::unique_ptr<update::verifier::ipc::IVerifier> Make(Kind kind, const std::shared_ptr<FakePeers>& peers)
{
    if (kind == kApplist)
        return std::make_unique<update::verifier::ApplistVerifier>(peers, peers);
    return std::make_unique<update::verifier::ProductVerifier>(peers, peers);
}

class VerifiersTest : public ::testing::Test {
protected:
    test_support::RuntimeDir dir;  // the package folders live in it
    test_support::LogCapture log;
    test_support::RootLoggerCapture capture{log};
};

TEST_F(VerifiersTest, Verify_OutcomeTable)
{
    // The package folder, made afresh for each row with `files` in it: "d:"
    // makes a directory, "l:" a link to itself.
    const fs::path package = dir.Path() / "package";
    const std::string kList = package.string() + "/appcollectioninfo.nos.vantor.json";
    const std::string kListSign = kList + ".sign";
    const std::string kArchive = package.string() + "/update_vantor3.tar.gz";
    const std::string kArchiveSign = package.string() + "/update_vantor3.sign";
    struct Row {
        const char* name;
        Kind kind;
        unsigned int handle;
        std::vector<std::string> files;
        std::function<void(FakePeers&)> answers;
        std::uint32_t code;
        std::vector<std::string> calls;
        std::string line;       // the one line logged: an error, or the success line at `where`
        std::string where = {};
    };
    const auto answer = [](int FakePeers::*field, int value) {
        return [field, value](FakePeers& p) { p.*field = value; };
    };
    const auto none = [](FakePeers&) {};
    const std::string loopLine =
        ": " + std::string(fs::filesystem_error("status", fs::path(kList),
                                                std::make_error_code(std::errc::too_many_symbolic_link_levels))
                               .what()) +
        " ; detailed: exception during Verify";
    const std::vector<Row> rows = {
        {"applist: no handle never reaches the registry", kApplist, 0xFFFFFFFFu, {}, none, 0x80000046, {},
         Failure("invalid handle: 0x80000046 (Invalid argument)")},
        {"product: no handle never reaches the registry", kProduct, 0xFFFFFFFFu, {}, none, 0x80000046, {},
         Failure("invalid handle: 0x80000046 (Invalid argument)")},
        {"the registry's failure is the result", kProduct, 7, {}, answer(&FakePeers::getInfo, 0x8000004C), 0x8000004C,
         {"GetInfo 7"},
         Failure("Expression failedfailed get info from session registry: 0x8000004c (Not found)")},
        {"empty package folder", kApplist, 7, {}, [](FakePeers& p) { p.session.path.clear(); }, 0x80000071,
         {"GetInfo 7"}, Failure("empty package folder: 0x80000071 (Invalid result)")},
        {"applist: neither file, the list is reported", kApplist, 7, {}, none, 0x80000046, {"GetInfo 7"},
         Failure("AppList file doesn't exist " + kList + ": 0x80000046 (Invalid argument)")},
        {"applist: no signature", kApplist, 7, {kList}, none, 0x80000046, {"GetInfo 7"},
         Failure("AppList signature file doesn't exist " + kListSign + ": 0x80000046 (Invalid argument)")},
        {"product: neither file, the archive is reported", kProduct, 7, {}, none, 0x80000046, {"GetInfo 7"},
         Failure("update archive file doesn't exist " + kArchive + ": 0x80000046 (Invalid argument)")},
        {"product: no signature", kProduct, 7, {kArchive}, none, 0x80000046, {"GetInfo 7"},
         Failure("update signature file doesn't exist " + kArchiveSign + ": 0x80000046 (Invalid argument)")},
        {"applist: a directory counts as a file; the checker's failure is the result", kApplist, 7,
         {"d:" + kList, kListSign}, answer(&FakePeers::verify, -81920), 0xFFFEC000,
         {"GetInfo 7", "Verify " + kList + " " + kListSign},
         Failure("Expression failedFailed to verify AppList file " + kList + " with signature file " + kListSign +
                  ": 0xfffec000 (Unknown result code)")},
        {"applist: what the checker throws is caught", kApplist, 7, {kList, kListSign},
         answer(&FakePeers::verify, kThrows), 0x8000004B, {"GetInfo 7", "Verify " + kList + " " + kListSign},
         ": peer broke ; detailed: exception during Verify"},
        {"applist: a status that cannot be read is no missing file", kApplist, 7, {"l:" + kList}, none, 0x8000004B,
         {"GetInfo 7"}, loopLine},
        {"product: a directory counts as a file; hashing fails, nothing is verified", kProduct, 7,
         {"d:" + kArchive, kArchiveSign}, answer(&FakePeers::getHash, 0x80000059), 0x80000059,
         {"GetInfo 7", "GetHash " + kArchive + " 0"},
         Failure("Expression failedfailed get update file hash: 0x80000059 (Media error)")},
        {"product: the hash's check fails", kProduct, 7, {kArchive, kArchiveSign},
         answer(&FakePeers::verifyHash, -49152), 0xFFFF4000,
         {"GetInfo 7", "GetHash " + kArchive + " 0", "VerifyHash a501ff " + kArchiveSign},
         Failure("Expression failedFailed to verify update file " + kArchive + " with signature file " + kArchiveSign +
                  ": 0xffff4000 (Unknown result code)")},
        // Only a negative result fails: a positive one passes everywhere.
        {"applist: signed", kApplist, 5, {kList, kListSign},
         [](FakePeers& p) { p.getInfo = 1; p.verify = 22; }, 0, {"GetInfo 5", "Verify " + kList + " " + kListSign},
         "AppList file " + kList + " verification with signature file " + kListSign + " was succeeded",
         "entities/updater_pdk/verifier/src/verifiers/applist_verifier:54"},
        {"product: signed", kProduct, 5, {kArchive, kArchiveSign},
         [](FakePeers& p) { p.getInfo = 1; p.getHash = 1; p.verifyHash = 22; }, 0,
         {"GetInfo 5", "GetHash " + kArchive + " 0", "VerifyHash a501ff " + kArchiveSign},
         "Update file " + kArchive + " verification with signature file " + kArchiveSign + " was succeeded",
         "entities/updater_pdk/verifier/src/verifiers/product_verifier:57"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        fs::remove_all(package);
        fs::create_directory(package);
        for (const std::string& file : row.files) {
            const fs::path path = file.substr(file[1] == ':' ? 2 : 0);
            if (file.starts_with("d:"))
                fs::create_directory(path);
            else if (file.starts_with("l:"))
                fs::create_symlink(path.filename(), path);
            else
                std::ofstream(path) << "content";
        }
        auto peers = std::make_shared<FakePeers>();
        peers->session.path = package;
        row.answers(*peers);
        log.Clear();

        EXPECT_EQ(static_cast<std::uint32_t>(Make(row.kind, peers)->Verify(row.handle)), row.code);
        EXPECT_EQ(peers->calls, row.calls);
        std::vector<LogLine> lines = log.Lines();
        if (row.where.empty() && lines.size() == 1)
            lines[0].where.clear();  // ManageException's own location
        const int level = row.where.empty() ? test_support::kError : test_support::kInfo;
        EXPECT_EQ(lines, std::vector<LogLine>{LogLine(row.line, level, row.where)});
    }
}

const LogLine kStarted{"Entity started [\x1b[92mOK\x1b[0m]", kInfo, "entities/updater_pdk/verifier/src/main:48"};
const LogLine kFailed{"Entity started [\x1b[91mFAILED\x1b[0m]", kError, "entities/updater_pdk/verifier/src/main:57"};

Bytes Verify(std::uint16_t riid, std::uint32_t handle)
{
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    nk_msg_set_size(&request.base_, sizeof request);
    request.handle = handle;
    return BytesOf(request);
}

class VerifierEntityTest : public RuntimeDirTest {
protected:
    // The lines logged, with the location of those from other files left out.
    std::vector<LogLine> Lines() const
    {
        std::vector<LogLine> lines = log.Lines();
        for (LogLine& line : lines)
            if (!line.where.starts_with("entities/"))
                line.where.clear();
        return lines;
    }

    LogCapture log;
    RootLoggerCapture capture{log};
    std::shared_ptr<FakePeers> peers = std::make_shared<FakePeers>();
};

TEST_F(VerifierEntityTest, Run_ServesEndpointsInOrderAndGoesOnAfterEagain)
{
    // A session whose folder is empty: each verifier names the file it
    // looked for first.
    peers->session.path = runtime.Path();
    const std::string dir = runtime.Path().string();
    ScriptedTransport transport({Deliver(Verify(0, 7)), Fail(NK_EAGAIN), Deliver(Verify(1, 7), NK_EAGAIN),
                                 Deliver(Verify(2, 7))});
    const auto fake = [this] { return peers; };
    EXPECT_EQ(update::verifier::entity::Run({fake, fake, ScriptedTransport::Ops()}), 0);

    std::vector<std::uint32_t> results;
    for (const auto& reply : transport.replies)
        results.push_back(reinterpret_cast<const nv_IVerifier_Verify_res*>(reply.message.data())->result);
    EXPECT_EQ(results, (std::vector<std::uint32_t>{0x80000046, 0x80000046, 0x80000001}));
    const std::string handle = std::to_string(transport.channel);
    const std::string tail = ": 0x80000046 (Invalid argument) ; detailed: exception during: Verify";
    EXPECT_EQ(Lines(), (std::vector<LogLine>{
                           kStarted,
                           {"NkNosTransport initialized with handle " + handle, kInfo},
                           {": update archive file doesn't exist " + dir + "/update_vantor3.tar.gz" + tail, kError},
                           {": AppList file doesn't exist " + dir + "/appcollectioninfo.nos.vantor.json" + tail,
                            kError},
                           {"IpcThread with handle=" + handle + " stopped with error code -5", kError}}));
}

TEST_F(VerifierEntityTest, Run_StartFailuresTable)
{
    using Peers = update::verifier::entity::Peers;
    const auto fake = [this] { return peers; };
    struct Row {
        const char* name;
        decltype(Peers::makeRegistry) makeRegistry;
        decltype(Peers::makeChecker) makeChecker;
        std::vector<LogLine> lines;
    };
    const Row rows[] = {
        {"nobody serves the registry",
         [] { return reg::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry"); }, fake,
         {{"update_registry UpdateRegistry.UpdateRegistry", kInfo},
          {": invalid handle: 0x80000071 (Invalid result) ; detailed: exception during: main", kError},
          kFailed}},
        {"no registry client, no checker: the registry first", [] { return nullptr; }, [] { return nullptr; },
         {{": empty registry: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
        {"no checker", fake, [] { return nullptr; },
         {{": empty verifier: 0x80000046 (Invalid argument) ; detailed: exception during: main", kError}, kFailed}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        log.Clear();
        EXPECT_EQ(update::verifier::entity::Run({row.makeRegistry, row.makeChecker}), 1);
        EXPECT_EQ(Lines(), row.lines);
    }
}

}  // namespace
}  // namespace verifier_test
