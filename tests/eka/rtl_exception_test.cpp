#include <string>

#include <gtest/gtest.h>

#include "nos/rtl/exception.h"

namespace {

using nos::rtl::Exception;
using nos::rtl::SourceLocation;
namespace details = nos::rtl::details;

constexpr nos::rtl::Result kCheckFailed = static_cast<nos::rtl::Result>(0x9000000Du);

TEST(RtlExceptionTest, ExceptionHelper_ThrowsStreamedMessage)
{
    const SourceLocation where("component/fdn/ipc/server", "IpcThread", 223, 7);
    try {
        details::ExceptionHelper(kCheckFailed, where) | details::Streamer() << "handle " << 42u << " is " << -1;
        FAIL() << "nothing thrown";
    } catch (const Exception& e) {
        EXPECT_STREQ(e.what(), "handle 42 is -1");
        EXPECT_EQ(e.GetResult(), kCheckFailed);
        EXPECT_STREQ(e.GetLocation().file_name(), "component/fdn/ipc/server");
        EXPECT_STREQ(e.GetLocation().function_name(), "IpcThread");
        EXPECT_EQ(e.GetLocation().line(), 223u);
        EXPECT_EQ(e.GetLocation().column(), 7u);
    }
}

TEST(RtlExceptionTest, CheckBoolean_NamesExpression)
{
    const SourceLocation where("component/fdn/ipc/server", "Server", 68);
    EXPECT_NO_THROW(details::CheckBoolean(true, "m_entity", kCheckFailed, where));
    try {
        details::CheckBoolean(false, "handle != (0xffffffffU)", kCheckFailed, where);
        FAIL() << "nothing thrown";
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "Boolean expression \"handle != (0xffffffffU)\" is false");
    }
}

TEST(RtlExceptionTest, Copy_SharesMessage)
{
    const Exception original("message", -1, SourceLocation("f", "g", 1));
    Exception copy(-2, SourceLocation());
    EXPECT_STREQ(copy.what(), "");
    EXPECT_STREQ(copy.GetLocation().file_name(), "");
    copy = original;
    EXPECT_EQ(copy.what(), original.what());
    EXPECT_EQ(copy.GetResult(), -1);
    const Exception constructed(original);
    EXPECT_EQ(constructed.what(), original.what());
    const SourceLocation nulls(nullptr, nullptr, 5);
    EXPECT_STREQ(nulls.file_name(), "");
    EXPECT_STREQ(nulls.function_name(), "");
}

}  // namespace
