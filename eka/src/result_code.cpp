#include "eka/result_code.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace eka {
namespace {

struct CodeMessage {
    std::uint32_t code;
    std::string_view message;
};

// Sorted by the unsigned value of the code, as the list is written.
constexpr std::array kMessages = {
#define EKA_RESULT_CODE_ENTRY(name, value, message) CodeMessage{value, message},
    EKA_RESULT_CODES(EKA_RESULT_CODE_ENTRY)
#undef EKA_RESULT_CODE_ENTRY
};

constexpr bool IsSorted()
{
    for (std::size_t i = 1; i < kMessages.size(); ++i) {
        if (kMessages[i - 1].code >= kMessages[i].code)
            return false;
    }
    return true;
}
static_assert(IsSorted(), "the result code list must be sorted and free of repeats");

constexpr std::string_view kUnknown = "Unknown result code";

}  // namespace

std::string_view result_code_message(result_t code) noexcept
{
    const auto key = static_cast<std::uint32_t>(code);
    const auto it = std::lower_bound(kMessages.begin(), kMessages.end(), key,
                                     [](const CodeMessage& entry, std::uint32_t value) { return entry.code < value; });
    if (it == kMessages.end() || it->code != key)
        return kUnknown;
    return it->message;
}

std::string FormatResultCode(result_t code)
{
    return fmt::format("0x{:08x} ({})", static_cast<std::uint32_t>(code), result_code_message(code));
}

}  // namespace eka
