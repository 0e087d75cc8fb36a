// The request arena of the entity: one address-space reservation large enough
// for the largest legal request, made once and reused for every request.
#pragma once

#include <cstddef>

#include <nos/message.h>

namespace signature_verifier::host {

class RequestArena {
public:
    // Room for CheckBuffer with 64 MiB of data and a 64 MiB signature, plus
    // slack for the client's padding.
    static constexpr std::size_t kDefaultCapacity = 2 * std::size_t{0x4000000} + 64 * 1024;

    // Reserves `capacity` bytes of anonymous memory; pages cost memory only
    // once a request touches them. Throws std::system_error when the
    // reservation fails.
    explicit RequestArena(std::size_t capacity = kDefaultCapacity);
    ~RequestArena();

    RequestArena(const RequestArena&) = delete;
    RequestArena& operator=(const RequestArena&) = delete;

    // An empty arena over the whole reservation, ready for a receive.
    nk_arena Fresh() const;

    // Gives the pages of a large request back to the system after it was
    // answered, so that one big request does not pin its memory for the life
    // of the process. `used` is the number of bytes that were received.
    void Trim(std::size_t used) const;

    std::size_t Capacity() const { return m_capacity; }

private:
    void* m_base;
    std::size_t m_capacity;
};

}  // namespace signature_verifier::host
