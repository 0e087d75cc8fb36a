// Helpers shared by the Nds library tests.
#pragma once

#include <gcrypt.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
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

// A PE32 or PE32+ image: headers that the format-aware hasher recognises,
// random bytes elsewhere.
struct PeImage {
    bool plus = false;
    std::uint32_t header_offset = 0x80;
    std::uint32_t directories = 16;
    std::uint32_t checksum = 0x1234ABCD;
    std::uint64_t certificate = 0x0000010000004000ULL;  // size << 32 | offset
    std::size_t total = 4096;
    std::uint64_t seed = 11;

    std::size_t OptionalOffset() const { return header_offset + 24; }
    std::size_t DirectoriesOffset() const { return OptionalOffset() + (plus ? 112 : 96); }
    std::size_t HeadersEnd() const { return DirectoriesOffset() + 8 * directories; }

    Bytes Build() const {
        Bytes b = RandomBytes(total, seed);
        auto put16 = [&](std::size_t at, std::uint16_t v) { std::memcpy(&b[at], &v, 2); };
        auto put32 = [&](std::size_t at, std::uint32_t v) { std::memcpy(&b[at], &v, 4); };
        b[0] = 'M';
        b[1] = 'Z';
        put16(24, 0x40);
        put32(60, header_offset);
        std::memcpy(&b[header_offset], "PE\0\0", 4);
        put16(header_offset + 4 + 16, static_cast<std::uint16_t>(HeadersEnd() - OptionalOffset()));
        const std::size_t o = OptionalOffset();
        put16(o, plus ? 0x20B : 0x10B);
        put32(o + 64, checksum);
        put32(o + (plus ? 108 : 92), directories);
        if (directories > 4) {
            std::memcpy(&b[DirectoriesOffset() + 32], &certificate, 8);
        }
        return b;
    }

    // The image as the format-aware hasher must see it.
    Bytes Blanked() const {
        Bytes b = Build();
        std::memset(&b[OptionalOffset() + 64], 0, 4);
        if (directories > 4) {
            std::memset(&b[DirectoriesOffset() + 32], 0, 8);
        }
        return b;
    }
};

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
