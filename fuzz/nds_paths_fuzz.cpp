// Fuzz target: every compression path of the GOST core that this CPU runs,
// on the same stream fed in the same arbitrary pieces. Input: an 8-byte seed
// (bit 0 picks the 512-bit digest, the rest seeds the piece sizes), then the
// stream. Every path must give the digest of the last one, the portable path.
#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "fuzz_support.h"
#include "gost_paths.h"
#include "nds/nds.h"

namespace {

std::vector<std::uint8_t> Digest(int algorithm, const std::vector<std::uint8_t>& stream, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    NdsHasher* h = nullptr;
    FUZZ_CHECK(NdsCreateHasher(algorithm, &h) == 0);
    for (std::size_t at = 0; at < stream.size();) {
        // Mostly pieces that end inside a block, sometimes many blocks at once.
        const std::uint64_t r = random();
        std::size_t piece = (r & 3U) == 0 ? static_cast<std::size_t>(r >> 8) % 4096 : static_cast<std::size_t>(r >> 8) % 130;
        piece = std::min(piece, stream.size() - at);
        FUZZ_CHECK(NdsUpdateHasher(h, stream.data() + at, piece) == 0);
        at += piece;
    }
    std::vector<std::uint8_t> out(static_cast<std::size_t>(NdsGetDigestSize(algorithm)));
    FUZZ_CHECK(NdsFinalizeHasher(h, out.data(), out.size()) == 0);
    FUZZ_CHECK(NdsDeleteHasher(h) == 0);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Reader input(data, size);
    const std::uint64_t seed = input.U64();
    const std::vector<std::uint8_t> stream = input.Rest();
    const int algorithm = (seed & 1U) != 0 ? NDS_HASH_GOST_2012_512 : NDS_HASH_GOST_2012_256;

    FUZZ_CHECK(NdsInitializeLibrary() == 0);
    const nds::gost::PathList& paths = nds::gost::Paths();
    FUZZ_CHECK(nds::gost::UsePath(paths.items[paths.count - 1].name));
    const std::vector<std::uint8_t> want = Digest(algorithm, stream, seed);
    for (std::size_t i = 0; i + 1 < paths.count; ++i) {
        if (paths.items[i].missing == nullptr) {
            FUZZ_CHECK(nds::gost::UsePath(paths.items[i].name));
            FUZZ_CHECK(Digest(algorithm, stream, seed) == want);
        }
    }
    nds::gost::UseDefaultPath();
    FUZZ_CHECK(NdsDeInitializeLibrary() == 0);
    return 0;
}
