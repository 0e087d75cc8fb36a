#include "session_text.h"

#include <array>
#include <charconv>
#include <cstdint>

namespace update_registry {
namespace {

using update::registry::ipc::PackageType;
using update::registry::ipc::UpdateState;

constexpr std::array<const char*, update::registry::ipc::kPackageTypeCount> kTypeNames{"product", "applist"};
constexpr std::array<const char*, update::registry::ipc::kUpdateStateCount> kStateNames{
    "created",    "downloading", "downloaded",          "verifying", "verified", "verification-failed",
    "installing", "installed",   "installation-failed", "cancelled", "finished"};

constexpr std::array<std::size_t, 4> kDashes{8, 13, 18, 23};
constexpr std::size_t kGuidTextLength = 36;

// A name from `names` or its index in decimal.
template <std::size_t N>
std::optional<unsigned int> IndexFromText(std::string_view text, const std::array<const char*, N>& names)
{
    for (std::size_t i = 0; i < N; ++i)
        if (text == names[i])
            return static_cast<unsigned int>(i);
    unsigned int value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value >= N)
        return std::nullopt;
    return value;
}

}  // namespace

std::string GuidToText(const eka::guid_t& id)
{
    static constexpr char kHex[] = "0123456789abcdef";
    std::string text;
    text.reserve(kGuidTextLength);
    for (std::size_t i = 0; i < id.bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text.push_back('-');
        text.push_back(kHex[id.bytes[i] >> 4]);
        text.push_back(kHex[id.bytes[i] & 0x0F]);
    }
    return text;
}

std::optional<eka::guid_t> GuidFromText(std::string_view text)
{
    if (text.size() != kGuidTextLength)
        return std::nullopt;
    for (const std::size_t dash : kDashes)
        if (text[dash] != '-')
            return std::nullopt;
    eka::guid_t id;
    std::size_t pos = 0;
    for (std::uint8_t& byte : id.bytes) {
        if (text[pos] == '-')
            ++pos;
        const auto [end, ec] = std::from_chars(text.data() + pos, text.data() + pos + 2, byte, 16);
        if (ec != std::errc() || end != text.data() + pos + 2)
            return std::nullopt;
        pos += 2;
    }
    return id;
}

std::optional<PackageType> PackageTypeFromText(std::string_view text)
{
    const auto index = IndexFromText(text, kTypeNames);
    return index ? std::optional(static_cast<PackageType>(*index)) : std::nullopt;
}

std::optional<UpdateState> UpdateStateFromText(std::string_view text)
{
    const auto index = IndexFromText(text, kStateNames);
    return index ? std::optional(static_cast<UpdateState>(*index)) : std::nullopt;
}

const char* PackageTypeName(PackageType type)
{
    const auto index = static_cast<std::size_t>(type);
    return index < kTypeNames.size() ? kTypeNames[index] : "unknown";
}

const char* UpdateStateName(UpdateState state)
{
    const auto index = static_cast<std::size_t>(state);
    return index < kStateNames.size() ? kStateNames[index] : "unknown";
}

std::optional<std::uint64_t> HandleFromText(std::string_view text)
{
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (text.empty() || ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

}  // namespace update_registry
