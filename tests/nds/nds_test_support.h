// Helpers shared by the Nds library tests.
#pragma once

#include <gcrypt.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "nds/nds.h"

namespace nds::test {

using Bytes = std::vector<std::uint8_t>;

inline std::string Hex(const std::uint8_t* p, std::size_t n) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string s;
    for (std::size_t i = 0; i < n; ++i) {
        s += kDigits[p[i] >> 4];
        s += kDigits[p[i] & 15];
    }
    return s;
}

inline std::string Hex(const Bytes& b) { return Hex(b.data(), b.size()); }

inline Bytes FromHex(const std::string& hex) {
    Bytes out;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
        out.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    }
    return out;
}

inline Bytes RandomBytes(std::size_t n, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    Bytes b(n);
    for (auto& v : b) {
        v = static_cast<std::uint8_t>(rng());
    }
    return b;
}

// Reference digest from libgcrypt; bits is 256 or 512.
inline Bytes GcryptDigest(const std::uint8_t* data, std::size_t n, unsigned bits) {
    static const bool ready = gcry_check_version(nullptr) != nullptr;
    EXPECT_TRUE(ready);
    const int algo = bits == 256 ? GCRY_MD_STRIBOG256 : GCRY_MD_STRIBOG512;
    Bytes out(bits / 8);
    gcry_md_hash_buffer(algo, out.data(), data, n);
    return out;
}

inline Bytes GcryptDigest(const Bytes& data, unsigned bits) {
    return GcryptDigest(data.data(), data.size(), bits);
}

// Keeps one library reference for the lifetime of a test.
class LibraryTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(NdsInitializeLibrary(), 0); }
    void TearDown() override { EXPECT_EQ(NdsDeInitializeLibrary(), 0); }
};

// Feeds `data` to `h` in pieces of the given sizes, the rest in one piece.
inline void Feed(NdsHasher* h, const Bytes& data, const std::vector<std::size_t>& pieces) {
    std::size_t at = 0;
    for (std::size_t piece : pieces) {
        piece = std::min(piece, data.size() - at);
        EXPECT_EQ(NdsUpdateHasher(h, data.data() + at, piece), 0);
        at += piece;
    }
    EXPECT_EQ(NdsUpdateHasher(h, data.data() + at, data.size() - at), 0);
}

// Digest of `data` through a hasher of `algorithm`, fed as Feed() does.
inline Bytes NdsDigest(int algorithm, const Bytes& data, const std::vector<std::size_t>& pieces = {}) {
    NdsHasher* h = nullptr;
    EXPECT_EQ(NdsCreateHasher(algorithm, &h), 0);
    Feed(h, data, pieces);
    Bytes out(static_cast<std::size_t>(NdsGetDigestSize(algorithm)));
    EXPECT_EQ(NdsFinalizeHasher(h, out.data(), out.size()), 0);
    EXPECT_EQ(NdsDeleteHasher(h), 0);
    return out;
}

}  // namespace nds::test
