// The format-aware hasher on PE32/PE32+ images built here.
#include <array>
#include <cstring>
#include <functional>

#include "nds_test_support.h"

namespace nds::test {
namespace {


struct Result {
    std::string digest;
    int format = -1;
};

// Hashes `data` with a format-aware hasher, in pieces of the given sizes.
Result FormatAwareDigest(const Bytes& data, const std::vector<std::size_t>& pieces = {},
                         int algorithm = NDS_HASH_GOST_2012_256) {
    NdsHasher* h = nullptr;
    EXPECT_EQ(NdsCreateFormatAwareHasher(algorithm, &h), 0);
    Feed(h, data, pieces);
    Bytes out(static_cast<std::size_t>(NdsGetDigestSize(algorithm)));
    Result r;
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(h, out.data(), out.size(), &r.format), 0);
    EXPECT_EQ(NdsDeleteHasher(h), 0);
    r.digest = Hex(out);
    return r;
}

class FormatAwareTest : public LibraryTest {};

TEST_F(FormatAwareTest, Digest_IgnoresChecksumAndCertificateEntry) {
    for (const bool plus : {false, true}) {
        SCOPED_TRACE(plus ? "PE32+" : "PE32");
        PeImage image;
        image.plus = plus;
        const Result first = FormatAwareDigest(image.Build());
        EXPECT_EQ(first.format, plus ? NDS_FORMAT_PE32_PLUS : NDS_FORMAT_PE32);
        EXPECT_EQ(first.digest, Hex(GcryptDigest(image.Blanked(), 256)));
        EXPECT_NE(first.digest, Hex(GcryptDigest(image.Build(), 256)));

        image.checksum = 0;
        image.certificate = 0xFFFFFFFFFFFFFFFFULL;
        const Result second = FormatAwareDigest(image.Build());
        EXPECT_EQ(second.format, first.format);
        EXPECT_EQ(second.digest, first.digest);

        // Any other header byte still counts.
        Bytes changed = image.Build();
        changed[image.OptionalOffset() + 68] ^= 1;
        EXPECT_NE(FormatAwareDigest(changed).digest, first.digest);

        const Result wide = FormatAwareDigest(image.Build(), {}, NDS_HASH_GOST_2012_512);
        EXPECT_EQ(wide.digest, Hex(GcryptDigest(image.Blanked(), 512)));
    }
}

TEST_F(FormatAwareTest, Digest_FewDirectoriesBlankOnlyTheChecksum) {
    PeImage image;
    image.directories = 4;
    const Result r = FormatAwareDigest(image.Build());
    EXPECT_EQ(r.format, NDS_FORMAT_PE32);
    EXPECT_EQ(r.digest, Hex(GcryptDigest(image.Blanked(), 256)));
    Bytes with_zero_dirs = PeImage{.directories = 0}.Build();
    EXPECT_EQ(FormatAwareDigest(with_zero_dirs).format, NDS_FORMAT_PE32);
}

TEST_F(FormatAwareTest, Digest_SameForEveryChunking) {
    for (const bool plus : {false, true}) {
        PeImage image;
        image.plus = plus;
        image.total = 700;
        const Bytes data = image.Build();
        const std::string want = Hex(GcryptDigest(image.Blanked(), 256));
        const int format = plus ? NDS_FORMAT_PE32_PLUS : NDS_FORMAT_PE32;
        // Two pieces split at every offset through the headers, then byte by byte.
        for (std::size_t split = 0; split <= image.HeadersEnd() + 2; ++split) {
            const Result r = FormatAwareDigest(data, {split});
            ASSERT_EQ(r.digest, want) << split;
            ASSERT_EQ(r.format, format) << split;
        }
        const Result bytewise = FormatAwareDigest(data, std::vector<std::size_t>(data.size(), 1));
        EXPECT_EQ(bytewise.digest, want);
        EXPECT_EQ(bytewise.format, format);
        const Result mixed = FormatAwareDigest(data, {3, 61, 1, 70, 5, 0, 97, 2, 64, 130, 1});
        EXPECT_EQ(mixed.digest, want);
    }
}

TEST_F(FormatAwareTest, Digest_UnrecognisedStreamsArePlain) {
    struct Mutation {
        const char* name;
        std::function<void(Bytes&, const PeImage&)> apply;
    };
    auto put32 = [](Bytes& b, std::size_t at, std::uint32_t v) { std::memcpy(&b[at], &v, 4); };
    const std::vector<Mutation> mutations = {
        {"no MZ", [](Bytes& b, const PeImage&) { b[1] = 'X'; }},
        {"relocation table at 1", [](Bytes& b, const PeImage&) { b[24] = 1; b[25] = 0; }},
        {"relocation table at 63", [](Bytes& b, const PeImage&) { b[24] = 63; b[25] = 0; }},
        {"header offset 62", [&](Bytes& b, const PeImage&) { put32(b, 60, 62); }},
        {"header offset 60", [&](Bytes& b, const PeImage&) { put32(b, 60, 60); }},
        {"header offset 0", [&](Bytes& b, const PeImage&) { put32(b, 60, 0); }},
        {"header offset 0x82", [&](Bytes& b, const PeImage&) { put32(b, 60, 0x82); }},
        {"header offset with bit 31", [&](Bytes& b, const PeImage&) { put32(b, 60, 0x80000080U); }},
        {"header offset past the end", [&](Bytes& b, const PeImage&) { put32(b, 60, 0x10000); }},
        {"signature PE\\0\\1", [](Bytes& b, const PeImage& i) { b[i.header_offset + 3] = 1; }},
        {"signature NE", [](Bytes& b, const PeImage& i) { b[i.header_offset] = 'N'; }},
        {"no optional header", [](Bytes& b, const PeImage& i) {
             b[i.header_offset + 20] = 0;
             b[i.header_offset + 21] = 0;
         }},
        {"magic 0x107", [](Bytes& b, const PeImage& i) { b[i.OptionalOffset()] = 0x07; }},
        {"directory count too small",
         [&](Bytes& b, const PeImage& i) { put32(b, i.OptionalOffset() + 92, i.directories - 1); }},
        {"directory count huge",
         [&](Bytes& b, const PeImage& i) { put32(b, i.OptionalOffset() + 92, 0x20000001U); }},
    };
    const PeImage image;
    for (const auto& m : mutations) {
        Bytes data = image.Build();
        m.apply(data, image);
        const std::string plain = Hex(GcryptDigest(data, 256));
        for (const auto& pieces : {std::vector<std::size_t>{}, std::vector<std::size_t>{61, 3, 100, 7}}) {
            const Result r = FormatAwareDigest(data, pieces);
            EXPECT_EQ(r.format, NDS_FORMAT_NONE) << m.name;
            EXPECT_EQ(r.digest, plain) << m.name;
        }
    }
}

TEST_F(FormatAwareTest, Digest_StreamEndingInsideHeadersIsPlain) {
    const Bytes full = PeImage{}.Build();
    for (const std::size_t n : {std::size_t{0}, std::size_t{2}, std::size_t{63}, std::size_t{64},
                                std::size_t{0x83}, std::size_t{0x9B}, std::size_t{0xDC},
                                PeImage{}.HeadersEnd() - 1}) {
        const Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
        const Result r = FormatAwareDigest(cut, {n / 2});
        EXPECT_EQ(r.format, NDS_FORMAT_NONE) << n;
        EXPECT_EQ(r.digest, Hex(GcryptDigest(cut, 256))) << n;
    }
    const Bytes exact(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(PeImage{}.HeadersEnd()));
    EXPECT_EQ(FormatAwareDigest(exact).format, NDS_FORMAT_PE32);
}

TEST_F(FormatAwareTest, CloneAndReset_CarryParserState) {
    const PeImage image;
    const Bytes data = image.Build();
    const std::string want = Hex(GcryptDigest(image.Blanked(), 256));
    NdsHasher* h = nullptr;
    ASSERT_EQ(NdsCreateFormatAwareHasher(1, &h), 0);
    EXPECT_EQ(h->ops, &ndsFormatAwareHasherVtbl);
    EXPECT_EQ(NdsGetHashDigestSize(h), 32);
    EXPECT_EQ(NdsGetHashAlgorithmIdentifier(h), 1);
    // Clone in the middle of the optional header, after the checksum range is known.
    const std::size_t cut = image.OptionalOffset() + 66;
    ASSERT_EQ(NdsUpdateHasher(h, data.data(), cut), 0);
    NdsHasher* copy = nullptr;
    ASSERT_EQ(NdsCloneHasher(h, &copy), 0);
    ASSERT_EQ(NdsUpdateHasher(copy, data.data() + cut, data.size() - cut), 0);
    ASSERT_EQ(NdsUpdateHasher(h, data.data() + cut, data.size() - cut), 0);
    std::array<std::uint8_t, 32> a{}, b{};
    int format_a = -1;
    ASSERT_EQ(NdsFinalizeFormatAwareHasher(h, a.data(), 32, &format_a), 0);
    ASSERT_EQ(NdsFinalizeHasher(copy, b.data(), 32), 0);
    EXPECT_EQ(Hex(a.data(), 32), want);
    EXPECT_EQ(Hex(b.data(), 32), want);
    EXPECT_EQ(format_a, NDS_FORMAT_PE32);

    EXPECT_EQ(NdsUpdateHasher(h, data.data(), 1), -2);
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(h, a.data(), 32, &format_a), -2);
    ASSERT_EQ(NdsResetHasher(h), 0);
    const Bytes plain = RandomBytes(500, 5);
    ASSERT_EQ(NdsUpdateHasher(h, plain.data(), plain.size()), 0);
    format_a = -1;
    ASSERT_EQ(NdsFinalizeFormatAwareHasher(h, a.data(), 32, &format_a), 0);
    EXPECT_EQ(Hex(a.data(), 32), Hex(GcryptDigest(plain, 256)));
    EXPECT_EQ(format_a, NDS_FORMAT_NONE);
    EXPECT_EQ(NdsDeleteHasher(copy), 0);
    EXPECT_EQ(NdsDeleteHasher(h), 0);
}

TEST_F(FormatAwareTest, ReturnCodes_FormatAwareEntryPoints) {
    NdsHasher* plain = nullptr;
    ASSERT_EQ(NdsCreateHasher(1, &plain), 0);
    NdsHasher* aware = nullptr;
    ASSERT_EQ(NdsCreateFormatAwareHasher(2, &aware), 0);
    NdsFormatAwareContentHandler* handler = nullptr;
    std::array<std::uint8_t, 64> out{};
    int format = 7;
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(plain, out.data(), 32, &format), -3);
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(aware, out.data(), 32, &format), -3);
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(nullptr, out.data(), 64, &format), -3);
    EXPECT_EQ(NdsFinalizeFormatAwareHasher(aware, nullptr, 64, &format), -3);
    EXPECT_EQ(format, 7);
    EXPECT_EQ(NdsFormatAwareContentHandler_Create(1, nullptr), -3);
    EXPECT_EQ(NdsFormatAwareContentHandler_Create(5, &handler), -3);
    EXPECT_EQ(handler, nullptr);
    EXPECT_EQ(NdsFormatAwareContentHandler_Update(nullptr, out.data(), 1), -3);
    EXPECT_EQ(NdsFormatAwareContentHandler_GetHashDigestSize(nullptr), 0);
    EXPECT_EQ(NdsGetHashDigestSize(aware), 64);
    EXPECT_EQ(NdsGetHashAlgorithmIdentifier(aware), 2);
    // Finalising through the plain entry point gives the same digest, without the format.
    ASSERT_EQ(NdsFinalizeHasher(aware, out.data(), 64), 0);
    EXPECT_EQ(Hex(out.data(), 64), Hex(GcryptDigest(nullptr, 0, 512)));
    EXPECT_EQ(NdsDeleteHasher(aware), 0);
    EXPECT_EQ(NdsDeleteHasher(plain), 0);
}

}  // namespace
}  // namespace nds::test
