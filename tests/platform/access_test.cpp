// Who gets through to a channel, with the real programs: an honest client of
// a crowded verifier short of descriptors.
#include "support/process.h"
#include "support/runtime_dir.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>

namespace {

using namespace test_support;
using namespace nos_host;
namespace fs = std::filesystem;

TEST(HostAccess, Verify_SucceedsForAnHonestClientWithFewDescriptorsAndHundredsOfIdleConnections)
{
    const char* source = std::getenv("VERIFIER_SOURCE_DIR");
    ASSERT_NE(source, nullptr) << "VERIFIER_SOURCE_DIR names the source tree; ctest sets it";
    RuntimeDir runtime;
    const fs::path dir = runtime.Path();
    // A test PKI and an application list signed by it.
    Process sign({"/bin/sh", "-c",
                  "set -e; cd \"$1\"; \"$0/make-test-pki\" pki; mkdir pkg; echo '{}' >pkg/appcollectioninfo.nos.vantor.json;"
                  " \"$0/sign-package\" pkg --cert pki/signer.pem --key pki/signer.key --chain pki/chain.pem",
                  std::string(source) + "/scripts", dir.string()});
    ASSERT_EQ(sign.Wait(60s), 0) << sign.Log();
    Process checker({program::kSignatureVerifier, "--roots", (dir / "pki/roots").string()});
    Process registry({program::kUpdateRegistry, "--storage", (dir / "storage").string()});
    ASSERT_TRUE(checker.WaitServing("nv.SignatureVerifierEntity")) << checker.Log();
    ASSERT_TRUE(registry.WaitServing("update_registry")) << registry.Log();
    Process verifier({"/bin/sh", "-c", "ulimit -n 64 && exec \"$0\"", program::kVerifier});
    ASSERT_TRUE(verifier.WaitServing("verifier")) << verifier.Log();
    Process open({program::kRegistryCli, "open", "applist"});
    const auto handle = open.ReadLine();
    ASSERT_TRUE(handle && open.Wait() == 0) << open.Log();
    fs::rename(dir / "pkg", fs::directory_iterator(dir / "storage")->path());  // the session's folder

    std::vector<int> idle;
    for (int i = 0; i < 300; ++i) {
        idle.push_back(ConnectSeqpacket((dir / "verifier.sock").string()));
        ASSERT_GE(idle.back(), 0);
    }
    Process verify({program::kVerifierCli, "verify", "applist", *handle});
    EXPECT_EQ(verify.ReadLine(), "0x00000000 (No error)") << verifier.Log();
    EXPECT_EQ(verify.Wait(), 0);
    const std::string log = verifier.Log(), warning = "channel \"verifier\": few descriptors left";
    const auto first = log.find(warning);  // one line for the whole crowd
    EXPECT_TRUE(first != std::string::npos && log.find(warning, first + 1) == std::string::npos) << log;
    for (const int fd : idle)
        ::close(fd);
}

}  // namespace
