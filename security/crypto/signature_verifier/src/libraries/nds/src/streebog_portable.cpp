// Portable compression function: the tables carry S, P and L together, so one
// LPS step is 64 table lookups. The key schedule step and the state step of
// each round are computed in the same loop, giving 16 independent lookup
// chains for the CPU to overlap.
#include "streebog_compress.h"
#include "streebog_tables.h"

namespace nds::gost {
namespace {

constexpr std::uint64_t Column(const std::uint64_t* x, int i) {
    const unsigned shift = static_cast<unsigned>(8 * i);
    const auto& t = kLps.t;
    return t[0][(x[0] >> shift) & 0xFF] ^ t[1][(x[1] >> shift) & 0xFF] ^
           t[2][(x[2] >> shift) & 0xFF] ^ t[3][(x[3] >> shift) & 0xFF] ^
           t[4][(x[4] >> shift) & 0xFF] ^ t[5][(x[5] >> shift) & 0xFF] ^
           t[6][(x[6] >> shift) & 0xFF] ^ t[7][(x[7] >> shift) & 0xFF];
}

void Lps(std::uint64_t* out, const std::uint64_t* x) {
    for (int i = 0; i < 8; ++i) {
        out[i] = Column(x, i);
    }
}

void CompressPortable(std::uint64_t* h, const std::uint64_t* n, const std::uint64_t* m) {
    std::uint64_t k[8];
    std::uint64_t s[8];
    std::uint64_t xs[8];
    std::uint64_t xk[8];
    for (int i = 0; i < 8; ++i) {
        xk[i] = h[i] ^ n[i];
    }
    Lps(k, xk);
    for (int i = 0; i < 8; ++i) {
        s[i] = m[i];
    }
    for (const Block& c : kC) {
        for (int i = 0; i < 8; ++i) {
            xs[i] = s[i] ^ k[i];
            xk[i] = k[i] ^ c[static_cast<std::size_t>(i)];
        }
        for (int i = 0; i < 8; ++i) {
            s[i] = Column(xs, i);
            k[i] = Column(xk, i);
        }
    }
    for (int i = 0; i < 8; ++i) {
        h[i] ^= s[i] ^ k[i] ^ m[i];
    }
}


}  // namespace

const CompressImpl& PortableImpl() {
    static constexpr CompressImpl impl{"portable", CompressPortable, CompressBlocksWith<CompressPortable>};
    return impl;
}

}  // namespace nds::gost
