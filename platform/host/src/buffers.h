// Checks of the caller's messages and arenas at the transport boundary.
#ifndef NOS_HOST_BUFFERS_H
#define NOS_HOST_BUFFERS_H

#include <nos/message.h>

#include <cstring>
#include <optional>
#include <span>

namespace nos_host {

// Bytes offered by an arena for receiving: end - start; 0 for NULL. No value
// when the arena is inconsistent.
inline std::optional<size_t> OfferedArena(const nk_arena* a)
{
    if (a == nullptr)
        return 0;
    if (a->end < a->start || (a->start == nullptr && a->end != nullptr))
        return std::nullopt;
    return static_cast<size_t>(a->end - a->start);
}

// Bytes an arena sends: [start, current). No value when inconsistent.
inline std::optional<std::span<const uint8_t>> ArenaToSend(const nk_arena* a)
{
    if (a == nullptr)
        return std::span<const uint8_t>{};
    if (a->current < a->start || a->current > a->end || (a->start == nullptr && a->current != nullptr))
        return std::nullopt;
    return std::span<const uint8_t>(a->start, static_cast<size_t>(a->current - a->start));
}

// Bytes a message sends: the low 23 bits of its size word, at least the header.
inline std::optional<std::span<const uint8_t>> MessageToSend(const nk_message* m)
{
    if (m == nullptr || nk_msg_size(m) < sizeof(nk_message))
        return std::nullopt;
    return std::span<const uint8_t>(reinterpret_cast<const uint8_t*>(m), nk_msg_size(m));
}

// Copies a received message over the caller's buffer of `capacity` bytes and
// zeroes the rest of it.
inline void StoreMessage(nk_message* m, uint32_t capacity, std::span<const uint8_t> received)
{
    auto* bytes = reinterpret_cast<uint8_t*>(m);
    std::memcpy(bytes, received.data(), received.size());
    std::memset(bytes + received.size(), 0, capacity - received.size());
}

}  // namespace nos_host

#endif
