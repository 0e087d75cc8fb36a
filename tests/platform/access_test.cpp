// Who gets through to a channel: the runtime directory the platform accepts,
// its sockets and files; with the real programs, another user's process and
// an honest client of a crowded verifier short of descriptors; the name
// server's refusals, each with its own code, and its listening while out of
// descriptors. Accepting, joining and dropping connections are seen where
// they are used, in the IPC server and connection manager tests. Last, the
// bound on each call.
#include "runtime.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/runtime_dir.h"
#include "wire.h"

#include <gtest/gtest.h>

#include <nos/platform.h>

#include <grp.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <future>

namespace {

using namespace test_support;
using namespace nos_host;
namespace fs = std::filesystem;
using test_support::LogLine;

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

class HostNameServerTest : public test_support::RuntimeDirTest {};

TEST_F(HostNameServerTest, ConnectionRequests_FailWithTheirOwnCodes)
{
    Handle ns = INVALID_HANDLE;
    ASSERT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "other"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "other"), NK_EOK);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "other"), NK_ENOENT);
    Handle handle = INVALID_HANDLE;
    uint32_t riid = INVALID_RIID;
    for (const char* service : {"nobody", "other"})
        EXPECT_EQ(KnCmConnect(service, 1000, &handle, &riid), NK_ENOENT) << service;
    EXPECT_EQ(handle, INVALID_HANDLE);

    auto client = std::async(std::launch::async, [&] { return KnCmConnect("echo", 5000, &handle, &riid); });
    char name[KN_CM_NAME_MAX] = {};
    char service[KN_CM_NAME_MAX] = {};
    ASSERT_EQ(KnCmListen(nullptr, 5000, name, service), NK_EOK);
    EXPECT_STREQ(service, "echo");
    Handle channel = INVALID_HANDLE;
    EXPECT_EQ(KnCmAccept(name, "echo", 1, ns, &channel), NK_EBADF);  // not a channel: still pending
    EXPECT_EQ(KnCmAccept(name, "echo", INVALID_RIID, INVALID_HANDLE, &channel), NK_EINVAL);
    EXPECT_EQ(KnCmDrop(name, "echo"), NK_EOK);
    EXPECT_EQ(client.get(), NK_ECONNREFUSED);
    EXPECT_EQ(KnCmDrop(name, "echo"), NK_ENOENT);
    EXPECT_EQ(KnCmAccept(name, "echo", 1, INVALID_HANDLE, &channel), NK_ENOENT);
    EXPECT_EQ(channel, INVALID_HANDLE);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KnCmListen(nullptr, 100, name, service), NK_CM_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(NsPublishService(ns, "t", nullptr, "a/b"), NK_EINVAL);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    EXPECT_EQ(KnHandleClose(ns), NK_EOK);
}

TEST_F(HostNameServerTest, KnCmListen_RestsWhileOutOfDescriptorsAndAcceptsOnceTheyAreBack)
{
    Handle ns = INVALID_HANDLE;
    ASSERT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    const int client = nos_host::ConnectSeqpacket((runtime.Path() / ("cm." + std::to_string(::getpid()) + ".sock")).string());
    rlimit saved {};
    ASSERT_TRUE(client >= 0 && ::getrlimit(RLIMIT_NOFILE, &saved) == 0);
    rlimit low = saved;
    low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 256);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> taken;  // every descriptor: accepting the waiting client fails with EMFILE
    for (int fd; (fd = ::dup(client)) >= 0;)
        taken.push_back(fd);
    const auto cpu = [] {
        rusage usage {};
        ::getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_utime.tv_sec * 1000000L + usage.ru_utime.tv_usec + usage.ru_stime.tv_sec * 1000000L + usage.ru_stime.tv_usec;
    };
    char name[KN_CM_NAME_MAX] = {};
    char service[KN_CM_NAME_MAX] = {};
    const long before = cpu();
    EXPECT_EQ(KnCmListen(nullptr, 1000, name, service), NK_CM_TIMEOUT);
    EXPECT_LT(cpu() - before, 200000);  // microseconds; a busy loop takes nearly all the second
    for (const int fd : taken)
        ::close(fd);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    const std::string payload("prober\0echo", 12);
    nos_host::FrameHeader header{nos_host::FrameKind::CmConnect};
    ASSERT_EQ(nos_host::SendFrame(client, header, {reinterpret_cast<const uint8_t*>(payload.data()), 12}, {}, {}, false),
              nos_host::IoResult::Ok);
    EXPECT_EQ(KnCmListen(nullptr, 10000, name, service), NK_EOK);
    EXPECT_STREQ(service, "echo");
    ::close(client);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    EXPECT_EQ(KnHandleClose(ns), NK_EOK);
}

class HostRuntimeTest : public test_support::RuntimeDirTest {};

TEST_F(HostRuntimeTest, CurrentRuntimeDir_RefusesADirectoryThatOthersCouldChange)
{
    const std::string base = runtime.Path().string();
    const bool root = ::geteuid() == 0;
    for (const char* dir : {"/open", "/shared", "/foreign"})
        ASSERT_EQ(::mkdir((base + dir).c_str(), 0700), 0);
    ::chmod((base + "/open").c_str(), 0755);
    ::chmod((base + "/shared").c_str(), 0770);
    ASSERT_EQ(::symlink((base + "/open").c_str(), (base + "/link").c_str()), 0);
    ASSERT_TRUE(!root || ::chown((base + "/foreign").c_str(), 65534, 65534) == 0);
    const struct {
        std::string dir;  // NOS_RUNTIME_DIR, or the default under TMPDIR when empty
        std::string fault;
    } cases[] = {
        {base + "/made/on/the/way", ""},
        {base + "/open", ""},
        {base + "/shared", "may be written by group or others (mode 0770)"},
        {base + "/link", "is a symbolic link"},
        {base + "/link/", "is a symbolic link"},
        {base + "/foreign", root ? "belongs to uid 65534, not to uid 0" : ""},
        {"", ""},
        {"", "is open to group or others (mode 0750)"},  // once it is opened to its group
    };
    ::setenv("TMPDIR", (base + "//").c_str(), 1);
    const std::string byDefault = base + "/nos-" + std::to_string(::getuid());
    for (const auto& k : cases) {
        SCOPED_TRACE(k.dir);
        ::setenv("NOS_RUNTIME_DIR", k.dir.c_str(), 1);
        const std::string dir = k.dir.empty() ? byDefault : k.dir;
        test_support::LogCapture log;
        auto capture = std::make_unique<test_support::StderrCapture>(log);
        EXPECT_EQ(nos_host::CurrentRuntimeDir(), k.fault.empty() ? dir : "");
        capture.reset();
        const std::string line = "[nos-host][ERROR] the runtime directory \"" + dir + "\" " + k.fault + ": refused";
        EXPECT_EQ(log.Lines(), k.fault.empty() ? std::vector<LogLine>{} : std::vector<LogLine>{{line}});
        struct stat st {};
        const bool made = k.fault.empty() && dir != base + "/open";
        EXPECT_TRUE(!made || (::stat(dir.c_str(), &st) == 0 && (st.st_mode & 0777) == 0700));
        if (dir == byDefault)
            ::chmod(dir.c_str(), 0750);
    }
    EXPECT_EQ(ServiceLocatorRegister("verifier", nullptr, 0, nullptr), INVALID_HANDLE);
    ::unsetenv("TMPDIR");
}

TEST_F(HostRuntimeTest, Register_SocketsAreMode0600AndNoFileIsWrittenThroughALink)
{
    const auto dir = runtime.Path();
    const std::string pid = std::to_string(::getpid());
    { std::ofstream(dir / "victim") << "mine"; }
    for (const std::string temporary : {"verifier.endpoints.tmp.", "echo.service.tmp."})
        ASSERT_EQ(::symlink((dir / "victim").c_str(), (dir / (temporary + pid)).c_str()), 0);
    const mode_t umask = ::umask(0);
    const Handle channel = ServiceLocatorRegister("verifier", nullptr, 0, nullptr);
    Handle ns = INVALID_HANDLE;
    EXPECT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
    EXPECT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    ::umask(umask);
    for (const std::string& name : {std::string("verifier.sock"), "cm." + pid + ".sock"}) {
        struct stat st {};
        EXPECT_EQ(::stat((dir / name).c_str(), &st), 0) << name;
        EXPECT_EQ(st.st_mode & 07777, 0600u) << name;
    }
    EXPECT_EQ(test_support::ReadFile(dir / "victim"), "mine");
    EXPECT_EQ(test_support::ReadFile(dir / "verifier.endpoints"), "0 Verifier.product\n1 Verifier.applist\n");
    EXPECT_EQ(std::filesystem::is_symlink(dir / "echo.service"), false);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    EXPECT_EQ(ServiceLocatorUnregister(channel), NK_EOK);
}

TEST_F(HostRuntimeTest, CallTimeoutFor_LogStorageCallsAreBoundedAtTwoSeconds)
{
    const struct {
        const char* environment;  // NOS_CALL_TIMEOUT_MS, null: unset
        const char* channel;
        std::optional<std::chrono::milliseconds> expected;
    } cases[] = {
        {nullptr, "verifier", std::nullopt},         {"0", "verifier", std::nullopt},
        {"12x", "verifier", std::nullopt},           {"500", "verifier", 500ms},
        {nullptr, "nv.NvlogStorageEntity", 2000ms},  {"500", "nv.NvlogStorageEntity", 500ms},
        {"5000", "nv.NvlogStorageEntity", 2000ms},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(std::string(k.environment ? k.environment : "unset") + " " + k.channel);
        if (k.environment)
            ::setenv("NOS_CALL_TIMEOUT_MS", k.environment, 1);
        else
            ::unsetenv("NOS_CALL_TIMEOUT_MS");
        EXPECT_EQ(nos_host::CallTimeoutFor(k.channel), k.expected);
    }
}

}  // namespace
