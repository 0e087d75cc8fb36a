#include <functional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "capture_sink.h"
#include "common/utils/manage_exception.h"
#include "eka/throw.h"
#include "nos/logger/nos_logger.h"
#include "nos/rtl/exception.h"

namespace {

using nos::logger::LogLevel;
using nos::logger::NOSLogger;

class ManageExceptionTest : public logger_test::RootCaptureTest {
protected:
    template <typename Thrower>
    static int Manage(Thrower thrower, std::string_view context, std::string_view operation)
    {
        try {
            thrower();
        } catch (...) {
            return common::utils::ManageException(context, operation);
        }
        ADD_FAILURE() << "nothing thrown";
        return 0;
    }
};

TEST_F(ManageExceptionTest, ManageException_EachKindLogsAndGivesCode)
{
    struct Case {
        const char* name;
        std::function<void()> thrower;
        std::uint32_t code;
        std::string line;
    };
    const Case cases[] = {
        {"result code",
         [] { eka::Throw<eka::ResultCodeException>("shared/common/utils/proxy_base", 30, 0x80000071u, u"invalid riid"); },
         0x80000071u, "ctx: invalid riid: 0x80000071 (Invalid result) ; detailed: exception during: Open"},
        {"result code zero", [] { throw eka::ResultCodeException(0, u"odd"); }, 0x80000152u,
         "ctx: odd: 0x00000000 (No error) ; detailed: exception during: Open"},
        {"check result",
         [] { throw eka::CheckResultFailedException(-22, u"Expression failed") << "fail to initialize context"; },
         0xFFFFFFEAu, "ctx: Expression failedfail to initialize context: 0xffffffea (Unknown result code) ; "
                      "detailed: exception during: Open"},
        {"check", [] { throw eka::CheckFailedException(u"invalid update state: ") << 11u; }, 0x80000151u,
         "ctx: invalid update state: 11 ; detailed: exception during: Open"},
        {"non-ASCII description", [] { throw eka::CheckFailedException(u"caf\u00e9"); }, 0x80000151u,
         "ctx: caf\xC3\xA9 ; detailed: exception during: Open"},
        {"standard", [] { throw std::runtime_error("x"); }, 0x8000004Bu,
         "ctx: x ; detailed: exception during Open"},
        {"runtime", [] { nos::rtl::details::CheckBoolean(false, "m_entity", 0x9000000D, {"f", "Server", 68}); },
         0x8000004Bu, "ctx: Boolean expression \"m_entity\" is false ; detailed: exception during Open"},
        {"unknown", [] { throw 42; }, 0x80000072u, "ctx: detailed: Unknown exception type during Open"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(static_cast<std::uint32_t>(Manage(c.thrower, "ctx", "Open")), c.code) << c.name;
        const auto records = m_sink->Take();
        ASSERT_EQ(records.size(), 1u) << c.name;
        EXPECT_EQ(records[0].text, c.line) << c.name;
        EXPECT_EQ(records[0].level, spdlog::level::err) << c.name;
        EXPECT_EQ(records[0].file, "shared/common/utils/manage_exception") << c.name;
        EXPECT_EQ(records[0].function, "ManageException") << c.name;
    }
}

TEST_F(ManageExceptionTest, ManageException_EmptyContextStandardException)
{
    const int code = Manage([] { throw std::runtime_error("x"); }, "", "Open");
    EXPECT_EQ(static_cast<std::uint32_t>(code), 0x8000004Bu);
    const auto records = m_sink->Take();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].text, ": x ; detailed: exception during Open");
}

TEST_F(ManageExceptionTest, ManageException_DisabledLevelLogsNothingSameCode)
{
    NOSLogger::RootLogger().SetLogLevel(LogLevel::Critical);
    EXPECT_EQ(static_cast<std::uint32_t>(Manage([] { throw eka::CheckFailedException(u"x"); }, "", "Verify")),
              0x80000151u);
    EXPECT_EQ(static_cast<std::uint32_t>(Manage([] { throw std::logic_error("y"); }, "", "Verify")), 0x8000004Bu);
    EXPECT_EQ(static_cast<std::uint32_t>(Manage([] { throw 1.5; }, "", "Verify")), 0x80000072u);
    EXPECT_TRUE(m_sink->Take().empty());
}

TEST_F(ManageExceptionTest, ManageException_NoCurrentException)
{
    EXPECT_EQ(static_cast<std::uint32_t>(common::utils::ManageException("", "main")), 0x80000150u);
    EXPECT_TRUE(m_sink->Take().empty());
}

}  // namespace
