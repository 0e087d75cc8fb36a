// The verifier process against fake peers in this process: how it stops,
// what it survives (a peer that leaves in the middle of a request, many
// requests), and verifier-cli.
#include <signal.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "e2e.h"
#include "support/fake_peer.h"
#include "support/process.h"
#include "support/runtime_dir.h"

namespace verifier_e2e {
namespace {

using namespace test_support;
namespace fs = std::filesystem;

class VerifierProcessTest : public RuntimeDirTest {
protected:
    // Session 7's folder holds an application list and its signature.
    VerifierProcessTest()
    {
        for (const char* name : {"appcollectioninfo.nos.vantor.json", "appcollectioninfo.nos.vantor.json.sign"})
            std::ofstream(runtime.Path() / name) << "content";
    }

    std::unique_ptr<Process> StartVerifier()
    {
        auto verifier = std::make_unique<Process>(std::vector<std::string>{program::kVerifier});
        EXPECT_TRUE(verifier->WaitServing("verifier")) << verifier->Log();
        return verifier;
    }

    FakeLogStorage storage;
    FakeRegistry registry{{{7, {.path = runtime.Path()}}}};
};

TEST_F(VerifierProcessTest, Main_StopSignalsEndServingWithStatusZero)
{
    // A test started in the background may inherit SIGINT ignored, and so
    // would the verifier: give it the default action, as a terminal would.
    std::signal(SIGINT, SIG_DFL);
    size_t seen = 0;
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(strsignal(signal));
        const auto verifier = StartVerifier();
        verifier->Signal(signal);
        EXPECT_EQ(verifier->Wait(), 0);
        // Its start lines, then only the stop line: the wake-up request that
        // ends the wait names nothing to serve.
        std::string records;
        for (const std::string& record : storage.Lines())
            records += record;
        const std::vector<std::string> lines = VerifierLines(records);
        ASSERT_EQ(lines.size(), seen + 4) << records;
        EXPECT_EQ(lines.back(), "[verifier][info][shared_log_function_for_entity] IPC server has stopped");
        seen = lines.size();
    }
}

// A signature verifier that dies mid-request fails that check with the
// signature client's status for a broken connection (-32); each check
// connects anew, and many of them leave no descriptor open.
TEST_F(VerifierProcessTest, Verify_CheckerDiesMidRequestThenManyChecks)
{
    const auto verifier = StartVerifier();
    auto dying = std::make_unique<FakeSignatureVerifier>();
    dying->SetMode(FakeMode::Never);
    auto answer = std::async(std::launch::async, [] { return Verify(kApplist, 7); });
    ASSERT_TRUE(dying->WaitRequests(1));
    dying.reset();
    EXPECT_EQ(answer.get(), 0xFFFFFFE0u);
    FakeSignatureVerifier checker;
    const auto descriptors = [&verifier] {
        const auto entries = fs::directory_iterator("/proc/" + std::to_string(verifier->Pid()) + "/fd");
        return std::distance(fs::begin(entries), fs::end(entries));
    };
    ASSERT_EQ(Verify(kApplist, 7), 0u);
    const auto before = descriptors();
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(Verify(kApplist, 7), 0u) << "check " << i;
    EXPECT_LE(descriptors(), before + 2);
}

TEST_F(VerifierProcessTest, VerifierCli_ExitStatusAndOutput)
{
    struct Row {
        const char* name;
        std::vector<std::string> args;
        bool serving;
        int status;
        std::vector<std::string> out;
    };
    const Row rows[] = {
        {"unknown kind", {"verify", "firmware", "7"}, false, 2, {}},
        {"handle above 32 bits", {"verify", "applist", "0x100000000"}, false, 2, {}},
        {"nobody serves the channel", {"verify", "applist", "7"}, false, 2, {}},
        {"signed: only the low 24 bits of the handle count", {"verify", "applist", "0x1000007"}, true, 0,
         {"0x00000000 (No error)"}},
        {"a failure, with the reply's bytes", {"verify", "product", "0xFFFFFF", "--raw"}, true, 1,
         {"00 00 00 00 20 00 00 80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 46 00 00 80 00 00 00 00",
          "0x80000046 (Invalid argument)"}},
    };
    FakeSignatureVerifier checker;
    std::unique_ptr<Process> verifier;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.serving && !verifier)
            verifier = StartVerifier();
        std::vector<std::string> argv{program::kVerifierCli};
        argv.insert(argv.end(), row.args.begin(), row.args.end());
        Process cli(argv);
        EXPECT_EQ(cli.Wait(), row.status) << cli.Log();
        std::vector<std::string> out;
        while (const auto line = cli.ReadLine())
            out.push_back(*line);
        EXPECT_EQ(out, row.out);
    }
}

}  // namespace
}  // namespace verifier_e2e
