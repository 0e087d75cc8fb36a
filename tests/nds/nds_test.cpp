// The Nds hashing library: its statuses, the life of a hasher, the digests of
// GOST R 34.11-2012 on every compression path this CPU runs, the
// format-aware hasher's PE rules, GOST R 34.10-2001 checks, and gost-hash.
#include <gcrypt.h>
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <random>

#include "gost_paths.h"
#include "nds/gost_core.h"
#include "nds/nds.h"
#include "support/process.h"
#include "support/runtime_dir.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Pieces = std::vector<std::size_t>;

std::string Hex(const Bytes& bytes)
{
    std::string hex;
    for (const std::uint8_t b : bytes)
        hex += {"0123456789abcdef"[b >> 4], "0123456789abcdef"[b & 15]};
    return hex;
}

Bytes FromHex(const std::string& hex)
{
    Bytes bytes;
    for (std::size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(hex.substr(i, 2), nullptr, 16)));
    return bytes;
}

Bytes Random(std::size_t size, std::uint64_t seed)
{
    std::mt19937_64 random(seed);
    Bytes bytes(size);
    for (auto& b : bytes)
        b = static_cast<std::uint8_t>(random());
    return bytes;
}

// The reference: Streebog of `algorithm` 1 or 2 through libgcrypt.
std::string Reference(const Bytes& data, int algorithm = 1)
{
    EXPECT_NE(gcry_check_version(nullptr), nullptr);
    Bytes digest(NdsGetDigestSize(algorithm));
    const int reference = algorithm == 1 ? GCRY_MD_STRIBOG256 : GCRY_MD_STRIBOG512;
    gcry_md_hash_buffer(reference, digest.data(), data.data(), data.size());
    return Hex(digest);
}

// A new hasher, plain or format-aware.
NdsHasher* New(int algorithm, bool formatAware = false)
{
    NdsHasher* h = nullptr;
    EXPECT_EQ(formatAware ? NdsCreateFormatAwareHasher(algorithm, &h) : NdsCreateHasher(algorithm, &h), 0);
    return h;
}

// Feeds `data` to `h` in pieces of the given sizes, then the rest, and
// deletes it: the digest and, for a format-aware hasher, the format found.
std::pair<std::string, int> Hash(NdsHasher* h, const Bytes& data, const Pieces& pieces = {})
{
    std::size_t at = 0;
    for (std::size_t piece : pieces) {
        piece = std::min(piece, data.size() - at);
        EXPECT_EQ(NdsUpdateHasher(h, data.data() + at, piece), 0);
        at += piece;
    }
    EXPECT_EQ(NdsUpdateHasher(h, data.data() + at, data.size() - at), 0);
    Bytes digest(NdsGetHashDigestSize(h));
    int format = -1;
    const bool formatAware = h->ops == &ndsFormatAwareHasherVtbl;
    EXPECT_EQ(formatAware ? NdsFinalizeFormatAwareHasher(h, digest.data(), digest.size(), &format)
                          : NdsFinalizeHasher(h, digest.data(), digest.size()),
              0);
    EXPECT_EQ(NdsDeleteHasher(h), 0);
    return {Hex(digest), format};
}

// Each test holds one library reference.
class NdsTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(NdsInitializeLibrary(), 0); }
    void TearDown() override { EXPECT_EQ(NdsDeInitializeLibrary(), 0); }
};

// The statuses of the entry points, in the order of their checks, with `h`
// an active 256-bit hasher, `d` a finalised 512-bit one and `bad` one whose
// core state is damaged; rows marked `off` run with the library not
// initialised. No refused call changes `h` or writes to `out`.
TEST_F(NdsTest, EntryPoints_Statuses)
{
    NdsHasher *h = New(1), *d = New(2), *bad = New(1), *made = nullptr;
    Bytes out(64);
    std::uint8_t* o = out.data();
    ASSERT_EQ(NdsFinalizeHasher(d, o, 64), 0);
    out.assign(64, 0xEE);
    std::memset(bad->state, 0, bad->state_size);
    const std::uint8_t* in = out.data();
    const char* version = nullptr;
    int format = 7;
    const auto sign = [&](int set, std::size_t digest, std::size_t signature, std::size_t key) {
        return NdsCryptoPro_CheckSign(set, in, digest, in, signature, in, key);
    };
    constexpr bool off = false, on = true;
    const struct {
        bool library;
        std::function<int()> call;
        int status;
    } rows[] = {
        {off, [&] { return NdsCreateHasher(3, nullptr); }, -1},
        {on, [&] { return NdsCreateHasher(1, nullptr); }, -3},
        {on, [&] { return NdsCreateHasher(3, &made); }, -3},
        {on, [&] { return NdsCryptoPro_CreateHasher(3, &made); }, -3},
        {off, [&] { return NdsCreateFormatAwareHasher(1, &made); }, -1},
        {on, [&] { return NdsCreateFormatAwareHasher(1, nullptr); }, -3},
        {on, [&] { return NdsCreateFormatAwareHasher(3, &made); }, -3},
        {off, [&] { return NdsCloneHasher(h, &made); }, -1},
        {on, [&] { return NdsCloneHasher(nullptr, &made); }, -3},
        {on, [&] { return NdsCloneHasher(h, nullptr); }, -3},
        {on, [&] { return NdsCloneHasher(bad, &made); }, -12},
        {off, [&] { return NdsDeleteHasher(h); }, -1},
        {on, [&] { return NdsDeleteHasher(nullptr); }, -3},
        {off, [&] { return NdsResetHasher(h); }, -1},
        {on, [&] { return NdsResetHasher(nullptr); }, -3},
        {on, [&] { return NdsResetHasher(bad); }, -12},
        {off, [&] { return NdsUpdateHasher(h, in, 1); }, -1},
        {on, [&] { return NdsUpdateHasher(nullptr, in, 1); }, -3},
        {on, [&] { return NdsUpdateHasher(h, nullptr, 1); }, -3},
        {on, [&] { return NdsUpdateHasher(h, nullptr, 0); }, 0},
        {on, [&] { return NdsUpdateHasher(d, nullptr, 1); }, -3},
        {on, [&] { return NdsUpdateHasher(d, in, 1); }, -2},
        {on, [&] { return NdsUpdateHasher(bad, in, 1); }, -12},
        {off, [&] { return NdsFinalizeHasher(h, o, 32); }, -1},
        {on, [&] { return NdsFinalizeHasher(nullptr, o, 32); }, -3},
        {on, [&] { return NdsFinalizeHasher(h, nullptr, 32); }, -3},
        {on, [&] { return NdsFinalizeHasher(h, o, 64); }, -3},
        {on, [&] { return NdsFinalizeHasher(h, o, 31); }, -3},
        {on, [&] { return NdsFinalizeHasher(d, o, 32); }, -3},
        {on, [&] { return NdsFinalizeHasher(d, o, 64); }, -2},
        {on, [&] { return NdsFinalizeHasher(bad, o, 32); }, -12},
        {off, [&] { return NdsFinalizeHasherWithAdditionalContent(h, nullptr, 0, o, 32); }, -1},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(nullptr, in, 1, o, 32); }, -3},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(h, nullptr, 1, o, 32); }, -3},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(h, in, 1, nullptr, 32); }, -3},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(d, in, 1, o, 32); }, -2},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(h, in, 1, o, 64); }, -3},
        {on, [&] { return NdsFinalizeHasherWithAdditionalContent(bad, nullptr, 0, o, 32); }, -12},
        {off, [&] { return NdsFinalizeFormatAwareHasher(h, o, 32, &format); }, -1},
        {on, [&] { return NdsFinalizeFormatAwareHasher(h, o, 32, &format); }, -3},
        {off, [&] { return NdsGetHashDigestSize(h); }, 0},
        {on, [&] { return NdsGetHashDigestSize(nullptr); }, 0},
        {on, [&] { return NdsGetHashDigestSize(d); }, 64},
        {off, [&] { return NdsGetHashAlgorithmIdentifier(h); }, 0},
        {on, [&] { return NdsGetHashAlgorithmIdentifier(d); }, 2},
        {off, [&] { return NdsGetDigestSize(1); }, 32},
        {on, [&] { return NdsGetDigestSize(2); }, 64},
        {on, [&] { return NdsGetDigestSize(3); }, 0},
        {on, [&] { return NdsCryptoPro_GetGostLibraryVersionString(nullptr); }, -3},
        {on, [&] { return NdsCryptoPro_GetGostLibraryVersionString(&version); }, 0},
        {on, [&] { return sign(0, 32, 64, 64); }, -3},
        {on, [&] { return sign(8, 32, 64, 64); }, -3},
        {on, [&] { return sign(1, 0, 64, 64); }, -3},
        {on, [&] { return sign(1, 32, 63, 64); }, -3},
        {on, [&] { return sign(1, 32, 64, 63); }, -3},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        ASSERT_EQ(rows[i].library ? 0 : NdsDeInitializeLibrary(), 0);
        EXPECT_EQ(rows[i].call(), rows[i].status) << "row " << i;
        ASSERT_EQ(rows[i].library ? 0 : NdsInitializeLibrary(), 0);
    }
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(format, 7);
    EXPECT_EQ(std::string(version).rfind("nds-gost ", 0), 0u) << version;
    EXPECT_EQ(out, Bytes(64, 0xEE));
    EXPECT_EQ(bad->active, 1u);
    EXPECT_EQ(Hash(h, {}).first, Reference({})) << "h is still active and empty";
    EXPECT_EQ(NdsDeleteHasher(d) + NdsDeleteHasher(bad), 0);
}

// The use count: one release too many is refused and leaves it at zero.
TEST(NdsLibraryTest, InitializeLibrary_CountsUsers)
{
    EXPECT_EQ(NdsDeInitializeLibrary(), -2);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);
    EXPECT_EQ(NdsInitializeLibrary() + NdsInitializeLibrary() + NdsDeInitializeLibrary(), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 1);
    EXPECT_EQ(NdsDeInitializeLibrary(), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);
}

// A clone goes on from its original's state; extra content at finalisation
// counts as a last update; a reset hasher starts again.
TEST_F(NdsTest, Hasher_CloneExtraContentAndReset)
{
    const Bytes data = Random(300, 7), first(data.begin(), data.begin() + 100), rest(data.begin() + 100, data.end());
    NdsHasher *h = New(1), *clone = nullptr;
    Bytes digest(32);
    ASSERT_EQ(NdsUpdateHasher(h, first.data(), first.size()) + NdsCloneHasher(h, &clone), 0);
    EXPECT_EQ(Hash(clone, rest).first, Reference(data));
    ASSERT_EQ(NdsFinalizeHasherWithAdditionalContent(h, rest.data(), rest.size(), digest.data(), 32), 0);
    EXPECT_EQ(Hex(digest), Reference(data));
    ASSERT_EQ(NdsResetHasher(h), 0);
    EXPECT_EQ(Hash(h, first).first, Reference(first));
}

const nds::gost::Path& PathAt(std::size_t i) { return nds::gost::Paths().items[i]; }

class GostPathTest : public NdsTest, public ::testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override
    {
        NdsTest::SetUp();
        if (PathAt(GetParam()).missing != nullptr)
            GTEST_SKIP() << "not run here: " << PathAt(GetParam()).missing;
        ASSERT_TRUE(nds::gost::UsePath(PathAt(GetParam()).name));
    }
    void TearDown() override
    {
        nds::gost::UseDefaultPath();
        NdsTest::TearDown();
    }
};

// Every length to 1100 bytes, and 2 MiB in random pieces (of 0 to 149 bytes,
// or up to 300,000), both sizes, against libgcrypt's Streebog.
TEST_P(GostPathTest, Digest_MatchesLibgcrypt)
{
    ASSERT_STREQ(GostHash_Implementation(), PathAt(GetParam()).name);
    const Bytes data = Random(2 * 1024 * 1024 + 45, 21);
    for (const int algorithm : {1, 2}) {
        for (std::size_t n = 0; n <= 1100; ++n) {
            const Bytes prefix(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n));
            ASSERT_EQ(Hash(New(algorithm), prefix).first, Reference(prefix, algorithm)) << n;
        }
        std::mt19937_64 random(22);
        Pieces pieces;
        for (std::size_t total = 0; total < data.size(); total += pieces.back())
            pieces.push_back(random() % 3 == 0 ? random() % 300000 : random() % 150);
        EXPECT_EQ(Hash(New(algorithm), data, pieces).first, Reference(data, algorithm));
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, GostPathTest, ::testing::Range<std::size_t>(0, nds::gost::Paths().count),
                         [](const auto& path) { return std::string(PathAt(path.param).name); });

// A PE32 or PE32+ image that the format-aware hasher recognises: random
// bytes with the headers it parses.
struct PeImage {
    bool plus = false;
    std::uint32_t directories = 16;
    std::uint16_t relocations = 0x40;
    std::uint32_t header = 0x80;

    std::size_t Optional() const { return header + 24; }
    std::size_t Directories() const { return Optional() + (plus ? 112 : 96); }
    // The certificate-table entry, which only an image of more than four
    // directories has.
    std::size_t Certificate() const { return directories > 4 ? Directories() + 32 : 0; }
    Bytes Build() const
    {
        Bytes b = Random(4096, 11);
        const auto put = [&](std::size_t at, std::uint32_t value, std::size_t n) { std::memcpy(&b[at], &value, n); };
        put(0, 'M' | 'Z' << 8, 2);
        put(24, relocations, 2);
        put(60, header, 4);
        put(header, 'P' | 'E' << 8, 4);
        put(header + 20, static_cast<std::uint32_t>(Directories() + 8 * directories - Optional()), 2);
        put(Optional(), plus ? 0x20B : 0x10B, 2);
        put(Optional() + (plus ? 108 : 92), directories, 4);
        return b;
    }
    // As the hasher must see it: the checksum and the certificate entry blanked.
    Bytes Blanked(Bytes b) const
    {
        std::memset(&b[Optional() + 64], 0, 4);
        if (Certificate() != 0)
            std::memset(&b[Certificate()], 0, 8);
        return b;
    }
};

// A recognised image hashes blanked, whatever its checksum and certificate
// entry hold; a stream that fails any test of the parser hashes as it is.
// In one piece, in two split anywhere in the headers, and in small pieces;
// 256 and 512 bits.
TEST_F(NdsTest, FormatAware_PeRules)
{
    constexpr std::size_t pe = 0x80, o = pe + 24;
    const auto put = [](std::size_t at, std::uint32_t value) {
        return [=](Bytes& b) { std::memcpy(&b[at], &value, 4); };
    };
    const auto none = [](Bytes&) {};
    const struct {
        const char* name;
        PeImage image;
        std::function<void(Bytes&)> change;
        int format;
    } rows[] = {
        {"PE32", {}, none, NDS_FORMAT_PE32},
        {"PE32+", {.plus = true}, none, NDS_FORMAT_PE32_PLUS},
        {"four directories: the checksum only", {.directories = 4}, none, NDS_FORMAT_PE32},
        {"five directories", {.directories = 5}, none, NDS_FORMAT_PE32},
        {"relocations at 0", {.relocations = 0}, none, NDS_FORMAT_PE32},
        {"relocations at 1", {.relocations = 1}, none, NDS_FORMAT_NONE},
        {"relocations at 63", {.relocations = 63}, none, NDS_FORMAT_NONE},
        {"headers at 0x82", {.header = 0x82}, none, NDS_FORMAT_NONE},
        {"no MZ", {}, [](Bytes& b) { b[1] = 'X'; }, NDS_FORMAT_NONE},
        {"header offset 60", {}, put(60, 60), NDS_FORMAT_NONE},
        {"header offset with bit 31", {}, put(60, 0x80000080), NDS_FORMAT_NONE},
        {"header offset past the end", {}, put(60, 0x10000), NDS_FORMAT_NONE},
        {"signature PE\\0\\1", {}, put(pe, 'P' | 'E' << 8 | 1 << 24), NDS_FORMAT_NONE},
        {"no optional header", {}, [](Bytes& b) { b[pe + 20] = b[pe + 21] = 0; }, NDS_FORMAT_NONE},
        {"magic 0x107", {}, [](Bytes& b) { b[o] = 0x07; }, NDS_FORMAT_NONE},
        {"directory count too small", {}, put(o + 92, 15), NDS_FORMAT_NONE},
        {"stream ends in the headers", {}, [](Bytes& b) { b.resize(PeImage{}.Directories() + 127); }, NDS_FORMAT_NONE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Bytes image = row.image.Build();
        row.change(image);
        const Bytes expected = row.format != NDS_FORMAT_NONE ? row.image.Blanked(image) : image;
        const auto want = std::make_pair(Reference(expected), row.format);
        EXPECT_EQ(Hash(New(1, true), image, {61, 3, 100, 7, 1, 30, 1}), want);
        for (std::size_t split = 0; split <= PeImage{}.Directories() + 130; ++split)
            ASSERT_EQ(Hash(New(1, true), image, {split}), want) << split;
        if (row.format != NDS_FORMAT_NONE) {  // other values where it blanks
            std::memset(&image[row.image.Optional() + 64], 0x5A, 4);
            if (row.image.Certificate() != 0)
                std::memset(&image[row.image.Certificate()], 0xFF, 8);
            EXPECT_EQ(Hash(New(2, true), image), std::make_pair(Reference(expected, 2), row.format));
        }
    }
}

// The standard's example of GOST R 34.10-2001 on its test curve, and with
// one bit of the digest or of the signature changed.
TEST(GostSignTest, CheckSign_StandardExample)
{
    const Bytes digest = FromHex("2dfbc1b372d89a1188c09c52e0eec61fce52032ab1022e8e67ece6672b043ee5");
    const Bytes key = FromHex("7f2b49e270db6d90d8595bec458b50c58585ba1d4e9b788f6689dbd8e56fd80b"
                              "26f1b489d6701dd185c8413a977b3cbbaf64d1c593d26627dffb101a87ff77da");
    const Bytes signature = FromHex("01456c64ba4642a1653c235a98a60249bcd6d3f746b631df928014f6c5bf9c40"
                                    "41aa28d2f1ab148280cd9ed56feda41974053554a42767b83ad043fd39dc0493");
    const auto check = [&](int set, const Bytes& d, const Bytes& s) {
        return NdsCryptoPro_CheckSign(set, d.data(), d.size(), s.data(), s.size(), key.data(), key.size());
    };
    const auto flipped = [](Bytes b, std::size_t at) { return b.at(at) ^= 0x40, b; };
    EXPECT_EQ(check(1, digest, signature), 0);
    EXPECT_EQ(check(1, flipped(digest, 31), signature), -13);
    EXPECT_EQ(check(1, digest, flipped(signature, 5)), -13);
    EXPECT_NE(check(2, digest, signature), 0) << "another curve";
}

// gost-hash as a program: each command line with its exit status, its whole
// output (or its first line, for the help), and the start of its errors.
TEST(GostHashToolTest, CommandLines)
{
    const test_support::RuntimeDir dir;
    const auto write = [&](const char* name, const Bytes& bytes) {
        std::ofstream(dir.Path() / name, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        return (dir.Path() / name).string();
    };
    const Bytes a = Random(100000, 31);
    const std::string fa = write("a", a), fe = write("empty", {}), fpe = write("image.exe", PeImage{}.Build());
    const std::string missing = (dir.Path() / "missing").string(), version = "gost-hash " VERIFIER_VERSION "\n";
    struct Row {
        std::vector<std::string> args;
        int status;
        std::string out, err;
        bool whole = true;
    };
    std::vector<Row> rows = {
        {{fa, fe}, 0, Reference(a) + "  " + fa + "\n" + Reference({}) + "  " + fe + "\n", ""},
        {{"--512", fa}, 0, Reference(a, 2) + "  " + fa + "\n", ""},
        {{"--format-aware", fpe, fa}, 0,
         Reference(PeImage{}.Blanked(PeImage{}.Build())) + "  " + fpe + "  PE32\n" + Reference(a) + "  " + fa +
             "  none\n",
         ""},
        {{missing, fa, dir.Path()}, 1, Reference(a) + "  " + fa + "\n",
         "gost-hash: " + missing + ": No such file or directory\ngost-hash: " + dir.Path().string() +
             ": Is a directory\n"},
        {{"--help"}, 0, "Usage: gost-hash [--512] [--format-aware] [--impl PATH] [FILE]...\n", "", false},
        {{"--version"}, 0, version + "compression path: " + GostHash_Implementation() + "\n", ""},
        {{"--impl"}, 2, "", "gost-hash: '--impl' needs a PATH\nUsage: "},
        {{"--impl", "sse", fa}, 2, "", "gost-hash: no compression path 'sse' runs here\n\nCompression paths"},
    };
    for (std::size_t i = 0; i < nds::gost::Paths().count; ++i) {  // each path forced, or refused where it cannot run
        const std::string name = PathAt(i).name;
        const std::string refused = "gost-hash: no compression path '" + name + "' runs here\n";
        rows.push_back(PathAt(i).missing != nullptr
                           ? Row{{"--impl", name, fa}, 2, "", refused}
                           : Row{{"--impl", name, "--version"}, 0, version + "compression path: " + name + "\n", ""});
    }
    for (Row& row : rows) {
        row.args.insert(row.args.begin(), GOST_HASH);
        test_support::Process tool(row.args);
        std::string out;
        while (const auto line = tool.ReadLine())
            out += *line + "\n";
        EXPECT_EQ(tool.Wait(), row.status) << row.args[1];
        EXPECT_EQ(row.whole ? out : out.substr(0, row.out.size()), row.out);
        EXPECT_EQ(tool.Log().substr(0, row.err.size()), row.err);
    }
}

}  // namespace
