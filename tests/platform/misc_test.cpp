// Platform log, program name, runtime directory and endpoint settings.
#include "harness.h"

#include <nos/platform.h>
#include <nos_host/host.h>

#include <sys/stat.h>
#include <unistd.h>

namespace platform_test {
namespace {

// Runs `body` with standard error sent to a file and returns what it wrote.
template <class Body>
std::string CaptureStderr(Body body)
{
    char path[] = "/tmp/nos-stderr-XXXXXX";
    const int file = ::mkstemp(path);
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(file, STDERR_FILENO);
    body();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    std::string text(4096, '\0');
    const ssize_t n = ::pread(file, text.data(), text.size(), 0);
    text.resize(n > 0 ? static_cast<size_t>(n) : 0);
    ::close(file);
    ::unlink(path);
    return text;
}

TEST(NosLogf, WritesOneLinePerCallWithLevelName)
{
    const std::string text = CaptureStderr([] {
        NosLogf(NOS_LOG_CRITICAL, "f.c", 1, "core", "%s %d", "value", 42);
        NosLogf(NOS_LOG_ERROR, "f.c", 2, "core", "error");
        NosLogf(NOS_LOG_WARNING, "f.c", 3, "core", "warning\n");
        NosLogf(NOS_LOG_INFO, "f.c", 4, "core", "two\nlines");
        NosLogf(NOS_LOG_DEBUG, "f.c", 5, "core", "debug");
        NosLogf(NOS_LOG_TRACE, "f.c", 6, "core", "trace");
        NosLogf(9, "f.c", 7, "core", "odd level");
        NosLogf(NOS_LOG_INFO, "f.c", 8, nullptr, "no name");
    });
    EXPECT_EQ(text,
              "[core][CRITICAL] value 42\n"
              "[core][ERROR] error\n"
              "[core][WARNING] warning\n"
              "[core][INFO] two lines\n"
              "[core][DEBUG] debug\n"
              "[core][TRACE] trace\n"
              "[core][LEVEL 9] odd level\n"
              "[platform_host_tests][INFO] no name\n");
}

TEST(Getprogname, IsTheShortName) { EXPECT_STREQ(getprogname(), "platform_host_tests"); }

class RuntimeDirTest : public PlatformTest {};

TEST_F(RuntimeDirTest, HostRuntimeDir_DefaultIsPrivatePerUserDirUnderTmpdir)
{
    ::unsetenv("NOS_RUNTIME_DIR");
    ::setenv("TMPDIR", runtimeDir_.c_str(), 1);
    char dir[512];
    const Retcode rc = NosHostRuntimeDir(dir, sizeof dir);
    ::unsetenv("TMPDIR");
    ASSERT_EQ(rc, NK_EOK);
    const std::string expected = runtimeDir_ + "/nos-" + std::to_string(::getuid());
    EXPECT_EQ(std::string(dir), expected);
    struct stat st{};
    ASSERT_EQ(::stat(dir, &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);

    ::chmod(dir, 0755);  // opened to others: refused
    ::setenv("TMPDIR", runtimeDir_.c_str(), 1);
    EXPECT_EQ(NosHostRuntimeDir(dir, sizeof dir), NK_EINVAL);
    ::unsetenv("TMPDIR");
}

TEST_F(RuntimeDirTest, HostRuntimeDir_TakesEnvironmentAndChecksBuffer)
{
    const std::string nested = runtimeDir_ + "/a/b";
    ::setenv("NOS_RUNTIME_DIR", nested.c_str(), 1);
    char dir[512];
    ASSERT_EQ(NosHostRuntimeDir(dir, sizeof dir), NK_EOK);
    EXPECT_EQ(std::string(dir), nested);
    char small[4] = "abc";
    EXPECT_EQ(NosHostRuntimeDir(small, sizeof small), NK_E2BIG);
    EXPECT_STREQ(small, "abc");
    EXPECT_EQ(NosHostRuntimeDir(nullptr, 10), NK_EINVAL);
}

TEST(HostSetEndpoints, RejectsBadTables)
{
    const char* good[] = {"A.a", "B.b"};
    const char* blank[] = {"A a"};
    const char* empty[] = {""};
    const char* none[] = {nullptr};
    EXPECT_EQ(NosHostSetEndpoints("chan", good, 2), NK_EOK);
    EXPECT_EQ(NosHostSetEndpoints("chan", nullptr, 0), NK_EOK);
    EXPECT_EQ(NosHostSetEndpoints("chan", blank, 1), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints("chan", empty, 1), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints("chan", none, 1), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints("chan", nullptr, 1), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints("a/b", good, 2), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints(nullptr, good, 2), NK_EINVAL);
    EXPECT_EQ(NosHostSetEndpoints("chan", good, INVALID_RIID), NK_EINVAL);
}

TEST(KernelObjects, SyncObjectClosesOnceAndSleepWaits)
{
    Handle sync = INVALID_HANDLE;
    ASSERT_EQ(KnIpcCreateSyncObject(&sync), NK_EOK);
    EXPECT_NE(sync, INVALID_HANDLE);
    EXPECT_EQ(KnIpcCreateSyncObject(nullptr), NK_EINVAL);
    EXPECT_EQ(KnHandleClose(sync), NK_EOK);
    EXPECT_EQ(KnHandleClose(sync), NK_EBADF);
    EXPECT_EQ(KnHandleClose(INVALID_HANDLE), NK_EBADF);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KnSleep(30), NK_EOK);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
}

}  // namespace
}  // namespace platform_test
