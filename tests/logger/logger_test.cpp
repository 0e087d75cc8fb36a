#include <string>

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>

#include "capture_sink.h"
#include "fake_platform.h"
#include "nos/logger/nos_clogger.h"
#include "nos/logger/nos_logger.h"
#include "nos/logger/nos_sink.h"
#include "shared_log_function_for_entity/entity_logger.h"

namespace {

using logger_test::CaptureSink;
using logger_test::FakePlatform;
using logger_test::Record;
using nos::logger::LogLevel;
using nos::logger::NOSLogger;

constexpr const char* kMain = "entities/updater_pdk/verifier/src/main";

TEST(NosSinkTest, SinkIt_MapsLevelsAndPassesLine)
{
    FakePlatform::Get().Reset();
    auto logger = std::make_shared<spdlog::logger>("verifier", std::make_shared<nos::logger::NosSink>());
    logger->set_level(spdlog::level::trace);
    const std::pair<spdlog::level::level_enum, int> levels[] = {
        {spdlog::level::trace, 6}, {spdlog::level::debug, 5}, {spdlog::level::info, 4},
        {spdlog::level::warn, 3},  {spdlog::level::err, 2},   {spdlog::level::critical, 1},
    };
    for (const auto& [level, platformLevel] : levels)
        logger->log(spdlog::source_loc{kMain, 48, "main"}, level, "{}", "100% {} done");

    const auto logs = FakePlatform::Get().TakeLogs();
    ASSERT_EQ(logs.size(), std::size(levels));
    for (std::size_t i = 0; i < logs.size(); ++i) {
        EXPECT_EQ(logs[i].level, levels[i].second);
        EXPECT_EQ(logs[i].file, kMain);
        EXPECT_EQ(logs[i].line, 48);
        EXPECT_EQ(logs[i].loggerName, "verifier");
        EXPECT_EQ(logs[i].format, "%s");
        EXPECT_EQ(logs[i].text, "100% {} done");  // bare message, no line end
    }
    EXPECT_EQ(nos::logger::NosSink::PlatformLevel(spdlog::level::off), 5);
    EXPECT_EQ(nos::logger::NosSink::PlatformLevel(static_cast<spdlog::level::level_enum>(42)), 5);
}

TEST(DefaultLoggerImplTest, LevelOperations_PassTextLiterally)
{
    auto sink = std::make_shared<CaptureSink>();
    auto impl = logger_test::MakeCaptureImpl(sink);
    const nos::logger::LoggerData where{kMain, 57, "main"};
    impl->Trace(where, "t {}");
    impl->Debug(where, "d {0}");
    impl->Info(where, "i {:x}");
    impl->Warning(where, "w");
    impl->Error(where, "e");
    impl->Critical(where, "c");
    impl->Info(where, nullptr);

    const auto records = sink->Take();
    const std::pair<spdlog::level::level_enum, const char*> expected[] = {
        {spdlog::level::trace, "t {}"}, {spdlog::level::debug, "d {0}"}, {spdlog::level::info, "i {:x}"},
        {spdlog::level::warn, "w"},     {spdlog::level::err, "e"},       {spdlog::level::critical, "c"},
        {spdlog::level::info, ""},
    };
    ASSERT_EQ(records.size(), std::size(expected));
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].level, expected[i].first);
        EXPECT_EQ(records[i].text, expected[i].second);
        EXPECT_EQ(records[i].file, kMain);
        EXPECT_EQ(records[i].line, 57);
        EXPECT_EQ(records[i].function, "main");
    }
}

TEST(DefaultLoggerImplTest, IsEnabled_FollowsLevel)
{
    auto sink = std::make_shared<CaptureSink>();
    auto impl = logger_test::MakeCaptureImpl(sink);
    struct Case {
        LogLevel set;
        LogLevel asked;
        bool enabled;
    };
    const Case cases[] = {
        {LogLevel::Trace, LogLevel::Trace, true},      {LogLevel::Info, LogLevel::Debug, false},
        {LogLevel::Info, LogLevel::Info, true},        {LogLevel::Info, LogLevel::Critical, true},
        {LogLevel::Error, LogLevel::Warning, false},   {LogLevel::Error, LogLevel::Error, true},
        {LogLevel::Critical, LogLevel::Error, false},  {LogLevel::Off, LogLevel::Critical, false},
        {LogLevel::Trace, LogLevel::Off, false},       {LogLevel::Trace, static_cast<LogLevel>(7), false},
        {LogLevel::Trace, static_cast<LogLevel>(-1), false},
        {static_cast<LogLevel>(9), LogLevel::Critical, false},  // unknown level: nothing logs
    };
    for (const Case& c : cases) {
        impl->SetLogLevel(c.set);
        EXPECT_EQ(impl->IsEnabled(c.asked), c.enabled)
            << static_cast<int>(c.set) << " asked " << static_cast<int>(c.asked);
    }
    impl->SetLogLevel(LogLevel::Warning);
    impl->Info({kMain, 1, "f"}, "filtered");
    impl->Warning({kMain, 2, "f"}, "kept");
    const auto records = sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "kept");
}

TEST(DefaultLoggerImplTest, NamedConstructor_ReusesRegisteredLogger)
{
    FakePlatform::Get().Reset();
    auto existing = std::make_shared<spdlog::logger>("named_existing", std::make_shared<CaptureSink>());
    spdlog::register_logger(existing);
    nos::logger::DefaultLoggerImpl reused("named_existing", nullptr);
    EXPECT_EQ(reused.logger(), existing);

    nos::logger::DefaultLoggerImpl fresh("named_fresh", "<%v>");
    EXPECT_EQ(spdlog::get("named_fresh"), fresh.logger());
    EXPECT_EQ(fresh.logger()->level(), spdlog::level::info);
    EXPECT_EQ(fresh.logger()->flush_level(), spdlog::level::off);
    ASSERT_EQ(fresh.logger()->sinks().size(), 2u);  // the fake storage is there
    fresh.Info({kMain, 3, "f"}, "x");
    const auto logs = FakePlatform::Get().TakeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, "<x>");
    EXPECT_EQ(FakePlatform::Get().TakeCalls().size(), 1u);
    spdlog::drop("named_existing");
    spdlog::drop("named_fresh");
}

TEST(DefaultLoggerImplTest, MakeStandardLoggerImpl_PlatformAndStorageSinks)
{
    FakePlatform::Get().Reset();
    auto impl = nos::logger::MakeStandardLoggerImpl("standard", LogLevel::Debug);
    EXPECT_EQ(spdlog::get("standard"), impl->logger());
    EXPECT_TRUE(impl->IsEnabled(LogLevel::Debug));
    EXPECT_FALSE(impl->IsEnabled(LogLevel::Trace));
    EXPECT_EQ(impl->logger()->flush_level(), spdlog::level::off);
    impl->Debug({kMain, 48, "main"}, "hello");
    impl->Trace({kMain, 48, "main"}, "hidden");

    const auto logs = FakePlatform::Get().TakeLogs();
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].text, "hello");
    EXPECT_EQ(logs[0].level, 5);
    const auto calls = FakePlatform::Get().TakeCalls();
    ASSERT_EQ(calls.size(), 1u);
    const std::string line(reinterpret_cast<const char*>(calls[0].arena.data() + 24));
    EXPECT_EQ(line.rfind("[standard][debug][main:48][", 0), 0u) << line;
    EXPECT_EQ(line.substr(line.size() - 8), "] hello\n");
    spdlog::drop("standard");
}

using RootLoggerTest = logger_test::RootCaptureTest;

TEST_F(RootLoggerTest, Setup_OnlyFirstTakesEffect)
{
    auto other = std::make_shared<CaptureSink>();
    NOSLogger::Setup("second", LogLevel::Critical, logger_test::MakeCaptureImpl(other, "second"));
    NOSLogger::Setup(LogLevel::Critical, nullptr);
    EXPECT_TRUE(NOSLogger::RootLogger().IsEnabled(LogLevel::Trace));
    nos::logger::LogIfEnabled(LogLevel::Info, kMain, 48, "main", "after {}", "second set-up");
    EXPECT_TRUE(other->Take().empty());
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "after second set-up");
    EXPECT_EQ(spdlog::get("fake_program"), nullptr);  // no standard logger was built
}

TEST_F(RootLoggerTest, LogImpl_LevelsAndOffLogNothing)
{
    std::string text = "x";
    for (int level : {0, 1, 2, 3, 4, 5, 6, 7, 1000, -1})
        NOSLogger::RootLogger().LogImpl(static_cast<LogLevel>(level), kMain, level, "f", text);
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 6u);
    for (int i = 0; i < 6; ++i) {
        EXPECT_EQ(records[i].level, static_cast<spdlog::level::level_enum>(i));
        EXPECT_EQ(records[i].line, i);
    }
}

TEST_F(RootLoggerTest, Log_FormatsAtRunTime)
{
    NOSLogger& root = NOSLogger::RootLogger();
    root.Log(LogLevel::Warning, kMain, 9, "f", "{} of {}", 3, "four");
    root.Log(LogLevel::Info, kMain, 9, "f", "no arguments");
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].text, "3 of four");
    EXPECT_EQ(records[0].level, spdlog::level::warn);
    EXPECT_EQ(records[1].text, "no arguments");
}

struct CountedFormat {
    int* count;
};

}  // namespace

template <>
struct fmt::formatter<CountedFormat> : fmt::formatter<int> {
    auto format(const CountedFormat& v, fmt::format_context& ctx) const
    {
        return fmt::formatter<int>::format(++*v.count, ctx);
    }
};

namespace {

TEST_F(RootLoggerTest, LogIfEnabled_FormatsOnlyWhenEnabled)
{
    int count = 0;
    NOSLogger::RootLogger().SetLogLevel(LogLevel::Error);
    nos::logger::LogIfEnabled(LogLevel::Warning, kMain, 1, "f", "{}", CountedFormat{&count});
    EXPECT_EQ(count, 0);
    nos::logger::LogIfEnabled(LogLevel::Error, kMain, 1, "f", "{}", CountedFormat{&count});
    EXPECT_EQ(count, 1);
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "1");
}

TEST_F(RootLoggerTest, EntityLogger_ErrorOrInfoByFlagAndLevel)
{
    struct Case {
        LogLevel level;
        bool isError;
        bool logged;
        spdlog::level::level_enum expected;
        int line;
    };
    const Case cases[] = {
        {LogLevel::Trace, true, true, spdlog::level::err, 12},
        {LogLevel::Error, true, true, spdlog::level::err, 12},
        {LogLevel::Critical, true, false, spdlog::level::err, 0},
        {LogLevel::Info, false, true, spdlog::level::info, 15},
        {LogLevel::Warning, false, false, spdlog::level::info, 0},
    };
    for (const Case& c : cases) {
        NOSLogger::RootLogger().SetLogLevel(c.level);
        nos::logger::EntityLogger("IPC server has stopped", c.isError);
        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), c.logged ? 1u : 0u) << static_cast<int>(c.level) << c.isError;
        if (!c.logged)
            continue;
        EXPECT_EQ(records[0].level, c.expected);
        EXPECT_EQ(records[0].file, "shared/common/shared_log_function_for_entity");
        EXPECT_EQ(records[0].line, c.line);
        EXPECT_EQ(records[0].function, "EntityLogger");
        EXPECT_EQ(records[0].text, "IPC server has stopped");
    }
}

TEST_F(RootLoggerTest, NosCLoggerLog_FormatsInto512Bytes)
{
    struct Case {
        std::size_t length;
        std::size_t logged;
    };
    for (const Case c : {Case{0, 0}, Case{510, 510}, Case{511, 511}, Case{512, 511}, Case{600, 511}}) {
        const std::string text(c.length, 'x');
        NosCLoggerLog(LogLevel::Info, kMain, 77, "main", "%s", text.c_str());
        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), 1u);
        EXPECT_EQ(records[0].text, std::string(c.logged, 'x')) << c.length;
        EXPECT_EQ(records[0].line, 77);
    }
    NosCLoggerLog(LogLevel::Error, kMain, 78, "main", "%d-%s", 5, "five");
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, "5-five");
    EXPECT_EQ(records[0].level, spdlog::level::err);
}

TEST_F(RootLoggerTest, NosCLoggerLog_DisabledLevelDoesNotFormat)
{
    NOSLogger::RootLogger().SetLogLevel(LogLevel::Error);
    // Formatting this would fail (no wide conversion in the C locale).
    NosCLoggerLog(LogLevel::Info, kMain, 1, "main", "%ls", L"\u00e9");
    EXPECT_TRUE(m_sink->Take().empty());
}

using RootLoggerDeathTest = RootLoggerTest;

TEST_F(RootLoggerDeathTest, NosCLoggerLog_FormatFailureEndsProcess)
{
    EXPECT_DEATH(NosCLoggerLog(LogLevel::Error, kMain, 1, "main", "%ls", L"\u00e9"),
                 "Log failure: Cannot format log message");
}

}  // namespace
