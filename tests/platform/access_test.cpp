// Who gets through to a channel, with the real programs: another user's
// process, and an honest client of a crowded verifier short of descriptors.
#include "support/process.h"
#include "support/runtime_dir.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace {

using namespace test_support;
using namespace nos_host;
namespace fs = std::filesystem;

// How a request to the socket `path` from a child process running as `uid`
// went: the IoResult of sending it and reading the reply.
int CallAs(uid_t uid, const fs::path& path)
{
    const pid_t child = ::fork();
    if (child == 0) {
        const bool dropped = ::setgroups(0, nullptr) == 0 && ::setgid(uid) == 0 && ::setuid(uid) == 0;
        const int fd = dropped ? ConnectSeqpacket(path.string()) : -1;
        const uint8_t message[24] = {0, 0, 0, 0, 24};
        FrameHeader header;
        std::vector<uint8_t> buffer;
        std::span<const uint8_t> packet;
        IoResult result = fd < 0 ? IoResult::Failed : SendFrame(fd, header, message, {}, std::nullopt, false);
        if (result == IoResult::Ok)
            result = ReadFirstPacket(fd, buffer, packet, header, Clock::now() + 10s);
        ::_exit(static_cast<int>(result));
    }
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(HostAccess, Accept_RefusesAnotherUsersProcessUnlessItsUidIsAllowed)
{
    if (::geteuid() != 0)
        GTEST_SKIP() << "needs root, to run a client under another uid";
    RuntimeDir runtime;
    ASSERT_EQ(::chmod(runtime.Path().c_str(), 0711), 0);
    for (const bool allowed : {false, true}) {
        SCOPED_TRACE(allowed ? "allowed" : "not allowed");
        std::vector<std::string> argv{program::kLogStorage, "--out", (runtime.Path() / "log.txt").string()};
        if (allowed)
            argv.insert(argv.end(), {"--allow-uid", "65534"});
        Process storage(argv);
        ASSERT_TRUE(storage.WaitServing("nv.NvlogStorageEntity")) << storage.Log();
        // The file permissions let anybody in: the credential check alone decides.
        const fs::path socket = runtime.Path() / "nv.NvlogStorageEntity.sock";
        ASSERT_EQ(::chmod(socket.c_str(), 0666), 0);
        EXPECT_EQ(CallAs(65534, socket), static_cast<int>(allowed ? IoResult::Ok : IoResult::Closed));
        EXPECT_EQ(storage.Stop(), 0);
        EXPECT_EQ(storage.Log().find("connection of uid 65534 (pid ") != std::string::npos, !allowed) << storage.Log();
    }
}

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
