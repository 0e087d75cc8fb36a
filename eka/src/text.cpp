#include "eka/text.h"

#include <cstdint>

namespace eka::text {
namespace {

constexpr char32_t kReplacement = 0xFFFD;

// Decodes one code point at `pos` and advances past it. A byte that does not
// start a well-formed sequence (overlong forms, surrogates and values above
// U+10FFFF included) yields the replacement character and consumes only that
// byte, so the valid text around it is kept.
char32_t DecodeUtf8(std::string_view text, std::size_t& pos)
{
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const std::uint8_t lead = byte(pos);
    if (lead < 0x80) {
        ++pos;
        return lead;
    }
    std::size_t length = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2;
        value = lead & 0x1Fu;
        minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3;
        value = lead & 0x0Fu;
        minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4;
        value = lead & 0x07u;
        minimum = 0x10000;
    } else {
        ++pos;
        return kReplacement;
    }
    if (text.size() - pos < length) {
        ++pos;
        return kReplacement;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const std::uint8_t next = byte(pos + i);
        if ((next & 0xC0) != 0x80) {
            ++pos;
            return kReplacement;
        }
        value = (value << 6) | (next & 0x3Fu);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) {
        ++pos;
        return kReplacement;
    }
    pos += length;
    return value;
}

void AppendUtf8(std::string& out, char32_t c)
{
    const auto put = [&](char32_t v) { out.push_back(static_cast<char>(v)); };
    if (c < 0x80) {
        put(c);
    } else if (c < 0x800) {
        put(0xC0 | (c >> 6));
        put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        put(0xE0 | (c >> 12));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    } else {
        put(0xF0 | (c >> 18));
        put(0x80 | ((c >> 12) & 0x3F));
        put(0x80 | ((c >> 6) & 0x3F));
        put(0x80 | (c & 0x3F));
    }
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view text)
{
    std::u16string out;
    out.reserve(text.size());
    std::size_t pos = 0;
    while (pos < text.size()) {
        const char32_t c = DecodeUtf8(text, pos);
        if (c < 0x10000) {
            out.push_back(static_cast<char16_t>(c));
        } else {
            const char32_t v = c - 0x10000;
            out.push_back(static_cast<char16_t>(0xD800 + (v >> 10)));
            out.push_back(static_cast<char16_t>(0xDC00 + (v & 0x3FF)));
        }
    }
    return out;
}

std::string Utf16ToUtf8(std::u16string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char32_t unit = text[i];
        if (unit >= 0xD800 && unit <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            AppendUtf8(out, 0x10000 + ((unit - 0xD800) << 10) + (text[i + 1] - 0xDC00u));
            ++i;
        } else if (unit >= 0xD800 && unit <= 0xDFFF) {
            AppendUtf8(out, kReplacement);  // unpaired surrogate
        } else {
            AppendUtf8(out, unit);
        }
    }
    return out;
}

}  // namespace eka::text
