// x86-64 compression function for CPUs with AVX.
//
// Each LPS step is 64 lookups into the 16 KiB of combined tables. Compilers
// spend three integer instructions per index on byte extraction and fold the
// XOR tree in ways that stall, so the whole compression is written out here:
//   * an input word sits in %rax; its bytes come out two at a time through
//     %al/%ah, then one shift moves the next pair down (11 instructions for 8
//     indices);
//   * output words 0..5 accumulate in %xmm0..5 through VEX `vpxor mem, x, x`:
//     the 16-byte load fetches the wanted entry in its low half (the tables
//     carry spare words after their end for the last entry) and the XOR runs
//     on the vector ports, off the integer ALUs that the extraction keeps
//     busy; words 6 and 7 accumulate in %r10/%r11, which spreads the loads over
//     the integer load path as well;
//   * nothing goes through memory between steps: the round key lives packed in
//     %xmm8..11 and the next state-step input packed in %xmm12..15;
//   * the key schedule and the state path are independent chains; their steps
//     alternate with the key one round ahead, so each step depends only on the
//     step two places before it (plus the key, at its very end) and the latency
//     tail of one step overlaps the work of the next.
#include "streebog_compress.h"

#if NDS_HAVE_AVX_IMPL

#include "streebog_tables.h"

namespace nds::gost {
namespace {

// clang-format off
#define NDS_T(j, idx) "2048*" #j "(%[t],%%" idx ",8)"
#define NDS_V_FIRST(mem, a) "vmovdqu " mem ", %%xmm" a "\n\t"
#define NDS_V_NEXT(mem, a) "vpxor " mem ", %%xmm" a ", %%xmm" a "\n\t"
#define NDS_G_FIRST(mem, g) "movq " mem ", %%" g "\n\t"
#define NDS_G_NEXT(mem, g) "xorq " mem ", %%" g "\n\t"

// Lookups in table j for the input word in %rax, one per output word.
#define NDS_LOOKUPS(V, G, j)                                                                \
    "movzbl %%al, %%r8d\n\t" "movzbl %%ah, %%esi\n\t" "shrq $16, %%rax\n\t"                 \
    V(NDS_T(j, "r8"), "0") V(NDS_T(j, "rsi"), "1")                                          \
    "movzbl %%al, %%r9d\n\t" "movzbl %%ah, %%edi\n\t" "shrq $16, %%rax\n\t"                 \
    V(NDS_T(j, "r9"), "2") V(NDS_T(j, "rdi"), "3")                                          \
    "movzbl %%al, %%r8d\n\t" "movzbl %%ah, %%esi\n\t" "shrq $16, %%rax\n\t"                 \
    V(NDS_T(j, "r8"), "4") V(NDS_T(j, "rsi"), "5")                                          \
    "movzbl %%al, %%r9d\n\t" "movzbl %%ah, %%edi\n\t"                                       \
    G(NDS_T(j, "r9"), "r10") G(NDS_T(j, "rdi"), "r11")
#define NDS_FIRST(j) NDS_LOOKUPS(NDS_V_FIRST, NDS_G_FIRST, j)
#define NDS_NEXT(j) NDS_LOOKUPS(NDS_V_NEXT, NDS_G_NEXT, j)

// Input words from a packed register: low or high half.
#define NDS_LOW(reg) "vmovq %%xmm" reg ", %%rax\n\t"
#define NDS_HIGH(reg) "vpextrq $1, %%xmm" reg ", %%rax\n\t"
// Key-step input word: key word ^ C word (at %[c]).
#define NDS_WITH_C(load, offset) load "xorq " #offset "(%[c]), %%rax\n\t"

// The 8 result words, packed in pairs into the given registers.
#define NDS_PACK(d0, d1, d2, d3)                                                            \
    "vmovq %%r10, %%xmm6\n\t" "vmovq %%r11, %%xmm7\n\t"                                     \
    "vpunpcklqdq %%xmm1, %%xmm0, %%xmm" d0 "\n\t" "vpunpcklqdq %%xmm3, %%xmm2, %%xmm" d1 "\n\t" \
    "vpunpcklqdq %%xmm5, %%xmm4, %%xmm" d2 "\n\t" "vpunpcklqdq %%xmm7, %%xmm6, %%xmm" d3 "\n\t"

// State step: s = LPS(input); next input = s ^ current key.
#define NDS_STATE_STEP                                                                      \
    NDS_LOW("12") NDS_FIRST(0) NDS_HIGH("12") NDS_NEXT(1)                                   \
    NDS_LOW("13") NDS_NEXT(2) NDS_HIGH("13") NDS_NEXT(3)                                    \
    NDS_LOW("14") NDS_NEXT(4) NDS_HIGH("14") NDS_NEXT(5)                                    \
    NDS_LOW("15") NDS_NEXT(6) NDS_HIGH("15") NDS_NEXT(7)                                    \
    NDS_PACK("12", "13", "14", "15")                                                        \
    "vpxor %%xmm8, %%xmm12, %%xmm12\n\t" "vpxor %%xmm9, %%xmm13, %%xmm13\n\t"               \
    "vpxor %%xmm10, %%xmm14, %%xmm14\n\t" "vpxor %%xmm11, %%xmm15, %%xmm15\n\t"

// Key step: key = LPS(key ^ C).
#define NDS_KEY_STEP                                                                        \
    NDS_WITH_C(NDS_LOW("8"), 0) NDS_FIRST(0) NDS_WITH_C(NDS_HIGH("8"), 8) NDS_NEXT(1)       \
    NDS_WITH_C(NDS_LOW("9"), 16) NDS_NEXT(2) NDS_WITH_C(NDS_HIGH("9"), 24) NDS_NEXT(3)      \
    NDS_WITH_C(NDS_LOW("10"), 32) NDS_NEXT(4) NDS_WITH_C(NDS_HIGH("10"), 40) NDS_NEXT(5)    \
    NDS_WITH_C(NDS_LOW("11"), 48) NDS_NEXT(6) NDS_WITH_C(NDS_HIGH("11"), 56) NDS_NEXT(7)    \
    NDS_PACK("8", "9", "10", "11")

#define NDS_MEMORY_WORD(j) "movq " #j "*8(%[x]), %%rax\n\t"
// clang-format on

void CompressAvx(std::uint64_t* h, const std::uint64_t* n, const std::uint64_t* m) {
    alignas(16) std::uint64_t x[8];
    for (int i = 0; i < 8; ++i) {
        x[i] = h[i] ^ n[i];
    }
    const std::uint64_t* t = &kLps.t[0][0];
    const std::uint64_t* c = kC[0].data();
    const std::uint64_t* last = kC[11].data();
    // K1 = LPS(h ^ N); first state input m ^ K1; K2; then per round r = 1..11
    // the state step r (mixing in K_{r+1}) and the key step giving K_{r+2};
    // last the state step 12, which mixes in K13 and so leaves E(K1, m).
    asm volatile(
        NDS_MEMORY_WORD(0) NDS_FIRST(0) NDS_MEMORY_WORD(1) NDS_NEXT(1)
        NDS_MEMORY_WORD(2) NDS_NEXT(2) NDS_MEMORY_WORD(3) NDS_NEXT(3)
        NDS_MEMORY_WORD(4) NDS_NEXT(4) NDS_MEMORY_WORD(5) NDS_NEXT(5)
        NDS_MEMORY_WORD(6) NDS_NEXT(6) NDS_MEMORY_WORD(7) NDS_NEXT(7)
        NDS_PACK("8", "9", "10", "11")
        "vmovdqu 0(%[m]), %%xmm12\n\t" "vpxor %%xmm8, %%xmm12, %%xmm12\n\t"
        "vmovdqu 16(%[m]), %%xmm13\n\t" "vpxor %%xmm9, %%xmm13, %%xmm13\n\t"
        "vmovdqu 32(%[m]), %%xmm14\n\t" "vpxor %%xmm10, %%xmm14, %%xmm14\n\t"
        "vmovdqu 48(%[m]), %%xmm15\n\t" "vpxor %%xmm11, %%xmm15, %%xmm15\n\t"
        NDS_KEY_STEP
        "addq $64, %[c]\n\t"
        "1:\n\t"
        NDS_STATE_STEP
        NDS_KEY_STEP
        "addq $64, %[c]\n\t"
        "cmpq %[last], %[c]\n\t"
        "jbe 1b\n\t"
        NDS_STATE_STEP
        "vmovdqu %%xmm12, 0(%[x])\n\t" "vmovdqu %%xmm13, 16(%[x])\n\t"
        "vmovdqu %%xmm14, 32(%[x])\n\t" "vmovdqu %%xmm15, 48(%[x])\n\t"
        : [c] "+r"(c)
        : [x] "r"(x), [t] "r"(t), [m] "r"(m), [last] "m"(last)
        : "rax", "rsi", "rdi", "r8", "r9", "r10", "r11", "memory", "cc", "xmm0", "xmm1", "xmm2", "xmm3",
          "xmm4", "xmm5", "xmm6", "xmm7", "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14",
          "xmm15");
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
