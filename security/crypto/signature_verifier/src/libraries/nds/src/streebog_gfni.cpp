// x86-64 compression function for CPUs with AVX-512 (F, BW, VL, VBMI) and
// GFNI. Only the functions marked NDS_GFNI_TARGET use those instructions, so
// this file is built with the library's ordinary flags and nothing that other
// files share (inline helpers, templates) is compiled for a CPU that may lack
// them; the dispatcher calls in only after CPUID and XGETBV said yes.
//
// The 512-bit state lives in one zmm register, transposed: byte j of qword
// lane i holds byte i of word j. In that layout:
//   * S is one lookup in the 256-byte substitution for every byte: two
//     `vpermi2b` over its halves (each ignores index bit 7), then a blend
//     chosen by bit 7;
//   * P is free: after S, lane k is already the input word k of L;
//   * L gives output byte i of word k as the XOR over j of M_ji(byte j of
//     word k), each M_ji an 8 x 8 bit matrix cut from the matrix A. Column j
//     (byte j of every lane) is broadcast to all lanes with `vpermb`, then
//     `vgf2p8affineqb` applies lane i's matrix M_ji, and the eight products
//     are XORed with the next round key, which lands the result transposed
//     again, ready for the next step.
// The key schedule and the state path are independent within a round, so
// their two LPS steps overlap.
#include "streebog_compress.h"

#if NDS_HAVE_GFNI_IMPL

#include <immintrin.h>

#include <array>
#include <cstring>

#include "streebog_tables.h"

#define NDS_GFNI_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,gfni")))

// GCC 12's intrinsics fill the unused merge operand of an unmasked vpermb
// with a self-initialised variable, which -Wuninitialized reports at every
// use.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace nds::gost {
namespace {

struct alignas(64) Bytes64 {
    std::uint8_t b[64];
};

struct alignas(64) Words8 {
    std::uint64_t q[8];
};

// vpermb index that transposes the 8 x 8 bytes: its own inverse.
constexpr Bytes64 MakeTransposeIndex() {
    Bytes64 v{};
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
            v.b[8 * i + j] = static_cast<std::uint8_t>(8 * j + i);
        }
    }
    return v;
}

// Index j puts byte j of every lane k into byte k of every lane.
constexpr std::array<Bytes64, 8> MakeColumnIndices() {
    std::array<Bytes64, 8> v{};
    for (int j = 0; j < 8; ++j) {
        for (int i = 0; i < 8; ++i) {
            for (int k = 0; k < 8; ++k) {
                v[static_cast<std::size_t>(j)].b[8 * i + k] = static_cast<std::uint8_t>(8 * k + j);
            }
        }
    }
    return v;
}

// The bit matrix that maps input byte j of a word to its share of output
// byte i under l, in the layout of vgf2p8affineqb: matrix byte 7 - r is the
// row of output bit r, a mask over the input bits. Input bit b of byte j is
// bit 8j + b of the word, which l maps to row 63 - 8j - b of A.
constexpr std::uint64_t ByteMatrix(int j, int i) {
    std::uint64_t m = 0;
    for (int r = 0; r < 8; ++r) {
        std::uint64_t row = 0;
        for (int b = 0; b < 8; ++b) {
            const std::uint64_t a = kA[static_cast<std::size_t>(63 - 8 * j - b)];
            row |= ((a >> (8 * i + r)) & 1U) << b;
        }
        m |= row << (8 * (7 - r));
    }
    return m;
}

// Vector j holds M_ji in lane i.
constexpr std::array<Words8, 8> MakeLinearMatrices() {
    std::array<Words8, 8> v{};
    for (int j = 0; j < 8; ++j) {
        for (int i = 0; i < 8; ++i) {
            v[static_cast<std::size_t>(j)].q[i] = ByteMatrix(j, i);
        }
    }
    return v;
}

constexpr Bytes64 Transposed(const Block& x) {
    Bytes64 v{};
    for (int i = 0; i < 8; ++i) {
        for (int j = 0; j < 8; ++j) {
            v.b[8 * i + j] = static_cast<std::uint8_t>(x[static_cast<std::size_t>(j)] >> (8 * i));
        }
    }
    return v;
}

constexpr std::array<Bytes64, 12> MakeTransposedC() {
    std::array<Bytes64, 12> v{};
    for (std::size_t r = 0; r < v.size(); ++r) {
        v[r] = Transposed(kC[r]);
    }
    return v;
}

constexpr Bytes64 MakePi(int quarter) {
    Bytes64 v{};
    for (int i = 0; i < 64; ++i) {
        v.b[i] = kPi[static_cast<std::size_t>(64 * quarter + i)];
    }
    return v;
}

alignas(64) constexpr Bytes64 kTransposeIndex = MakeTransposeIndex();
alignas(64) constexpr std::array<Bytes64, 8> kColumnIndex = MakeColumnIndices();
alignas(64) constexpr std::array<Words8, 8> kLinearMatrix = MakeLinearMatrices();
alignas(64) constexpr std::array<Bytes64, 12> kCt = MakeTransposedC();
alignas(64) constexpr std::array<Bytes64, 4> kPiQuarters = {MakePi(0), MakePi(1), MakePi(2), MakePi(3)};

// The constants of a run, loaded once into registers.
struct Constants {
    __m512i transpose;
    __m512i pi[4];
    __m512i column[8];
    __m512i matrix[8];
};

NDS_GFNI_TARGET inline __m512i Load(const void* p) { return _mm512_loadu_si512(p); }

NDS_GFNI_TARGET inline void LoadConstants(Constants& c) {
    c.transpose = Load(&kTransposeIndex);
    c.pi[0] = Load(&kPiQuarters[0]);
    c.pi[1] = Load(&kPiQuarters[1]);
    c.pi[2] = Load(&kPiQuarters[2]);
    c.pi[3] = Load(&kPiQuarters[3]);
#define NDS_GFNI_LOAD(j)                     \
    c.column[j] = Load(&kColumnIndex[j]);    \
    c.matrix[j] = Load(&kLinearMatrix[j]);
    NDS_GFNI_LOAD(0) NDS_GFNI_LOAD(1) NDS_GFNI_LOAD(2) NDS_GFNI_LOAD(3)
    NDS_GFNI_LOAD(4) NDS_GFNI_LOAD(5) NDS_GFNI_LOAD(6) NDS_GFNI_LOAD(7)
#undef NDS_GFNI_LOAD
}

NDS_GFNI_TARGET inline __m512i Transpose(const Constants& c, __m512i x) {
    return _mm512_permutexvar_epi8(c.transpose, x);
}

NDS_GFNI_TARGET inline __m512i Xor3(__m512i a, __m512i b, __m512i d) {
    return _mm512_ternarylogic_epi64(a, b, d, 0x96);
}

// S on all 64 bytes.
NDS_GFNI_TARGET inline __m512i Substitute(const Constants& c, __m512i x) {
    const __mmask64 high = _mm512_movepi8_mask(x);
    const __m512i low_half = _mm512_permutex2var_epi8(c.pi[0], x, c.pi[1]);
    const __m512i high_half = _mm512_permutex2var_epi8(c.pi[2], x, c.pi[3]);
    return _mm512_mask_blend_epi8(high, low_half, high_half);
}

// Share of column j of y in L(y): matrix M_ji on byte j of every word,
// gathered in lane i.
#define NDS_GFNI_TERM(j) \
    _mm512_gf2p8affine_epi64_epi8(_mm512_permutexvar_epi8(c.column[j], y), c.matrix[j], 0)

// L(y) ^ add, where lane k of y is word k of L's input in the standard's
// layout; the result is transposed.
NDS_GFNI_TARGET inline __m512i LinearXor(const Constants& c, __m512i y, __m512i add) {
    const __m512i a = Xor3(NDS_GFNI_TERM(0), NDS_GFNI_TERM(1), NDS_GFNI_TERM(2));
    const __m512i b = Xor3(NDS_GFNI_TERM(3), NDS_GFNI_TERM(4), NDS_GFNI_TERM(5));
    return Xor3(a, b, Xor3(NDS_GFNI_TERM(6), NDS_GFNI_TERM(7), add));
}

#undef NDS_GFNI_TERM

// LPS(x) ^ add on transposed values.
NDS_GFNI_TARGET inline __m512i LpsXor(const Constants& c, __m512i x, __m512i add) {
    return LinearXor(c, Substitute(c, x), add);
}

// g_N(h, m) on transposed h, n, m: h ^ E(LPS(h ^ n), m) ^ m.
NDS_GFNI_TARGET inline __m512i CompressTransposed(const Constants& c, __m512i h, __m512i n, __m512i m) {
    const __m512i zero = _mm512_setzero_si512();
    __m512i k = LpsXor(c, _mm512_xor_si512(h, n), zero);
    __m512i s = _mm512_xor_si512(m, k);
    for (std::size_t r = 0; r < kCt.size(); ++r) {
        k = LpsXor(c, _mm512_xor_si512(k, Load(&kCt[r])), zero);
        s = LpsXor(c, s, k);
    }
    return Xor3(h, s, m);
}

// sum += the block at p, mod 2^512.
inline void AddBlock(std::uint64_t* sum, const std::uint8_t* p) {
    std::uint64_t w[8];
    std::memcpy(w, p, sizeof(w));
    unsigned char carry = 0;
    carry = _addcarry_u64(carry, sum[0], w[0], reinterpret_cast<unsigned long long*>(&sum[0]));
    carry = _addcarry_u64(carry, sum[1], w[1], reinterpret_cast<unsigned long long*>(&sum[1]));
    carry = _addcarry_u64(carry, sum[2], w[2], reinterpret_cast<unsigned long long*>(&sum[2]));
    carry = _addcarry_u64(carry, sum[3], w[3], reinterpret_cast<unsigned long long*>(&sum[3]));
    carry = _addcarry_u64(carry, sum[4], w[4], reinterpret_cast<unsigned long long*>(&sum[4]));
    carry = _addcarry_u64(carry, sum[5], w[5], reinterpret_cast<unsigned long long*>(&sum[5]));
    carry = _addcarry_u64(carry, sum[6], w[6], reinterpret_cast<unsigned long long*>(&sum[6]));
    (void)_addcarry_u64(carry, sum[7], w[7], reinterpret_cast<unsigned long long*>(&sum[7]));
}

NDS_GFNI_TARGET void CompressGfni(std::uint64_t* h, const std::uint64_t* n, const std::uint64_t* m) {
    Constants c;
    LoadConstants(c);
    const __m512i out = CompressTransposed(c, Transpose(c, Load(h)), Transpose(c, Load(n)), Transpose(c, Load(m)));
    _mm512_storeu_si512(h, Transpose(c, out));
}

// h stays transposed in a register across the blocks. N is kept as words in
// a register; only its low word changes unless it carries, which the rare
// path does through memory.
NDS_GFNI_TARGET void CompressBlocksGfni(std::uint64_t* h, std::uint64_t* n, std::uint64_t* sigma,
                                        const std::uint8_t* data, std::size_t blocks) {
    Constants c;
    LoadConstants(c);
    __m512i ht = Transpose(c, Load(h));
    __m512i nv = Load(n);
    std::uint64_t sum[8];
    std::uint64_t n0 = n[0];
    for (int i = 0; i < 8; ++i) {
        sum[i] = sigma[i];
    }
    for (std::size_t b = 0; b < blocks; ++b, data += 64) {
        const __m512i mv = Load(data);
        ht = CompressTransposed(c, ht, Transpose(c, nv), Transpose(c, mv));
        n0 += 512U;
        if (n0 >= 512U) {
            nv = _mm512_mask_set1_epi64(nv, 1, static_cast<long long>(n0));
        } else {
            _mm512_storeu_si512(n, nv);
            AddSmall512(n, 512);
            nv = Load(n);
        }
        AddBlock(sum, data);
    }
    _mm512_storeu_si512(n, nv);
    _mm512_storeu_si512(h, Transpose(c, ht));
    for (int i = 0; i < 8; ++i) {
        sigma[i] = sum[i];
    }
}

NDS_GFNI_TARGET void LinearGfniImpl(std::uint64_t* words) {
    Constants c;
    LoadConstants(c);
    _mm512_storeu_si512(words, Transpose(c, LinearXor(c, Load(words), _mm512_setzero_si512())));
}

}  // namespace

void LinearGfni(std::uint64_t* words) { LinearGfniImpl(words); }

const CompressImpl& GfniImpl() {
    static constexpr CompressImpl impl{"gfni", CompressGfni, CompressBlocksGfni};
    return impl;
}

}  // namespace nds::gost

#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#endif  // NDS_HAVE_GFNI_IMPL
