// Platform log, runtime directory and call time-outs of the host platform.
#include "runtime.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/runtime_dir.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace std::chrono_literals;
using test_support::LogLine;

TEST(HostLog, NosLogf_WritesOneLinePerCallWithItsLevelName)
{
    test_support::LogCapture log;
    {
        test_support::StderrCapture capture(log);
        NosLogf(NOS_LOG_CRITICAL, "f.c", 1, "core", "%s %d", "value", 42);
        NosLogf(NOS_LOG_WARNING, "f.c", 3, "core", "warning\n");
        NosLogf(NOS_LOG_INFO, "f.c", 4, "core", "two\nlines");
        NosLogf(9, "f.c", 7, "core", "odd level");
        NosLogf(NOS_LOG_INFO, "f.c", 8, nullptr, "no name");
    }
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{"[core][CRITICAL] value 42"},
                                                 {"[core][WARNING] warning"},
                                                 {"[core][INFO] two lines"},
                                                 {"[core][LEVEL 9] odd level"},
                                                 {"[platform_host_tests][INFO] no name"}}));
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
