// The catch-all funnel of the update verifier's operations.
#pragma once

#include <cstdint>
#include <string_view>

namespace signature_verifier::wrapper::detail {

// To be called inside a catch-all handler: classifies the exception being
// handled, logs it through nglog at level 1 (when the level is above 0) with
// the operation's name, and returns its result code:
//  - an eka exception: "<full description> ; detailed: exception during: <operation>",
//    the code it carries (0x80000151 / 0x80000152 when it has none / no failure);
//  - another standard exception: "<what()> ; detailed: exception during <operation>",
//    0x8000004B;
//  - anything else: "detailed: Unknown exception type during <operation>", 0x80000072.
// Terminates the process if logging itself throws.
std::int32_t ResultFromCurrentException(std::string_view operation) noexcept;

}  // namespace signature_verifier::wrapper::detail
