// Result codes as the logs write them, errno mapping, and the funnel that
// turns whatever was thrown into one logged line and a code.
#include "common/utils/manage_exception.h"
#include "eka/posix/result_code.h"
#include "eka/throw.h"
#include "nos/rtl/exception.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <stdexcept>

namespace {

using namespace test_support;

TEST(ResultCodeTest, FormatResultCode_MessageOrFallback)
{
    const std::pair<std::uint32_t, const char*> cases[] = {
        {0x00000001, "0x00000001 (False)"},
        {0x80010117, "0x80010117 (System image bad format)"},  // the last code
        {0x80000048, "0x80000048 (Unknown result code)"},      // between two codes
        {0x8001010A, "0x8001010a (Unknown result code)"},      // an unassigned platform index
        {0xFFFFFFFF, "0xffffffff (Unknown result code)"},
    };
    for (const auto& [code, text] : cases)
        EXPECT_EQ(eka::FormatResultCode(static_cast<eka::result_t>(code)), text);
}

TEST(ResultCodeTest, ResultCodeFromSystemError_MappedKeptOrCatchAll)
{
    const std::pair<unsigned int, std::uint32_t> cases[] = {
        {0, 0},           {1, 0x80000045},  {13, 0x80000045}, {2, 0x80010102},  {5, 0x80000059},  {8, 0x80010117},
        {9, 0x80010101},  {12, 0x80000041}, {16, 0x8000004F}, {26, 0x8000004F}, {17, 0x80010105}, {20, 0x80010103},
        {22, 0x80000046}, {27, 0x80000078}, {28, 0x80000062}, {62, 0x8000006A}, {63, 0x8000005C}, {84, 0x80000044},
        {35, 0x80060023}, {40, 0x80060028}, {0xFFFF, 0x8006FFFF}, {0x10000, 0x80010100}, {~0u, 0x80010100},
    };
    for (const auto& [error, code] : cases)
        EXPECT_EQ(static_cast<std::uint32_t>(eka::posix::ResultCodeFromSystemError(error)), code) << error;
}

int Manage(const std::function<void()>& thrower)
{
    try {
        thrower();
    } catch (...) {
        return common::utils::ManageException("ctx", "Open");
    }
    return 0;
}

TEST(ManageExceptionTest, ManageException_KindGivesCodeAndOneErrorLine)
{
    const std::filesystem::path path = "/update_storage/p";
    const std::string during = " ; detailed: exception during: Open";
    // What is thrown, the code, the line and the line's source line.
    const std::tuple<std::function<void()>, std::uint32_t, std::string, int> cases[] = {
        {[] { eka::Throw<eka::ResultCodeException>("f", 1, 0x80000071, u"invalid riid"); }, 0x80000071,
         "ctx: invalid riid: 0x80000071 (Invalid result)" + during, 27},
        {[] { throw eka::ResultCodeException(0x80000072); }, 0x80000072, "ctx: 0x80000072 (Unknown exception)" + during,
         27},
        {[] { throw eka::ResultCodeException(0, u"odd"); }, 0x80000152, "ctx: odd: 0x00000000 (No error)" + during, 27},
        {[&] { throw eka::CheckResultFailedException(0x8000005A, u"Failed") << " caf\xC3\xA9 \xFF " << path; },
         0x8000005A, "ctx: Failed caf\xC3\xA9 \xEF\xBF\xBD /update_storage/p: 0x8000005a (Invalid signature)" + during,
         27},
        {[] { throw eka::CheckFailedException(u"invalid type: ") << std::uint8_t{7} << u"," << -32; }, 0x80000151,
         "ctx: invalid type: 7,-32" + during, 27},
        {[] { throw std::runtime_error("x"); }, 0x8000004B, "ctx: x ; detailed: exception during Open", 32},
        {[] { nos::rtl::details::CheckBoolean(false, "m_entity", 0x9000000D, {"f", "g", 1}); }, 0x8000004B,
         "ctx: Boolean expression \"m_entity\" is false ; detailed: exception during Open", 32},
        {[] { throw 42; }, 0x80000072, "ctx: detailed: Unknown exception type during Open", 37},
    };
    LogCapture log;
    RootLoggerCapture capture(log);
    for (const auto& [thrower, code, line, sourceLine] : cases) {
        EXPECT_EQ(static_cast<std::uint32_t>(Manage(thrower)), code) << line;
        const LogLine logged{line, kError, "shared/common/utils/manage_exception:" + std::to_string(sourceLine)};
        EXPECT_EQ(log.Lines(), std::vector<LogLine>{logged});
        log.Clear();
    }
    EXPECT_EQ(static_cast<std::uint32_t>(common::utils::ManageException("", "main")), 0x80000150u);
    EXPECT_TRUE(log.Lines().empty());
}

}  // namespace
