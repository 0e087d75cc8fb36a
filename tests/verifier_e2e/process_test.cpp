// The verifier process against fake peers in this process: how it stops,
// and what it survives, peers and clients that leave in the middle of a
// request, and many requests.
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
        std::map<unsigned int, update::registry::ipc::SessionInfo> sessions;
        sessions[7].path = runtime.Path();
        registry = std::make_unique<FakeRegistry>(sessions);
    }

    std::unique_ptr<Process> StartVerifier()
    {
        auto verifier = std::make_unique<Process>(std::vector<std::string>{program::kVerifier});
        EXPECT_TRUE(verifier->WaitServing("verifier")) << verifier->Log();
        return verifier;
    }

    FakeLogStorage storage;
    std::unique_ptr<FakeRegistry> registry;
};

TEST_F(VerifierProcessTest, Main_StopSignalsEndServingWithStatusZero)
{
    // A test started in the background may inherit SIGINT ignored, and so
    // would the verifier: give it the default action, as a terminal would.
    std::signal(SIGINT, SIG_DFL);
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(strsignal(signal));
        const auto verifier = StartVerifier();
        verifier->Signal(signal);
        EXPECT_EQ(verifier->Wait(), 0);
        ASSERT_FALSE(storage.Lines().empty());
        EXPECT_EQ(VerifierLines(storage.Lines().back()),
                  std::vector<std::string>{"[verifier][info][shared_log_function_for_entity] IPC server has stopped"});
    }
}

TEST_F(VerifierProcessTest, Main_ClientThatLeavesBeforeItsReplyDoesNotEndServing)
{
    const auto verifier = StartVerifier();
    registry->SetMode(FakeMode::Never);
    Process client({program::kVerifierCli, "verify", "applist", "7"});
    ASSERT_TRUE(registry->WaitRequests(1));
    client.Signal(SIGKILL);
    ASSERT_TRUE(client.Wait().has_value());
    // The look-up fails at once; its reply finds the client gone.
    registry.reset();
    EXPECT_EQ(Verify(kApplist, 0xFFFFFF), 0x80000046u);
    EXPECT_FALSE(verifier->Wait(0ms).has_value());
}

TEST_F(VerifierProcessTest, Verify_SignatureVerifierThatDiesMidRequest)
{
    const auto verifier = StartVerifier();
    auto checker = std::make_unique<FakeSignatureVerifier>();
    checker->SetMode(FakeMode::Never);
    auto answer = std::async(std::launch::async, [] { return Verify(kApplist, 7); });
    ASSERT_TRUE(checker->WaitRequests(1));
    checker.reset();
    // The signature client's status for a connection that broke: -32.
    EXPECT_EQ(answer.get(), 0xFFFFFFE0u);
    // Each check connects anew.
    FakeSignatureVerifier another;
    EXPECT_EQ(Verify(kApplist, 7), 0u);
}

TEST_F(VerifierProcessTest, Verify_ManyChecksLeaveNoDescriptorOpen)
{
    FakeSignatureVerifier checker;
    const auto verifier = StartVerifier();
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

}  // namespace
}  // namespace verifier_e2e
