#include "update/registry/ipc/session_converters.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>

#include "update/registry/ipc/enum_converters.h"

namespace update::registry::ipc {
namespace {

constexpr const char* kStringFromArenaFailed = "nos_ipc::StringFromArena(): Failed to acquire string from arena";

// Address arithmetic on integers, so that wrap-around is caught before any
// pointer is formed.
bool Add(std::uintptr_t a, std::uint64_t b, std::uintptr_t& sum) noexcept
{
    if (b > std::numeric_limits<std::uintptr_t>::max() - a)
        return false;
    sum = a + static_cast<std::uintptr_t>(b);
    return true;
}

}  // namespace

SessionInfo ToSessionInfo(const nv_IUpdateRegistry_SessionInfo& wire, nk_arena& arena)
{
    SessionInfo info;
    info.type = ToPackageType(wire.type);
    info.state = ToUpdateState(wire.state);

    const auto* text = static_cast<const char*>(nk_arena_get(&arena, wire.path));
    if (text == nullptr)
        throw std::runtime_error(kStringFromArenaFailed);
    info.path = std::string(text, wire.path.size);

    std::memcpy(info.id.bytes.data(), wire.id, sizeof(wire.id));
    return info;
}

nv_IUpdateRegistry_SessionInfo FromSessionInfo(const SessionInfo& info, nk_arena& arena)
{
    nv_IUpdateRegistry_SessionInfo wire{};
    wire.type = FromPackageType(info.type);
    wire.state = FromUpdateState(info.state);

    const std::string text = info.path.string();
    const auto start = reinterpret_cast<std::uintptr_t>(arena.start);
    const auto current = reinterpret_cast<std::uintptr_t>(arena.current);
    const auto end = reinterpret_cast<std::uintptr_t>(arena.end);
    std::uintptr_t after = 0;
    constexpr std::uint64_t kMax32 = std::numeric_limits<std::uint32_t>::max();
    if (text.size() > kMax32 || current < start || !Add(current, text.size(), after) || after > end ||
        current - start > kMax32)
        throw std::bad_alloc();
    std::uint8_t* const place = arena.current;
    arena.current += text.size();
    if (!text.empty())
        std::memcpy(place, text.data(), text.size());
    wire.path.offset = static_cast<std::uint32_t>(current - start);
    wire.path.size = static_cast<std::uint32_t>(text.size());

    std::memcpy(wire.id, info.id.bytes.data(), sizeof(wire.id));
    return wire;
}

}  // namespace update::registry::ipc
