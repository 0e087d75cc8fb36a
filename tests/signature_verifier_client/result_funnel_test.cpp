// The catch-all funnel of the update verifier: its three kinds of exception,
// their log lines and result codes.

#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <eka/exception.h>
#include <eka/throw.h>
#include <gtest/gtest.h>
#include <nglog/nglog.h>

#include "private/result_funnel.h"
#include "support.h"

namespace signature_verifier::client::testing {
namespace {

using wrapper::detail::ResultFromCurrentException;

int Funnel(const std::function<void()>& thrower, std::string_view operation)
{
    try {
        thrower();
    } catch (...) {
        return ResultFromCurrentException(operation);
    }
    ADD_FAILURE() << "nothing was thrown";
    return 0;
}

class ResultFunnelTest : public ClientTest {};

TEST_F(ResultFunnelTest, ResultFromCurrentException_KindsOfException)
{
    struct Case {
        const char* name;
        std::function<void()> thrower;
        std::string_view operation;
        std::uint32_t code;
        std::string log;
    };
    const std::vector<Case> cases = {
        {"result code",
         [] { eka::Throw("f", 1, eka::CheckResultFailedException(-49152, u"Expression failed")); }, "verify_hash",
         0xFFFF4000u, "Expression failed: 0xffff4000 (Unknown result code) ; detailed: exception during: verify_hash\n"},
        {"check failed", [] { eka::Throw("f", 1, eka::CheckFailedException(std::u16string(u"invalid context"))); },
         "verify", 0x80000151u, "invalid context ; detailed: exception during: verify\n"},
        {"successful code", [] { eka::Throw<eka::ResultCodeException>("f", 1, 0, u"odd"); }, "get_hash", 0x80000152u,
         "odd: 0x00000000 (No error) ; detailed: exception during: get_hash\n"},
        {"standard", [] { throw std::runtime_error("x"); }, "get_hash", 0x8000004Bu,
         "x ; detailed: exception during get_hash\n"},
        {"anything else", [] { throw 5; }, "verify", 0x80000072u,
         "detailed: Unknown exception type during verify\n"},
    };
    for (const Case& c : cases) {
        const Logged result = RunLogged([&] { return Funnel(c.thrower, c.operation); });
        EXPECT_EQ(static_cast<std::uint32_t>(result.status), c.code) << c.name;
        EXPECT_EQ(result.log, c.log) << c.name;
    }

    nglog_set_level(NGLOG_LEVEL_SILENT);
    for (const Case& c : cases) {
        const Logged result = RunLogged([&] { return Funnel(c.thrower, c.operation); });
        EXPECT_EQ(static_cast<std::uint32_t>(result.status), c.code) << c.name;
        EXPECT_EQ(result.log, "") << c.name;
    }
}

}  // namespace
}  // namespace signature_verifier::client::testing
