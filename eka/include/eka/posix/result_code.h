// Result codes from POSIX errno values.
#pragma once

#include "eka/result_code.h"

namespace eka::posix {

// Maps an errno value, numbered as the platform's libc numbers them, to a
// result code. 0 is success. Values with a dedicated code get it; other
// values that fit 16 bits are kept in the POSIX facility (0x8006xxxx) so that
// they can still be told apart; larger ones become "Unspecified platform error".
result_t ResultCodeFromSystemError(unsigned int error) noexcept;

}  // namespace eka::posix
