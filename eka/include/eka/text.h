// Conversions between the UTF-8 narrow text of the runtime and the UTF-16
// text of exception descriptions. Each byte or unit that does not belong
// to a well-formed sequence becomes U+FFFD; the text around it is kept.
#pragma once

#include <string>
#include <string_view>

namespace eka::text {

std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace eka::text
