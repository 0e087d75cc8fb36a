#include <cstdint>
#include <filesystem>
#include <limits>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "eka/exception.h"
#include "eka/text.h"
#include "eka/throw.h"

namespace {

using eka::CheckFailedException;
using eka::CheckResultFailedException;
using eka::ResultCodeException;

constexpr eka::result_t kInvalidResult = static_cast<eka::result_t>(0x80000071u);

std::string Narrow(const std::u16string& text) { return eka::text::Utf16ToUtf8(text); }

TEST(ExceptionTest, FullDescription_EachClass)
{
    struct Case {
        const char* name;
        std::unique_ptr<eka::Exception> exception;
        std::string expected;
    };
    Case cases[] = {
        {"code with text", std::make_unique<ResultCodeException>(kInvalidResult, u"invalid riid"),
         "invalid riid: 0x80000071 (Invalid result)"},
        {"code only", std::make_unique<ResultCodeException>(kInvalidResult), "0x80000071 (Invalid result)"},
        {"narrow text", std::make_unique<ResultCodeException>(kInvalidResult, "invalid handle"),
         "invalid handle: 0x80000071 (Invalid result)"},
        {"success code", std::make_unique<ResultCodeException>(0, u"x"), "x: 0x00000000 (No error)"},
        {"unassigned code", std::make_unique<ResultCodeException>(static_cast<eka::result_t>(0x8001010Fu)),
         "0x8001010f (Unknown result code)"},
        {"check result", std::make_unique<CheckResultFailedException>(static_cast<eka::result_t>(0x80010102u),
                                                                      u"Expression failed"),
         "Expression failed: 0x80010102 (File not found)"},
        {"check", std::make_unique<CheckFailedException>(u"cannot get sessions from arena"),
         "cannot get sessions from arena"},
        {"check empty", std::make_unique<CheckFailedException>(), ""},
        {"base", std::make_unique<eka::Exception>(u"plain"), "plain"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(Narrow(c.exception->full_description()), c.expected) << c.name;
}

TEST(ExceptionTest, What_NamesClass)
{
    EXPECT_STREQ(ResultCodeException(kInvalidResult, u"text").what(), "ResultCodeException");
    EXPECT_STREQ(CheckResultFailedException(kInvalidResult).what(), "CheckResultFailedException");
    EXPECT_STREQ(CheckFailedException(u"text").what(), "CheckFailedException");
}

TEST(ExceptionTest, CheckFailedStream_IntegersAsDecimal)
{
    const unsigned char seven = 7;
    const signed char minusOne = -1;
    CheckFailedException e(u"invalid update state: ");
    e << seven << u"," << 11 << u"," << 4000000000u << u"," << -5 << u"," << minusOne << u","
      << std::numeric_limits<std::uint64_t>::max() << u"," << static_cast<short>(-300);
    EXPECT_EQ(e.description(), u"invalid update state: 7,11,4000000000,-5,-1,18446744073709551615,-300");
}

TEST(ExceptionTest, CheckFailedStream_ChainsOnTemporary)
{
    const std::u16string text = (CheckFailedException() << u"transport fail: " << -32).description();
    EXPECT_EQ(text, u"transport fail: -32");
    const char16_t* none = nullptr;
    EXPECT_EQ((CheckFailedException(u"a") << none).description(), u"a");
}

TEST(ExceptionTest, CheckResultFailedStream_NarrowTextAndPaths)
{
    const std::filesystem::path list = "/update_storage/pkg/applist.json";
    const std::filesystem::path sig = "/update_storage/pkg/applist.json.sig";
    const CheckResultFailedException e = CheckResultFailedException(static_cast<eka::result_t>(0x8000005Au))
                    << "Failed to verify AppList file " << list << " with signature file " << sig;
    EXPECT_EQ(Narrow(e.description()),
              "Failed to verify AppList file /update_storage/pkg/applist.json with signature file "
              "/update_storage/pkg/applist.json.sig");
    EXPECT_EQ(e.result(), static_cast<eka::result_t>(0x8000005Au));
}

TEST(ExceptionTest, CheckResultFailedStream_ConvertsUtf8)
{
    const std::string owned = " \xD0\xBF\xD1\x83\xD1\x82\xD1\x8C";  // Cyrillic, two bytes each
    const CheckResultFailedException e = CheckResultFailedException(kInvalidResult, u"a")
                                         << std::string_view("\xC3\xA9") << owned;
    EXPECT_EQ(e.description(), u"a\u00E9 \u043F\u0443\u0442\u044C");
}

TEST(ExceptionTest, Throw_RecordsLocationAndResultInfo)
{
    try {
        eka::Throw<ResultCodeException>("shared/update/common/src/common", 54, 0x80000071u, u"empty package folder");
        FAIL() << "nothing thrown";
    } catch (const ResultCodeException& e) {
        EXPECT_STREQ(e.file(), "shared/update/common/src/common");
        EXPECT_EQ(e.line(), 54);
        EXPECT_EQ(e.result(), kInvalidResult);
        EXPECT_EQ(e.description(), u"empty package folder");
        ASSERT_NE(e.error_info(), nullptr);
        EXPECT_EQ(e.error_info()->Get(eka::error_info::Result), std::optional<int>(kInvalidResult));
        EXPECT_EQ(e.error_info()->Get(eka::error_info::OsResult), std::nullopt);
    }
}

TEST(ExceptionTest, Throw_PreparedExceptionKeepsDerivedType)
{
    const eka::result_t code = -5;
    try {
        eka::Throw("entities/updater_pdk/verifier/src/verifiers/product_verifier", 43,
                   CheckResultFailedException(code, u"Expression failed") << " failed get info");
        FAIL() << "nothing thrown";
    } catch (const CheckResultFailedException& e) {
        EXPECT_STREQ(e.file(), "entities/updater_pdk/verifier/src/verifiers/product_verifier");
        EXPECT_EQ(e.line(), 43);
        EXPECT_EQ(e.description(), u"Expression failed failed get info");
        ASSERT_NE(e.error_info(), nullptr);
        EXPECT_EQ(e.error_info()->Get(eka::error_info::Result), std::optional<int>(-5));
    }
}

TEST(ExceptionTest, Throw_CheckFailedHasNoResultInfo)
{
    try {
        eka::Throw<CheckFailedException>("security/crypto/signature_verifier", 77, u"fail to open file file");
        FAIL() << "nothing thrown";
    } catch (const eka::Exception& e) {
        EXPECT_NE(dynamic_cast<const CheckFailedException*>(&e), nullptr);
        EXPECT_EQ(e.line(), 77);
        EXPECT_EQ(e.error_info(), nullptr);
    }
}

TEST(ExceptionTest, CloneAndRethrow_KeepMostDerivedObject)
{
    CheckResultFailedException original(kInvalidResult, u"x");
    original.set_location("f", 3);
    std::unique_ptr<eka::Exception> copy = static_cast<const eka::Exception&>(original).Clone();
    const auto* derived = dynamic_cast<const CheckResultFailedException*>(copy.get());
    ASSERT_NE(derived, nullptr);
    EXPECT_EQ(derived->result(), kInvalidResult);
    EXPECT_EQ(derived->line(), 3);
    EXPECT_THROW(copy->Rethrow(), CheckResultFailedException);
    EXPECT_THROW(CheckFailedException(u"y").Rethrow(), CheckFailedException);
}

TEST(ExceptionTest, SetErrorInfo_SharedBetweenCopiesAndReplaced)
{
    ResultCodeException e(kInvalidResult);
    EXPECT_EQ(e.error_info(), nullptr);
    eka::exception::set_error_info(e, eka::error_info::Make(eka::error_info::OsResult, 2));
    const ResultCodeException copy = e;
    EXPECT_EQ(copy.error_info(), e.error_info());
    eka::exception::set_error_info(e, eka::error_info::Make(eka::error_info::OsResult, 13));
    EXPECT_EQ(copy.error_info()->Get(eka::error_info::OsResult), std::optional<int>(13));
    EXPECT_EQ(copy.error_info()->Get(eka::error_info::OsModuleResult), std::nullopt);
    EXPECT_EQ(eka::error_info::Key<int>::type_id, 0x2B193A6Fu);
}

template <typename Thrower>
eka::result_t CodeOf(Thrower thrower)
{
    try {
        thrower();
    } catch (...) {
        return eka::ResultCodeOfCurrentException();
    }
    return 12345;
}

TEST(ExceptionTest, ResultCodeOfCurrentException_ByKind)
{
    EXPECT_EQ(eka::ResultCodeOfCurrentException(), static_cast<eka::result_t>(0x80000150u));
    EXPECT_EQ(CodeOf([] { throw ResultCodeException(kInvalidResult); }), kInvalidResult);
    EXPECT_EQ(CodeOf([] { throw CheckResultFailedException(-22); }), -22);
    EXPECT_EQ(CodeOf([] { throw ResultCodeException(0); }), static_cast<eka::result_t>(0x80000152u));
    EXPECT_EQ(CodeOf([] { throw ResultCodeException(1); }), static_cast<eka::result_t>(0x80000152u));
    EXPECT_EQ(CodeOf([] { throw CheckFailedException(u"x"); }), static_cast<eka::result_t>(0x80000151u));
    EXPECT_EQ(CodeOf([] { throw eka::Exception(u"x"); }), static_cast<eka::result_t>(0x80000151u));
    EXPECT_EQ(CodeOf([] { throw std::runtime_error("x"); }), static_cast<eka::result_t>(0x8000004Bu));
    EXPECT_EQ(CodeOf([] { throw 42; }), static_cast<eka::result_t>(0x80000072u));
}

TEST(TextTest, Utf8ToUtf16_RoundTrips)
{
    EXPECT_EQ(eka::text::Utf16ToUtf8(u"a\u00E9\u20AC\U0001F600"), "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    EXPECT_EQ(eka::text::Utf8ToUtf16("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"), u"a\u00E9\u20AC\U0001F600");
    EXPECT_EQ(eka::text::Utf8ToUtf16(std::string_view("\0x", 2)), std::u16string(u"\0x", 2));
}

TEST(TextTest, Utf8ToUtf16_ReplacesInvalidKeepsRest)
{
    struct Case {
        std::string_view utf8;
        std::u16string_view utf16;
    };
    const Case cases[] = {
        {"a\xFF" "b", u"a\uFFFDb"},
        {"a\xC3", u"a\uFFFD"},                      // cut at the end
        {"\xC3(", u"\uFFFD("},                      // bad continuation
        {"\xC0\xAF", u"\uFFFD\uFFFD"},              // overlong
        {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"},     // encoded surrogate
        {"\xF4\x90\x80\x80", u"\uFFFD\uFFFD\uFFFD\uFFFD"},  // above U+10FFFF
    };
    for (const Case& c : cases)
        EXPECT_EQ(eka::text::Utf8ToUtf16(c.utf8), c.utf16);
    const char16_t lone[] = {u'a', 0xD800, u'b', 0xDC00, 0};
    EXPECT_EQ(eka::text::Utf16ToUtf8(lone), "a\xEF\xBF\xBD" "b\xEF\xBF\xBD");
}

}  // namespace
