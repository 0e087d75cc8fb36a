// Platform log, runtime directory and call time-outs of the host platform.
#include "runtime.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

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
        NosLogf(NOS_LOG_ERROR, "f.c", 2, "core", "error");
        NosLogf(NOS_LOG_WARNING, "f.c", 3, "core", "warning\n");
        NosLogf(NOS_LOG_INFO, "f.c", 4, "core", "two\nlines");
        NosLogf(NOS_LOG_DEBUG, "f.c", 5, "core", "debug");
        NosLogf(NOS_LOG_TRACE, "f.c", 6, "core", "trace");
        NosLogf(9, "f.c", 7, "core", "odd level");
        NosLogf(NOS_LOG_INFO, "f.c", 8, nullptr, "no name");
    }
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{"[core][CRITICAL] value 42"},
                                                 {"[core][ERROR] error"},
                                                 {"[core][WARNING] warning"},
                                                 {"[core][INFO] two lines"},
                                                 {"[core][DEBUG] debug"},
                                                 {"[core][TRACE] trace"},
                                                 {"[core][LEVEL 9] odd level"},
                                                 {"[platform_host_tests][INFO] no name"}}));
}

class HostRuntimeTest : public test_support::RuntimeDirTest {};

TEST_F(HostRuntimeTest, CurrentRuntimeDir_DefaultIsAPrivateDirectoryOfTheUser)
{
    const std::string nested = (runtime.Path() / "a" / "b").string();
    ::setenv("NOS_RUNTIME_DIR", nested.c_str(), 1);
    EXPECT_EQ(nos_host::CurrentRuntimeDir(), nested);  // made on the way

    ::unsetenv("NOS_RUNTIME_DIR");
    ::setenv("TMPDIR", (runtime.Path().string() + "//").c_str(), 1);
    const std::string expected = runtime.Path().string() + "/nos-" + std::to_string(::getuid());
    EXPECT_EQ(nos_host::CurrentRuntimeDir(), expected);
    struct stat st {};
    ASSERT_EQ(::stat(expected.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    ::chmod(expected.c_str(), 0750);  // open to its group: refused
    EXPECT_EQ(nos_host::CurrentRuntimeDir(), "");
    EXPECT_EQ(ServiceLocatorRegister("verifier", nullptr, 0, nullptr), INVALID_HANDLE);
    ::unsetenv("TMPDIR");
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
