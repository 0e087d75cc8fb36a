// The funnel that turns the exception being handled into a logged result code.
#pragma once

#include <string_view>

namespace common::utils {

// Call only inside a catch handler. Logs the current exception at error
// level, prefixed by `context` and naming the failed `operation`, and
// returns its result code:
//   - an eka exception: its own failing code, 0x80000152 for a result-code
//     exception whose code is no failure, 0x80000151 for one without a code;
//   - another standard exception: 0x8000004B;
//   - anything else: 0x80000072;
//   - no current exception at all: 0x80000150, and nothing is logged.
// Never throws: a failure while logging ends the process.
int ManageException(std::string_view context, std::string_view operation) noexcept;

}  // namespace common::utils
