#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nglog/nglog.h"

// The system-log calls are replaced for this test program, so that what
// nglog hands to them can be checked.
namespace {
struct SyslogCall {
    std::string what;
    int priority;
    std::string text;
};
std::vector<SyslogCall> g_syslog;
}  // namespace

extern "C" {
void openlog(const char* ident, int option, int facility)
{
    g_syslog.push_back({"open", option | facility, ident != nullptr ? ident : "(null)"});
}
void closelog(void) { g_syslog.push_back({"close", 0, ""}); }
void vsyslog(int priority, const char* format, va_list args)
{
    char text[2048];
    std::vsnprintf(text, sizeof(text), format, args);
    g_syslog.push_back({"write", priority, text});
}
}

namespace {

// Runs `body` with standard error sent to a temporary file and returns what
// was written there.
std::string CaptureStderr(const std::function<void()>& body)
{
    std::fflush(stderr);
    char path[] = "/tmp/nglog_test_XXXXXX";
    const int file = mkstemp(path);
    EXPECT_GE(file, 0);
    unlink(path);
    const int saved = dup(STDERR_FILENO);
    dup2(file, STDERR_FILENO);
    body();
    std::fflush(stderr);
    dup2(saved, STDERR_FILENO);
    close(saved);
    std::string text;
    char buffer[4096];
    lseek(file, 0, SEEK_SET);
    for (ssize_t n; (n = read(file, buffer, sizeof(buffer))) > 0;)
        text.append(buffer, static_cast<std::size_t>(n));
    close(file);
    return text;
}

class NglogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        nglog_set_target(NGLOG_TARGET_FOREGROUND);
        nglog_init(nullptr, NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_WARNING);
        nglog_enable_extended_prefix(0);
        unsetenv("NGLOG_LEVEL");
        unsetenv("NGLOG_PREFIX");
        g_syslog.clear();
    }
    void TearDown() override { SetUp(); }
};

TEST_F(NglogTest, FgWrite_PlainPrefix)
{
    EXPECT_EQ(CaptureStderr([] { nglog_write_(1, "bad %d: %s", 22, "EINVAL"); }), "bad 22: EINVAL\n");
    nglog_init("client", NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_ERROR);
    EXPECT_EQ(CaptureStderr([] { nglog_write_(3, "x"); }), "client: x\n");
    // The name is part of the line's format: its "%" is read as one.
    nglog_init("50%%", NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_ERROR);
    EXPECT_EQ(CaptureStderr([] { nglog_write_(1, "done"); }), "50%: done\n");
}

TEST_F(NglogTest, FgWrite_ExtendedPrefix)
{
    nglog_enable_extended_prefix(1);
    const std::string ids = "[" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + "]";
    const std::regex stamp(R"(^\[\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}\.\d{3}\])");

    const std::string unnamed = CaptureStderr([] { nglog_write_(1, "code %d", 7); });
    EXPECT_TRUE(std::regex_search(unnamed, stamp)) << unnamed;
    EXPECT_EQ(unnamed.substr(25), "[Error][fake_program]" + ids + "code 7\n");

    nglog_init("client", NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_DEBUG);
    const std::string named = CaptureStderr([] { nglog_write_(3, "d"); });
    EXPECT_TRUE(std::regex_search(named, stamp)) << named;
    EXPECT_EQ(named.substr(25), "[Debug][client]" + ids + "d\n");
}

TEST_F(NglogTest, FgWrite_CutAt1024Bytes)
{
    const std::string longText(2000, 'a');
    const std::string cut = CaptureStderr([&] { nglog_write_(1, "%s", longText.c_str()); });
    EXPECT_EQ(cut, std::string(1023, 'a'));  // no final newline
    const std::string fits(1022, 'b');
    EXPECT_EQ(CaptureStderr([&] { nglog_write_(1, "%s", fits.c_str()); }), fits + "\n");
    // A format longer than the buffer is cut before it is expanded.
    const std::string longFormat = std::string(1100, 'c') + "%d";
    EXPECT_EQ(CaptureStderr([&] { nglog_write_(1, longFormat.c_str(), 5); }), std::string(1023, 'c'));
}

TEST_F(NglogTest, GetLevelName_AllLevels)
{
    const std::pair<int, const char*> names[] = {
        {0, "Silent"}, {1, "Error"}, {2, "Warning"}, {3, "Debug"}, {4, "Unknown"}, {-1, "Unknown"},
    };
    for (const auto& [level, name] : names)
        EXPECT_STREQ(nglog_get_level_name(level), name) << level;
}

TEST_F(NglogTest, WriteMacro_TestsLevel)
{
    nglog_set_level(NGLOG_LEVEL_SILENT);
    EXPECT_EQ(CaptureStderr([] { NGLOG_WRITE(NGLOG_LEVEL_ERROR, "hidden %d", 1); }), "");
    nglog_set_level(NGLOG_LEVEL_ERROR);
    EXPECT_EQ(CaptureStderr([] {
                  NGLOG_WRITE(NGLOG_LEVEL_ERROR, "shown %d", 1);
                  NGLOG_WRITE(NGLOG_LEVEL_WARNING, "hidden %d", 2);
              }),
              "shown 1\n");
    EXPECT_EQ(nglog_get_level(), 1);
}

TEST_F(NglogTest, InitFromEnv_Levels)
{
    struct Case {
        const char* value;  // null: not set
        int level;
        const char* notice;
    };
    const Case cases[] = {
        {"NGLOG_SILENT", 0, ""},
        {"NGLOG_ERROR", 1, ""},
        {"NGLOG_WARNING", 2, ""},
        {"NGLOG_NORMAL", 2, ""},
        {"NGLOG_DEBUG", 3, ""},
        {"NGLOG_VERBOSE", 3, ""},
        {nullptr, 2, "app: nglog level not set. fallback to normal\n"},
        {"normal", 2, "app: nglog level has incorrect value. fallback to normal\n"},
        {"", 2, "app: nglog level has incorrect value. fallback to normal\n"},
        {"NGLOG_DEBUG ", 2, "app: nglog level has incorrect value. fallback to normal\n"},
    };
    for (const Case& c : cases) {
        if (c.value != nullptr)
            setenv("NGLOG_LEVEL", c.value, 1);
        else
            unsetenv("NGLOG_LEVEL");
        nglog_set_level(NGLOG_LEVEL_SILENT);  // the notice ignores the level
        EXPECT_EQ(CaptureStderr([] { nglog_init_from_env("app", NGLOG_TARGET_FOREGROUND); }), c.notice)
            << (c.value ? c.value : "(unset)");
        EXPECT_EQ(nglog_level_, c.level) << (c.value ? c.value : "(unset)");
    }
}

TEST_F(NglogTest, InitFromEnv_PrefixAndBackgroundNotice)
{
    setenv("NGLOG_LEVEL", "NGLOG_ERROR", 1);
    setenv("NGLOG_PREFIX", "", 1);
    nglog_init_from_env("app", NGLOG_TARGET_FOREGROUND);
    const std::string line = CaptureStderr([] { nglog_write_(1, "m"); });
    EXPECT_EQ(line.rfind("[", 0), 0u) << line;
    EXPECT_NE(line.find("][Error][app]["), std::string::npos) << line;

    unsetenv("NGLOG_LEVEL");
    nglog_init_from_env("svc", NGLOG_TARGET_BACKGROUND);
    ASSERT_EQ(g_syslog.size(), 2u);
    EXPECT_EQ(g_syslog[0].what, "open");
    EXPECT_EQ(g_syslog[0].text, "svc");
    EXPECT_EQ(g_syslog[1].what, "write");
    EXPECT_EQ(g_syslog[1].priority, LOG_WARNING);
    EXPECT_EQ(g_syslog[1].text, "nglog level not set. fallback to normal");
}

TEST_F(NglogTest, SetTarget_OpensAndClosesSystemLogOnce)
{
    nglog_init("svc", NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_DEBUG);
    nglog_set_target(NGLOG_TARGET_BACKGROUND);
    nglog_set_target(NGLOG_TARGET_BACKGROUND);
    EXPECT_EQ(nglog_get_target(), 1);
    ASSERT_EQ(g_syslog.size(), 1u);
    EXPECT_EQ(g_syslog[0].what, "open");
    EXPECT_EQ(g_syslog[0].text, "svc");
    EXPECT_EQ(g_syslog[0].priority, LOG_NDELAY | LOG_USER);

    nglog_set_target(NGLOG_TARGET_FOREGROUND);
    nglog_set_target(NGLOG_TARGET_FOREGROUND);
    ASSERT_EQ(g_syslog.size(), 2u);
    EXPECT_EQ(g_syslog[1].what, "close");
    EXPECT_EQ(nglog_get_target(), 0);
}

TEST_F(NglogTest, BgWrite_PriorityByLevelWithoutPrefix)
{
    nglog_init("svc", NGLOG_TARGET_BACKGROUND, NGLOG_LEVEL_DEBUG);
    nglog_enable_extended_prefix(1);
    const std::pair<int, int> priorities[] = {{0, LOG_CRIT}, {1, LOG_ERR}, {2, LOG_WARNING}, {3, LOG_DEBUG},
                                              {9, LOG_DEBUG}};
    const std::string out = CaptureStderr([&] {
        for (const auto& [level, priority] : priorities)
            nglog_write_(level, "level %d", level);
    });
    EXPECT_EQ(out, "");
    ASSERT_EQ(g_syslog.size(), 1u + std::size(priorities));
    for (std::size_t i = 0; i < std::size(priorities); ++i) {
        EXPECT_EQ(g_syslog[i + 1].priority, priorities[i].second);
        EXPECT_EQ(g_syslog[i + 1].text, "level " + std::to_string(priorities[i].first));
    }
}

using NglogDeathTest = NglogTest;

TEST_F(NglogDeathTest, Assert_WritesAndAborts)
{
    EXPECT_DEATH(nglog_assert_("size > 0", "client.c", 12, "hash"), "^client.c:12: hash: assertion `size > 0' failed\n$");
    EXPECT_DEATH(NGLOG_ASSERT(1 + 1 == 3), "assertion `1 \\+ 1 == 3' failed");
}

}  // namespace
