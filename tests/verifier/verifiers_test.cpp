// The two verifiers through their Verify, on fake peers: each row is one
// outcome with the code returned, the calls made to the peers and the one
// line logged.
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
#include "update/verifier/applist_verifier.h"
#include "update/verifier/product_verifier.h"

namespace verifier_test {
namespace {

using test_support::LogLine;

enum Kind { kApplist, kProduct };

// The package folder is "{dir}" in the rows' texts.
const std::string kList = "{dir}/appcollectioninfo.nos.vantor.json";
const std::string kListSign = "{dir}/appcollectioninfo.nos.vantor.json.sign";
const std::string kArchive = "{dir}/update_vantor3.tar.gz";
const std::string kArchiveSign = "{dir}/update_vantor3.sign";

std::string Failure(const std::string& description) { return ": " + description + " ; detailed: exception during: Verify"; }

std::string Expand(std::string text, const fs::path& dir)
{
    for (size_t at; (at = text.find("{dir}")) != std::string::npos;)
        text.replace(at, 5, dir.string());
    return text;
}

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
    // Files made in the package folder: "d:" a directory, "l:" a link to itself.
    struct Row {
        const char* name;
        Kind kind;
        unsigned int handle;
        std::vector<std::string> files;
        std::function<void(FakePeers&)> answers;
        std::uint32_t code;
        std::vector<std::string> calls;
        LogLine line;
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
         {Failure("invalid handle: 0x80000046 (Invalid argument)"), test_support::kError}},
        {"product: no handle never reaches the registry", kProduct, 0xFFFFFFFFu, {}, none, 0x80000046, {},
         {Failure("invalid handle: 0x80000046 (Invalid argument)"), test_support::kError}},
        {"the registry's failure is the result", kProduct, 7, {}, answer(&FakePeers::getInfo, 0x8000004C), 0x8000004C,
         {"GetInfo 7"},
         {Failure("Expression failedfailed get info from session registry: 0x8000004c (Not found)"), test_support::kError}},
        {"empty package folder", kApplist, 7, {}, [](FakePeers& p) { p.session.path.clear(); }, 0x80000071,
         {"GetInfo 7"}, {Failure("empty package folder: 0x80000071 (Invalid result)"), test_support::kError}},
        {"applist: neither file, the list is reported", kApplist, 7, {}, none, 0x80000046, {"GetInfo 7"},
         {Failure("AppList file doesn't exist " + kList + ": 0x80000046 (Invalid argument)"), test_support::kError}},
        {"applist: no signature", kApplist, 7, {kList}, none, 0x80000046, {"GetInfo 7"},
         {Failure("AppList signature file doesn't exist " + kListSign + ": 0x80000046 (Invalid argument)"),
          test_support::kError}},
        {"product: neither file, the archive is reported", kProduct, 7, {}, none, 0x80000046, {"GetInfo 7"},
         {Failure("update archive file doesn't exist " + kArchive + ": 0x80000046 (Invalid argument)"),
          test_support::kError}},
        {"product: no signature", kProduct, 7, {kArchive}, none, 0x80000046, {"GetInfo 7"},
         {Failure("update signature file doesn't exist " + kArchiveSign + ": 0x80000046 (Invalid argument)"),
          test_support::kError}},
        {"applist: a directory counts as a file; the checker's failure is the result", kApplist, 7,
         {"d:" + kList, kListSign}, answer(&FakePeers::verify, -81920), 0xFFFEC000,
         {"GetInfo 7", "Verify " + kList + " " + kListSign},
         {Failure("Expression failedFailed to verify AppList file " + kList + " with signature file " + kListSign +
                  ": 0xfffec000 (Unknown result code)"),
          test_support::kError}},
        {"applist: what the checker throws is caught", kApplist, 7, {kList, kListSign},
         answer(&FakePeers::verify, kThrows), 0x8000004B, {"GetInfo 7", "Verify " + kList + " " + kListSign},
         {": peer broke ; detailed: exception during Verify", test_support::kError}},
        {"applist: a status that cannot be read is no missing file", kApplist, 7, {"l:" + kList}, none, 0x8000004B,
         {"GetInfo 7"}, {loopLine, test_support::kError}},
        {"product: a directory counts as a file; hashing fails, nothing is verified", kProduct, 7,
         {"d:" + kArchive, kArchiveSign}, answer(&FakePeers::getHash, 0x80000059), 0x80000059,
         {"GetInfo 7", "GetHash " + kArchive + " 0"},
         {Failure("Expression failedfailed get update file hash: 0x80000059 (Media error)"), test_support::kError}},
        {"product: the hash's check fails", kProduct, 7, {kArchive, kArchiveSign},
         answer(&FakePeers::verifyHash, -49152), 0xFFFF4000,
         {"GetInfo 7", "GetHash " + kArchive + " 0", "VerifyHash a501ff " + kArchiveSign},
         {Failure("Expression failedFailed to verify update file " + kArchive + " with signature file " + kArchiveSign +
                  ": 0xffff4000 (Unknown result code)"),
          test_support::kError}},
        // Only a negative result fails: a positive one passes everywhere.
        {"applist: signed", kApplist, 5, {kList, kListSign},
         [](FakePeers& p) { p.getInfo = 1; p.verify = 22; }, 0, {"GetInfo 5", "Verify " + kList + " " + kListSign},
         {"AppList file " + kList + " verification with signature file " + kListSign + " was succeeded",
          test_support::kInfo, "entities/updater_pdk/verifier/src/verifiers/applist_verifier:54"}},
        {"product: signed", kProduct, 5, {kArchive, kArchiveSign},
         [](FakePeers& p) { p.getInfo = 1; p.getHash = 1; p.verifyHash = 22; }, 0,
         {"GetInfo 5", "GetHash " + kArchive + " 0", "VerifyHash a501ff " + kArchiveSign},
         {"Update file " + kArchive + " verification with signature file " + kArchiveSign + " was succeeded",
          test_support::kInfo, "entities/updater_pdk/verifier/src/verifiers/product_verifier:57"}},
    };
    int folder = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const fs::path package = dir.Path() / std::to_string(++folder);
        fs::create_directory(package);
        for (const std::string& file : row.files) {
            const fs::path path = Expand(file.substr(file[1] == ':' ? 2 : 0), package);
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
        std::vector<std::string> calls;
        for (const std::string& call : row.calls)
            calls.push_back(Expand(call, package));
        EXPECT_EQ(peers->calls, calls);
        std::vector<LogLine> lines = log.Lines();
        if (row.line.where.empty() && lines.size() == 1)
            lines[0].where.clear();  // ManageException's own location
        EXPECT_EQ(lines, std::vector<LogLine>{LogLine(Expand(row.line.text, package), row.line.level, row.line.where)});
    }
}

// The registry's GetInfo and the checker's GetHash and VerifyHash report
// failure only by their result: an exception from one of them is a broken
// contract that ends the process.
TEST_F(VerifiersTest, Verify_PeerThatThrowsWhereItMustNotEndsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    struct Row {
        const char* name;
        Kind kind;
        int FakePeers::*call;
    };
    const Row rows[] = {
        {"applist, GetInfo", kApplist, &FakePeers::getInfo},
        {"product, GetInfo", kProduct, &FakePeers::getInfo},
        {"product, GetHash", kProduct, &FakePeers::getHash},
        {"product, VerifyHash", kProduct, &FakePeers::verifyHash},
    };
    for (const char* name : {"appcollectioninfo.nos.vantor.json", "appcollectioninfo.nos.vantor.json.sign",
                             "update_vantor3.tar.gz", "update_vantor3.sign"})
        std::ofstream(dir.Path() / name) << "content";
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        auto peers = std::make_shared<FakePeers>();
        peers->session.path = dir.Path();
        (*peers).*row.call = kThrows;
        EXPECT_DEATH((void)Make(row.kind, peers)->Verify(1), "peer broke");
    }
}

}  // namespace
}  // namespace verifier_test
