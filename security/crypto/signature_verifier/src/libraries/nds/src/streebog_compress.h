// Compression function of GOST R 34.11-2012 and its implementations.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace nds::gost {

// h = g_N(h, m) for one block m given as 8 little-endian words.
using CompressFn = void (*)(std::uint64_t* h, const std::uint64_t* n, const std::uint64_t* m);

// Hashes `blocks` whole 64-byte blocks of `data`: for each block m,
// h = g_N(h, m), then N += 512 and sigma += m (both mod 2^512).
using CompressBlocksFn = void (*)(std::uint64_t* h, std::uint64_t* n, std::uint64_t* sigma,
                                  const std::uint8_t* data, std::size_t blocks);

struct CompressImpl {
    const char* name;
    CompressFn compress;
    CompressBlocksFn compress_blocks;
};

// Plain C++ on any target.
const CompressImpl& PortableImpl();
// The implementation that hashers use: the fastest that this CPU runs,
// chosen once at start-up, unless UsePath (gost_paths.h) forced another.
const CompressImpl& SelectedImpl();
#if defined(__x86_64__) && defined(__GNUC__)
#define NDS_HAVE_AVX_IMPL 1
#define NDS_HAVE_GFNI_IMPL 1
// x86-64 with AVX (GNU inline assembly). Only to be called when the CPU
// reports AVX.
const CompressImpl& AvxImpl();
// x86-64 with AVX-512 F, BW, VL, VBMI and GFNI. Only to be called when the
// CPU reports them and the OS saves the ZMM state.
const CompressImpl& GfniImpl();
// The linear transform L of that path alone, on 8 words in the standard's
// layout (same conditions).
void LinearGfni(std::uint64_t* words);
#else
#define NDS_HAVE_AVX_IMPL 0
#define NDS_HAVE_GFNI_IMPL 0
#endif

// 512-bit helpers shared by the implementations.
inline void Add512(std::uint64_t* acc, const std::uint64_t* v) {
#if defined(__SIZEOF_INT128__)
    // Lets the compiler emit one add-with-carry chain.
    __extension__ using Wide = unsigned __int128;
    Wide carry = 0;
    for (int i = 0; i < 8; ++i) {
        carry += static_cast<Wide>(acc[i]) + v[i];
        acc[i] = static_cast<std::uint64_t>(carry);
        carry >>= 64;
    }
#else
    std::uint64_t carry = 0;
    for (int i = 0; i < 8; ++i) {
        const std::uint64_t a = acc[i];
        const std::uint64_t s = a + v[i];
        const std::uint64_t r = s + carry;
        carry = static_cast<std::uint64_t>(s < a) | static_cast<std::uint64_t>(r < s);
        acc[i] = r;
    }
#endif
}

inline void AddSmall512(std::uint64_t* acc, std::uint64_t v) {
    std::uint64_t prev = acc[0];
    acc[0] = prev + v;
    for (int i = 1; i < 8 && acc[i - 1] < prev; ++i) {
        prev = acc[i];
        acc[i] = prev + 1;
    }
}

// Message bytes are little-endian words.
inline void LoadBlock(std::uint64_t* m, const std::uint8_t* p) {
    std::memcpy(m, p, 64);
    if constexpr (std::endian::native == std::endian::big) {
        for (int i = 0; i < 8; ++i) {
            m[i] = __builtin_bswap64(m[i]);
        }
    }
}

// CompressBlocksFn on top of a one-block compression function.
template <CompressFn Compress>
void CompressBlocksWith(std::uint64_t* h, std::uint64_t* n, std::uint64_t* sigma, const std::uint8_t* data,
                        std::size_t blocks) {
    std::uint64_t m[8];
    for (std::size_t b = 0; b < blocks; ++b, data += 64) {
        LoadBlock(m, data);
        Compress(h, n, m);
        AddSmall512(n, 512);
        Add512(sigma, m);
    }
}

}  // namespace nds::gost
