// The entity logger (the record each line becomes for the log storage, the
// platform-log line, the root logger's levels and entry points), the plain
// logging facility, and the host log storage: records in, lines out.
#include "nglog/nglog.h"
#include "nos/logger/default_logger_impl.h"
#include "nos/logger/nos_clogger.h"
#include "nos/logger/nos_logger.h"
#include "shared_log_function_for_entity/entity_logger.h"
#include "support/fake_peer.h"
#include "support/log_capture.h"
#include "support/process.h"
#include "support/runtime_dir.h"
#include "vantor_logger/nvlog_record.h"

#include <nos/platform.h>

#include <gtest/gtest.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdarg>
#include <cstring>

// The system log of this program records what it is given.
namespace {
std::vector<std::string> g_syslog;
}  // namespace
extern "C" {
void openlog(const char* ident, int, int) { g_syslog.push_back(std::string("open ") + ident); }
void closelog(void) { g_syslog.emplace_back("close"); }
void vsyslog(int priority, const char* format, va_list args)
{
    char text[256];
    std::vsnprintf(text, sizeof text, format, args);
    g_syslog.push_back(std::to_string(priority) + " " + text);
}
}

namespace {

using namespace test_support;
using nos::logger::DefaultLoggerImpl;
using nos::logger::LogLevel;
namespace nvlog = nos::logger::nvlog;

constexpr const char* kMain = "entities/updater_pdk/verifier/src/main";

std::int64_t Now() { return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()); }

// The lines that `body` writes to standard error.
std::vector<LogLine> Written(const std::function<void()>& body)
{
    LogCapture log;
    {
        StderrCapture capture(log);
        body();
    }
    return log.Lines();
}

// A record as the log storage takes it, with `time` as it is.
Bytes StoreRecord(std::int64_t time, const std::string& text)
{
    Bytes record(nvlog::kRecordSize);
    nvlog::StoreLe(record.data() + 8, static_cast<std::uint64_t>(time), 8);
    record[20] = 100;
    std::memcpy(record.data() + 24, text.data(), std::min(text.size(), record.size() - 24));
    return record;
}

TEST(EntityLoggerTest, StandardLogger_StorageRecordAndPlatformLine)
{
    RuntimeDir runtime;
    FakeLogStorage storage;
    const std::string ids = "[" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + "] ";
    const std::string prefix = "[verifier][info][main:48]" + ids;
    const std::string whole(4095 - prefix.size() - 1, 'w');  // 4,095 bytes with the line end
    const std::string over(whole.size() + 1, 'o');
    using Level = void (DefaultLoggerImpl::*)(const nos::logger::LoggerData&, const char*);
    // The level and text logged, then the record's text and the platform-log line.
    const std::tuple<Level, std::string, std::string, LogLine> cases[] = {
        {&DefaultLoggerImpl::Trace, "t", "[verifier][trace][main:48]" + ids + "t\n", {"[verifier][TRACE] t"}},
        {&DefaultLoggerImpl::Debug, "d", "[verifier][debug][main:48]" + ids + "d\n", {"[verifier][DEBUG] d"}},
        {&DefaultLoggerImpl::Info, "100% {}", prefix + "100% {}\n", {"[verifier][INFO] 100% {}"}},
        {&DefaultLoggerImpl::Warning, "w", "[verifier][warning][main:48]" + ids + "w\n", {"[verifier][WARNING] w"}},
        {&DefaultLoggerImpl::Error, "e", "[verifier][error][main:48]" + ids + "e\n", {"[verifier][ERROR] e"}},
        {&DefaultLoggerImpl::Critical, "c", "[verifier][critical][main:48]" + ids + "c\n", {"[verifier][CRITICAL] c"}},
        {&DefaultLoggerImpl::Info, whole, prefix + whole + "\n", {"[verifier][INFO] " + whole}},
        {&DefaultLoggerImpl::Info, over, (prefix + over).substr(0, 4095), {"[verifier][INFO] " + over}},
    };
    const std::int64_t from = Now();
    std::vector<LogLine> platformLines;
    for (const auto& c : cases)
        platformLines.push_back(std::get<3>(c));
    EXPECT_EQ(Written([&] {
                  const auto impl = nos::logger::MakeStandardLoggerImpl("verifier", LogLevel::Trace);
                  for (const auto& [level, text, record, line] : cases)
                      ((*impl).*level)({kMain, 48, "main"}, text.c_str());
              }),
              platformLines);
    const std::int64_t to = Now();
    const auto requests = storage.Requests();
    ASSERT_EQ(requests.size(), std::size(cases));
    for (size_t i = 0; i < std::size(cases); ++i) {
        const Bytes& record = requests[i].arena;
        const auto time = static_cast<std::int64_t>(nvlog::LoadLe(record.data() + 8, 8));
        EXPECT_TRUE(time >= from && time <= to) << time;
        EXPECT_EQ(record, StoreRecord(time, std::get<2>(cases[i]))) << i;  // zeros after the text
        const Bytes message{0, 0, 0, 0, 32, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                            0, 0, 0, 0, 0x18, 0x10, 0, 0};  // riid 0, method 0, the arena (0, 4120)
        EXPECT_EQ(requests[i].message, message) << i;
    }
    std::array<std::uint8_t, nvlog::kRecordSize> record;
    nvlog::EncodeRecord(record, -5, "");
    EXPECT_EQ(nvlog::LoadLe(record.data() + 8, 8), 0u);  // never a negative time
}

TEST(EntityLoggerTest, RootLogger_LevelsEntryPointsAndOneSetup)
{
    LogCapture log;
    RootLoggerCapture capture(log);
    nos::logger::NOSLogger& root = nos::logger::NOSLogger::RootLogger();
    std::vector<LogLine> expected;
    for (int level = 0; level < 8; ++level) {
        std::string text = std::to_string(level);
        root.LogImpl(static_cast<LogLevel>(level), kMain, level, "main", text);
        EXPECT_EQ(root.IsEnabled(static_cast<LogLevel>(level)), level < 6) << level;
        if (level < 6)
            expected.emplace_back(text, level, std::string(kMain) + ":" + text);
    }
    nos::logger::NOSLogger::Setup(LogLevel::Critical, nullptr);  // too late: ignored
    NosCLoggerLog(LogLevel::Info, kMain, 77, "main", "%s", std::string(600, 'x').c_str());
    expected.emplace_back(std::string(511, 'x'), kInfo, std::string(kMain) + ":77");
    NosCLoggerLog(LogLevel::Error, kMain, 78, "main", "%d-%s", 5, "five");
    expected.emplace_back("5-five", kError, std::string(kMain) + ":78");
    EXPECT_EQ(log.Lines(), expected);

    const std::string where = "shared/common/shared_log_function_for_entity:";
    const std::tuple<LogLevel, bool, std::vector<LogLine>> cases[] = {  // the root's level, isError, the lines
        {LogLevel::Trace, true, {{"IPC server has stopped", kError, where + "12"}}},
        {LogLevel::Error, true, {{"IPC server has stopped", kError, where + "12"}}},
        {LogLevel::Critical, true, {}},
        {LogLevel::Info, false, {{"IPC server has stopped", kInfo, where + "15"}}},
        {LogLevel::Warning, false, {}},
    };
    for (const auto& [level, isError, lines] : cases) {
        log.Clear();
        root.SetLogLevel(level);
        nos::logger::EntityLogger("IPC server has stopped", isError);
        EXPECT_EQ(log.Lines(), lines) << static_cast<int>(level) << isError;
    }
    NosCLoggerLog(LogLevel::Info, kMain, 1, "main", "%ls", L"\u00e9");  // below the level: never formatted
    EXPECT_TRUE(log.Lines().empty());
    EXPECT_DEATH(NosCLoggerLog(LogLevel::Error, kMain, 1, "main", "%ls", L"\u00e9"),
                 "Log failure: Cannot format log message");
}

TEST(NglogTest, InitFromEnv_LevelsNoticesAndPrefix)
{
    const LogLine incorrect{"app: nglog level has incorrect value. fallback to normal"};
    const std::tuple<const char*, int, std::vector<LogLine>> cases[] = {  // NGLOG_LEVEL (null: unset), level, lines
        {"NGLOG_SILENT", 0, {}}, {"NGLOG_ERROR", 1, {}}, {"NGLOG_WARNING", 2, {}}, {"NGLOG_NORMAL", 2, {}},
        {"NGLOG_DEBUG", 3, {}},  {"NGLOG_VERBOSE", 3, {}}, {"normal", 2, {incorrect}}, {"", 2, {incorrect}},
        {nullptr, 2, {{"app: nglog level not set. fallback to normal"}}},
    };
    for (const auto& [value, level, lines] : cases) {
        if (value != nullptr)
            setenv("NGLOG_LEVEL", value, 1);
        else
            unsetenv("NGLOG_LEVEL");
        nglog_set_level(NGLOG_LEVEL_SILENT);  // the notices do not test the level
        EXPECT_EQ(Written([] { nglog_init_from_env("app", NGLOG_TARGET_FOREGROUND); }), lines);
        EXPECT_EQ(nglog_level_, level) << (value != nullptr ? value : "(not set)");
    }
    setenv("NGLOG_PREFIX", "", 1);
    nglog_init_from_env("app", NGLOG_TARGET_FOREGROUND);
    const auto lines = Written([] { nglog_write_(1, "code %d", 7); });
    const std::string ids = "[" + std::to_string(getpid()) + ":" + std::to_string(gettid()) + "]";
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text.substr(25), "[Error][app]" + ids + "code 7");  // after the time
}

TEST(NglogTest, Write_ForegroundLineOrSystemLog)
{
    nglog_init(nullptr, NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_WARNING);
    nglog_enable_extended_prefix(0);
    EXPECT_EQ(Written([] { nglog_write_(1, "bad %d", 22); }), std::vector<LogLine>{{"bad 22"}});
    EXPECT_DEATH(nglog_assert_("n > 0", "client.c", 12, "hash"), "^client.c:12: hash: assertion `n > 0' failed\n$");
    nglog_init("50%%", NGLOG_TARGET_FOREGROUND, NGLOG_LEVEL_ERROR);  // the name is part of the format
    const std::string longText(2000, 'a');
    EXPECT_EQ(Written([&] {
                  nglog_write_(3, "%s", longText.c_str());  // cut at 1,024 bytes: no line end
                  nglog_write_(1, "next");
              }),
              std::vector<LogLine>{{"50%: " + std::string(1018, 'a') + "50%: next"}});
    nglog_set_target(NGLOG_TARGET_BACKGROUND);
    nglog_set_target(NGLOG_TARGET_BACKGROUND);
    EXPECT_TRUE(Written([] {
                    for (int level : {0, 1, 2, 3, 9})
                        nglog_write_(level, "level %d", level);
                }).empty());
    nglog_set_target(NGLOG_TARGET_FOREGROUND);
    const std::vector<std::string> expected{"open 50%%", "2 level 0", "3 level 1", "4 level 2",
                                            "7 level 3", "7 level 9", "close"};
    EXPECT_EQ(g_syslog, expected);
}

TEST(LogStorageTest, Requests_LineOutOrRefusedAndReported)
{
    RuntimeDir runtime;
    const auto out = runtime.Path() / "out.txt";
    Process storage({program::kLogStorage, "--out", out});
    ASSERT_TRUE(storage.WaitServing(nvlog::kEntityName)) << storage.Log();
    NkNosTransport transport{};
    ASSERT_EQ(NkNosTransport_Init(&transport, ServiceLocatorConnect(nvlog::kEntityName), nullptr, 0), NK_EOK);
    const std::int64_t pastIntYears = std::int64_t{2147483647 + 1900LL - 100 - 1970} * 31556952;
    const std::string malformed = "log-storage: malformed record: ";
    // The method, the record and its offset, then the line in the output, or on standard error when refused.
    const std::tuple<std::uint16_t, Bytes, std::uint32_t, std::string, bool> cases[] = {
        {0, StoreRecord(0, "start\n"), 0, "1970-01-01T00:00:00Z start", false},
        {0, StoreRecord(1700000000, "a\tb\x1b[0m"), 0, "2023-11-14T22:13:20Z a\tb\x1b[0m", false},
        {0, StoreRecord(-1, "x"), 0, "1969-12-31T23:59:59Z x", false},
        {0, StoreRecord(pastIntYears, "x"), 0, std::to_string(pastIntYears) + " x", false},
        {0, StoreRecord(2, std::string(4095, 'l')), 0, "1970-01-01T00:00:02Z " + std::string(4095, 'l'), false},
        {0, Bytes(100), 0, malformed + "record of 100 bytes, expected 4120", true},
        {0, StoreRecord(1, std::string(4096, 'z')), 0, malformed + "record text without a terminating NUL", true},
        {3, StoreRecord(0, "x"), 0, malformed + "unknown method 3", true},
        {0, StoreRecord(0, "x"), 8, malformed + "record at offset 8 of 4120 bytes lies outside the 4120-byte arena",
         true},
    };
    std::string lines;
    std::string reports;
    for (const auto& [method, record, offset, line, refused] : cases) {
        nvlog::StoreRequest request{};
        request.header.mid = method;
        nk_msg_set_size(&request.header, sizeof request);
        request.record = {offset, static_cast<std::uint32_t>(record.size())};
        Bytes bytes = record;
        nk_arena arena{bytes.data(), bytes.data() + bytes.size(), bytes.data() + bytes.size()};
        nvlog::StoreResponse response{};
        nk_msg_set_size(&response.header, sizeof response);
        EXPECT_EQ(transport.ops->call(&transport, &request.header, &arena, &response.header, nullptr), NK_EOK);
        EXPECT_EQ(nk_msg_is_error(&response.header), refused) << line;
        (refused ? reports : lines) += line + "\n";
    }
    EXPECT_EQ(storage.Stop(), 0);
    EXPECT_EQ(ReadFile(out), lines);
    EXPECT_EQ(storage.Log(), reports);
}

}  // namespace
