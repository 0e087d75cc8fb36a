// Fuzz target: the format-aware hasher on arbitrary streams fed in arbitrary
// pieces. The first 8 bytes of an input seed the piece sizes (and pick the
// digest length); the rest is the stream. Checks, for every input:
//   * the format found equals the one a whole-buffer reading of the headers
//     gives;
//   * a recognised stream hashes like the plain stream with its excluded
//     ranges zeroed, any other stream like the plain stream;
//   * a clone taken at a random point finishes with the same digest.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "nds/nds.h"

namespace {

struct Expected {
    int format = NDS_FORMAT_NONE;
    std::vector<std::uint8_t> blanked;  // the stream as the hasher must see it
};

std::uint64_t Le(const std::uint8_t* p, int n) {
    std::uint64_t v = 0;
    for (int i = n - 1; i >= 0; --i) {
        v = (v << 8) | p[i];
    }
    return v;
}

// True if the stream holds `n` bytes at `offset`.
bool Has(std::size_t size, std::uint64_t offset, std::uint64_t n) { return offset <= size && size - offset >= n; }

// The PE header rules, applied to the whole stream at once.
Expected ReadHeaders(const std::uint8_t* d, std::size_t size) {
    Expected e;
    e.blanked.assign(d, d + size);
    if (!Has(size, 0, 64) || Le(d, 2) != 0x5A4D) {
        return e;
    }
    const std::uint64_t relocations = Le(d + 24, 2);
    const auto header = static_cast<std::int32_t>(Le(d + 60, 4));
    if ((relocations != 0 && relocations < 64) || (header >= 0 && header < 64) || header % 4 != 0) {
        return e;
    }
    const auto pe = static_cast<std::uint64_t>(static_cast<std::int64_t>(header));
    if (!Has(size, pe, 24) || std::memcmp(d + pe, "PE\0\0", 4) != 0) {
        return e;
    }
    const std::uint64_t optional_size = Le(d + pe + 20, 2);
    const std::uint64_t o = pe + 24;
    if (optional_size == 0 || !Has(size, o, 2)) {
        return e;
    }
    const std::uint64_t magic = Le(d + o, 2);
    if (magic != 0x10B && magic != 0x20B) {
        return e;
    }
    const bool plus = magic == 0x20B;
    const std::uint64_t count_at = o + (plus ? 108 : 92);
    const std::uint64_t directories = o + (plus ? 112 : 96);
    const std::uint64_t headers_end = o + optional_size;
    if (!Has(size, count_at, 4)) {
        return e;
    }
    const std::uint64_t count = Le(d + count_at, 4);
    if (directories + 8 * count != headers_end || !Has(size, 0, headers_end)) {
        return e;
    }
    std::memset(e.blanked.data() + o + 64, 0, 4);
    if (count > 4) {
        std::memset(e.blanked.data() + directories + 32, 0, 8);
    }
    e.format = plus ? NDS_FORMAT_PE32_PLUS : NDS_FORMAT_PE32;
    return e;
}

void Check(bool ok) {
    if (!ok) {
        std::abort();
    }
}

std::vector<std::uint8_t> PlainDigest(int algorithm, const std::vector<std::uint8_t>& data) {
    NdsHasher* h = nullptr;
    Check(NdsCreateHasher(algorithm, &h) == 0);
    Check(NdsUpdateHasher(h, data.data(), data.size()) == 0);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(NdsGetDigestSize(algorithm)));
    Check(NdsFinalizeHasher(h, out.data(), out.size()) == 0);
    Check(NdsDeleteHasher(h) == 0);
    return out;
}

std::uint64_t Next(std::uint64_t& s) {
    s += 0x9E3779B97F4A7C15ULL;
    std::uint64_t z = s;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 8) {
        return 0;
    }
    std::uint64_t seed = Le(data, 8);
    const std::uint8_t* stream = data + 8;
    const std::size_t length = size - 8;
    const int algorithm = (seed & 1U) != 0 ? NDS_HASH_GOST_2012_512 : NDS_HASH_GOST_2012_256;
    const auto digest_size = static_cast<std::size_t>(NdsGetDigestSize(algorithm));

    Check(NdsInitializeLibrary() == 0);
    NdsHasher* h = nullptr;
    Check(NdsCreateFormatAwareHasher(algorithm, &h) == 0);
    NdsHasher* clone = nullptr;
    const std::size_t clone_at = length == 0 ? 0 : Next(seed) % (length + 1);
    std::size_t at = 0;
    while (true) {
        if (clone == nullptr && at >= clone_at) {
            Check(NdsCloneHasher(h, &clone) == 0);
        }
        if (at == length) {
            break;
        }
        const std::uint64_t r = Next(seed);
        // Mostly pieces that split header fields, sometimes large ones or none.
        std::size_t piece = (r & 7U) == 0 ? static_cast<std::size_t>(r >> 8) % 4096 : static_cast<std::size_t>(r >> 8) % 9;
        piece = piece < length - at ? piece : length - at;
        Check(NdsUpdateHasher(h, stream + at, piece) == 0);
        if (clone != nullptr) {
            Check(NdsUpdateHasher(clone, stream + at, piece) == 0);
        }
        at += piece;
    }
    std::vector<std::uint8_t> digest(digest_size);
    std::vector<std::uint8_t> cloned(digest_size);
    int format = -1;
    int clone_format = -1;
    Check(NdsFinalizeFormatAwareHasher(h, digest.data(), digest_size, &format) == 0);
    Check(NdsFinalizeFormatAwareHasher(clone, cloned.data(), digest_size, &clone_format) == 0);
    Check(NdsUpdateHasher(h, data, 1) == NDS_ERROR_STATE);
    Check(NdsDeleteHasher(clone) == 0);
    Check(NdsDeleteHasher(h) == 0);

    const Expected want = ReadHeaders(stream, length);
    Check(format == want.format);
    Check(clone_format == format);
    Check(digest == PlainDigest(algorithm, want.blanked));
    Check(cloned == digest);
    Check(NdsDeInitializeLibrary() == 0);
    return 0;
}
