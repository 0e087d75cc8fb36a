#include "request_arena.h"

#include <cerrno>
#include <system_error>

#include <sys/mman.h>

namespace signature_verifier::host {
namespace {

// Requests below this leave their pages in place: releasing and faulting them
// in again would cost more than the memory is worth.
constexpr std::size_t kTrimThreshold = 4 * 1024 * 1024;

}  // namespace

RequestArena::RequestArena(std::size_t capacity) : m_base(MAP_FAILED), m_capacity(capacity)
{
    if (capacity == 0)
        throw std::system_error(std::make_error_code(std::errc::invalid_argument), "request arena of 0 bytes");
    m_base = mmap(nullptr, capacity, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (m_base == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "cannot reserve the request arena");
}

RequestArena::~RequestArena()
{
    munmap(m_base, m_capacity);
}

nk_arena RequestArena::Fresh() const
{
    nk_arena arena{};
    nk_arena_init(&arena, m_base, m_capacity);
    return arena;
}

void RequestArena::Trim(std::size_t used) const
{
    if (used >= kTrimThreshold)
        madvise(m_base, used < m_capacity ? used : m_capacity, MADV_DONTNEED);
}

}  // namespace signature_verifier::host
