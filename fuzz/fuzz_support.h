// Helpers shared by the fuzz targets: invariant checks that stop the run
// (libFuzzer then keeps the input as a crash artifact) and a reader that
// splits one input into fields.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#define FUZZ_CHECK(condition) \
    ((condition) ? static_cast<void>(0) : ::fuzz::InvariantBroken(#condition, __FILE__, __LINE__))

namespace fuzz {

[[noreturn]] inline void InvariantBroken(const char* condition, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, condition);
    std::abort();
}

// Takes fields from the front of an input. Reading past the end yields
// zeros, so that every input, however short, maps to some case.
class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : m_data(data), m_size(size) {}

    std::uint8_t Byte() { return static_cast<std::uint8_t>(Le(1)); }
    std::uint16_t U16() { return static_cast<std::uint16_t>(Le(2)); }
    std::uint32_t U32() { return static_cast<std::uint32_t>(Le(4)); }
    std::uint64_t U64() { return Le(8); }

    // Exactly `n` bytes, zero-padded when the input runs out.
    std::vector<std::uint8_t> Bytes(std::size_t n)
    {
        std::vector<std::uint8_t> out(n, 0);
        const std::size_t take = std::min(n, Remaining());
        if (take != 0)
            std::memcpy(out.data(), m_data + m_at, take);
        m_at += take;
        return out;
    }

    // Everything not read yet, in a heap block of exactly that size, so
    // that the address sanitizer sees any read past it.
    std::vector<std::uint8_t> Rest() { return Bytes(Remaining()); }

    std::size_t Remaining() const { return m_size - m_at; }

private:
    std::uint64_t Le(int n)
    {
        std::uint64_t value = 0;
        for (int i = 0; i < n; ++i) {
            const std::uint64_t byte = m_at < m_size ? m_data[m_at++] : 0;
            value |= byte << (8 * i);
        }
        return value;
    }

    const std::uint8_t* m_data;
    std::size_t m_size;
    std::size_t m_at = 0;
};

inline std::uint32_t LoadU32(const std::uint8_t* p)
{
    return std::uint32_t{p[0]} | std::uint32_t{p[1]} << 8 | std::uint32_t{p[2]} << 16 | std::uint32_t{p[3]} << 24;
}

inline std::uint16_t LoadU16(const std::uint8_t* p) { return static_cast<std::uint16_t>(p[0] | p[1] << 8); }

}  // namespace fuzz
