// Where a session's package lies, and the two verifiers through their Verify
// on fake peers: each row is one outcome with the code returned, the calls
// made to the peers and the one line logged.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <system_error>
#include <vector>

#include "fake_peers.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"
#include "update/common.h"
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"

namespace verifier_test {
namespace {

using test_support::LogLine;

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

}  // namespace
}  // namespace verifier_test
