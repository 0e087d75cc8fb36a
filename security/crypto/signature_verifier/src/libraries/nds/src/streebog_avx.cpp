// x86-64 compression function for CPUs with AVX.
//
// Each LPS step is 64 lookups into the 16 KiB of combined tables. Compilers
// spend three integer instructions per index on byte extraction and fold the
// XOR tree in ways that stall, so the step is written out here:
//   * an input word sits in %rax; its bytes come out two at a time through
//     %al/%ah, then one shift moves the next pair down (11 instructions for
//     8 indices);
//   * six of the eight output words accumulate in XMM registers through VEX
//     `vpxor mem, x, x`: the 16-byte load fetches the wanted entry in its low
//     half (the tables carry spare words at their end for the last entry), and
//     the XOR runs on the vector ports instead of the integer ALUs that the
//     extraction keeps busy; the other two accumulate in general registers so
//     that loads are spread over both kinds of load path;
//   * words 0..3 and 4..7 of the input feed separate accumulator sets, which
//     halves the XOR chain of each output word.
// The key schedule and the state path are independent chains. Their steps
// alternate, the key one round ahead of the state, so each step depends only
// on the step two places before it and the latency tail of one step overlaps
// the work of the next.
#include "streebog_compress.h"

#if NDS_HAVE_AVX_IMPL

#include "streebog_tables.h"

namespace nds::gost {
namespace {

// C1..C12 followed by a zero row: the key path runs one row past C12 and its
// result is never used. Spare words let a 16-byte load start at the last one.
struct alignas(64) PaddedConstants {
    Block rows[13];
    std::uint64_t spare[2];
};

constexpr PaddedConstants MakePaddedConstants() {
    PaddedConstants p{};
    for (std::size_t r = 0; r < kC.size(); ++r) {
        p.rows[r] = kC[r];
    }
    return p;
}

constexpr PaddedConstants kPaddedC = MakePaddedConstants();

// Scratch layout, in 64-bit words: [0, 8) input of the next state step,
// [8, 16) input of the next key step, [16, 24) the current round key.
constexpr int kScratchWords = 24;

// clang-format off
#define NDS_T(j, idx) "2048*" #j "(%[t],%%" idx ",8)"
#define NDS_V_FIRST(mem, a) "vmovdqu " mem ", %%xmm" a "\n\t"
#define NDS_V_NEXT(mem, a) "vpxor " mem ", %%xmm" a ", %%xmm" a "\n\t"
#define NDS_G_FIRST(mem, g) "movq " mem ", %%" g "\n\t"
#define NDS_G_NEXT(mem, g) "xorq " mem ", %%" g "\n\t"

// Lookups of input word `j` (loaded from `src`) for all eight output words:
// outputs 0..5 into %xmm a0..a5, outputs 6 and 7 into %r10 and %r11.
#define NDS_WORD(V, G, j, src, a0, a1, a2, a3, a4, a5)                           \
    "movq " src ", %%rax\n\t"                                                    \
    "movzbl %%al, %%r8d\n\t" "movzbl %%ah, %%esi\n\t" "shrq $16, %%rax\n\t"      \
    V(NDS_T(j, "r8"), a0) V(NDS_T(j, "rsi"), a1)                                 \
    "movzbl %%al, %%r9d\n\t" "movzbl %%ah, %%edi\n\t" "shrq $16, %%rax\n\t"      \
    V(NDS_T(j, "r9"), a2) V(NDS_T(j, "rdi"), a3)                                 \
    "movzbl %%al, %%r8d\n\t" "movzbl %%ah, %%esi\n\t" "shrq $16, %%rax\n\t"      \
    V(NDS_T(j, "r8"), a4) V(NDS_T(j, "rsi"), a5)                                 \
    "movzbl %%al, %%r9d\n\t" "movzbl %%ah, %%edi\n\t"                            \
    G(NDS_T(j, "r9"), "r10") G(NDS_T(j, "rdi"), "r11")
#define NDS_WORD_(...) NDS_WORD(__VA_ARGS__)
#define NDS_SET_A "0", "1", "2", "3", "4", "5"
#define NDS_SET_B "8", "9", "10", "11", "12", "13"

// LPS of the 8 words at byte offset `off` of the scratch area; the result is
// left in %xmm0..5 (low halves) and %r10, %r11.
#define NDS_LPS(off)                                                                        \
    NDS_WORD_(NDS_V_FIRST, NDS_G_FIRST, 0, off "+0(%[x])", NDS_SET_A)                       \
    NDS_WORD_(NDS_V_FIRST, NDS_G_NEXT, 4, off "+32(%[x])", NDS_SET_B)                       \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 1, off "+8(%[x])", NDS_SET_A)                         \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 5, off "+40(%[x])", NDS_SET_B)                        \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 2, off "+16(%[x])", NDS_SET_A)                        \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 6, off "+48(%[x])", NDS_SET_B)                        \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 3, off "+24(%[x])", NDS_SET_A)                        \
    NDS_WORD_(NDS_V_NEXT, NDS_G_NEXT, 7, off "+56(%[x])", NDS_SET_B)                        \
    "vpxor %%xmm8, %%xmm0, %%xmm0\n\t" "vpxor %%xmm9, %%xmm1, %%xmm1\n\t"                   \
    "vpxor %%xmm10, %%xmm2, %%xmm2\n\t" "vpxor %%xmm11, %%xmm3, %%xmm3\n\t"                 \
    "vpxor %%xmm12, %%xmm4, %%xmm4\n\t" "vpxor %%xmm13, %%xmm5, %%xmm5\n\t"

// After a state step: next state input = result ^ current key.
#define NDS_STATE_OUT_V(i)                                          \
    "vpxor 128+" #i "*8(%[x]), %%xmm" #i ", %%xmm" #i "\n\t"        \
    "vmovq %%xmm" #i ", " #i "*8(%[x])\n\t"
#define NDS_STATE_OUT_G(i, g) "xorq 128+" #i "*8(%[x]), %%" g "\n\t" "movq %%" g ", " #i "*8(%[x])\n\t"
#define NDS_STATE_OUT                                                                         \
    NDS_STATE_OUT_V(0) NDS_STATE_OUT_V(1) NDS_STATE_OUT_V(2) NDS_STATE_OUT_V(3)               \
    NDS_STATE_OUT_V(4) NDS_STATE_OUT_V(5) NDS_STATE_OUT_G(6, "r10") NDS_STATE_OUT_G(7, "r11")

// After a key step: current key = result; next key input = result ^ C (at %[c]).
#define NDS_KEY_OUT_V(i)                                            \
    "vmovq %%xmm" #i ", 128+" #i "*8(%[x])\n\t"                     \
    "vpxor " #i "*8(%[c]), %%xmm" #i ", %%xmm" #i "\n\t"            \
    "vmovq %%xmm" #i ", 64+" #i "*8(%[x])\n\t"
#define NDS_KEY_OUT_G(i, g)                                                      \
    "movq %%" g ", 128+" #i "*8(%[x])\n\t" "xorq " #i "*8(%[c]), %%" g "\n\t"    \
    "movq %%" g ", 64+" #i "*8(%[x])\n\t"
#define NDS_KEY_OUT                                                                   \
    NDS_KEY_OUT_V(0) NDS_KEY_OUT_V(1) NDS_KEY_OUT_V(2) NDS_KEY_OUT_V(3)               \
    NDS_KEY_OUT_V(4) NDS_KEY_OUT_V(5) NDS_KEY_OUT_G(6, "r10") NDS_KEY_OUT_G(7, "r11")

#define NDS_CLOBBERS                                                                          \
    "rax", "rsi", "rdi", "r8", "r9", "r10", "r11", "memory", "cc", "xmm0", "xmm1", "xmm2",    \
    "xmm3", "xmm4", "xmm5", "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13"
// clang-format on

void CompressAvx(std::uint64_t* h, const std::uint64_t* n, const std::uint64_t* m) {
    alignas(64) std::uint64_t x[kScratchWords];
    for (int i = 0; i < 8; ++i) {
        x[8 + i] = h[i] ^ n[i];
    }
    const std::uint64_t* t = &kLps.t[0][0];
    const std::uint64_t* c = kPaddedC.rows[0].data();
    // K1 = LPS(h ^ N); leaves K1 as the current key and K1 ^ C1 as key input.
    asm volatile(NDS_LPS("64") NDS_KEY_OUT : : [x] "r"(x), [t] "r"(t), [c] "r"(c) : NDS_CLOBBERS);
    for (int i = 0; i < 8; ++i) {
        x[i] = m[i] ^ x[16 + i];
    }
    // K2 first, then per round r = 1..11: state step r (uses K_r, mixes in
    // K_{r+1}) and key step r + 1 (gives K_{r+2}); last, state step 12, which
    // mixes in K13 and so leaves E(K, m) in x[0..7].
    c = kPaddedC.rows[1].data();
    const std::uint64_t* last = kPaddedC.rows[12].data();
    asm volatile(
        NDS_LPS("64") NDS_KEY_OUT
        "addq $64, %[c]\n\t"
        "1:\n\t"
        NDS_LPS("0") NDS_STATE_OUT
        NDS_LPS("64") NDS_KEY_OUT
        "addq $64, %[c]\n\t"
        "cmpq %[last], %[c]\n\t"
        "jbe 1b\n\t"
        NDS_LPS("0") NDS_STATE_OUT
        : [c] "+r"(c)
        : [x] "r"(x), [t] "r"(t), [last] "m"(last)
        : NDS_CLOBBERS);
    for (int i = 0; i < 8; ++i) {
        h[i] ^= x[i] ^ m[i];
    }
}


}  // namespace

const CompressImpl& AvxImpl() {
    static constexpr CompressImpl impl{"avx", CompressAvx, CompressBlocksWith<CompressAvx>};
    return impl;
}

}  // namespace nds::gost

#endif  // NDS_HAVE_AVX_IMPL
