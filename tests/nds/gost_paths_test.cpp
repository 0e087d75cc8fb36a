// Every compression path of the GOST core that this CPU runs, forced in turn,
// against libgcrypt and the portable path; a path the CPU lacks is skipped
// with the reason.
#include <array>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <sstream>

#include "gost_paths.h"
#include "nds/gost_core.h"
#include "nds_test_support.h"
#include "streebog_compress.h"
#include "streebog_tables.h"

namespace nds::test {
namespace {

using Words = std::array<std::uint64_t, 8>;

const gost::Path& PathAt(std::size_t i) { return gost::Paths().items[i]; }

class GostPathTest : public LibraryTest, public ::testing::WithParamInterface<std::size_t> {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        if (path().missing != nullptr) {
            GTEST_SKIP() << "path " << path().name << " not run: " << path().missing;
        }
        ASSERT_TRUE(gost::UsePath(path().name));
        ASSERT_STREQ(GostHash_Implementation(), path().name);
    }
    void TearDown() override {
        gost::UseDefaultPath();
        LibraryTest::TearDown();
    }
    const gost::Path& path() const { return PathAt(GetParam()); }
};

TEST_P(GostPathTest, Digest_EveryLengthTo1100AndRandomChunkings_MatchLibgcrypt) {
    const Bytes data = RandomBytes(1100, 21);
    for (std::size_t n = 0; n <= data.size(); ++n) {
        const Bytes prefix(data.begin(), data.begin() + static_cast<std::ptrdiff_t>(n));
        ASSERT_EQ(Hex(NdsDigest(NDS_HASH_GOST_2012_256, prefix)), Hex(GcryptDigest(prefix, 256))) << n;
        ASSERT_EQ(Hex(NdsDigest(NDS_HASH_GOST_2012_512, prefix)), Hex(GcryptDigest(prefix, 512))) << n;
    }
    const Bytes large = RandomBytes(2 * 1024 * 1024 + 45, 22);
    std::mt19937_64 rng(23);
    for (const unsigned bits : {256U, 512U}) {
        std::vector<std::size_t> pieces;
        for (std::size_t total = 0; total < large.size(); total += pieces.back()) {
            pieces.push_back(rng() % 3 == 0 ? rng() % 300000 : rng() % 150);
        }
        const int algorithm = bits == 256 ? NDS_HASH_GOST_2012_256 : NDS_HASH_GOST_2012_512;
        EXPECT_EQ(Hex(NdsDigest(algorithm, large, pieces)), Hex(GcryptDigest(large, bits))) << bits;
    }
}

// Many blocks at once and one block, from counters whose next additions
// carry across words, as far as the top word or round the 512-bit value.
TEST_P(GostPathTest, Compress_CountersThatCarry_MatchPortablePath) {
    constexpr std::uint64_t kOnes = ~std::uint64_t{0};
    constexpr std::size_t kBlocks = 40;
    struct Case {
        const char* name;
        Words n;
        Words n_after;
    };
    const Case cases[] = {
        {"into the top word", {kOnes - 1023, kOnes, kOnes, kOnes, kOnes, kOnes, kOnes, 5},
         {kBlocks * 512 - 1024, 0, 0, 0, 0, 0, 0, 6}},
        {"round 2^512", {kOnes - 511, kOnes, kOnes, kOnes, kOnes, kOnes, kOnes, kOnes},
         {kBlocks * 512 - 512, 0, 0, 0, 0, 0, 0, 0}},
    };
    const Bytes data = RandomBytes(64 * kBlocks, 24);
    const gost::CompressImpl& ref = gost::PortableImpl();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Words h1;
        h1.fill(0x0101010101010101ULL);
        Words sigma1;
        sigma1.fill(kOnes);  // every message block makes sigma carry
        Words n1 = c.n, h2 = h1, n2 = c.n, sigma2 = sigma1;
        ref.compress_blocks(h1.data(), n1.data(), sigma1.data(), data.data(), kBlocks);
        path().impl->compress_blocks(h2.data(), n2.data(), sigma2.data(), data.data(), kBlocks);
        EXPECT_EQ(n1, c.n_after);
        EXPECT_EQ(h2, h1);
        EXPECT_EQ(n2, n1);
        EXPECT_EQ(sigma2, sigma1);
        Words m;
        std::memcpy(m.data(), data.data(), 64);
        ref.compress(h1.data(), c.n.data(), m.data());
        path().impl->compress(h2.data(), c.n.data(), m.data());
        EXPECT_EQ(h2, h1);
    }
}

INSTANTIATE_TEST_SUITE_P(Paths, GostPathTest, ::testing::Range<std::size_t>(0, gost::Paths().count),
                         [](const ::testing::TestParamInfo<std::size_t>& p) {
                             return std::string(PathAt(p.param).name);
                         });

// A path is run exactly when the CPU flags the kernel reports have all its
// features; the first path run is the one chosen at start-up; names not
// built in or not run are refused without a change.
TEST(GostPathChoiceTest, Paths_FollowCpuFlags_FastestChosen_OthersRefused) {
    std::ifstream cpuinfo("/proc/cpuinfo");
    std::string line;
    while (std::getline(cpuinfo, line) && line.rfind("flags", 0) != 0) {
    }
    std::istringstream words(line);
    const std::set<std::string> flags{std::istream_iterator<std::string>(words), {}};
    ASSERT_FALSE(flags.empty()) << "no flags line in /proc/cpuinfo";
    const std::map<std::string, std::vector<std::string>> needs = {
        {"gfni", {"avx512f", "avx512bw", "avx512vl", "avx512vbmi", "gfni"}}, {"avx", {"avx"}}, {"portable", {}}};
    const char* fastest = nullptr;
    for (std::size_t i = 0; i < gost::Paths().count; ++i) {
        const gost::Path& p = PathAt(i);
        SCOPED_TRACE(p.name);
        ASSERT_EQ(needs.count(p.name), 1U);
        bool runs = true;
        for (const auto& flag : needs.at(p.name)) {
            runs = runs && flags.count(flag) == 1;
        }
        EXPECT_EQ(p.missing == nullptr, runs) << (p.missing != nullptr ? p.missing : "");
        if (runs && fastest == nullptr) {
            fastest = p.name;
        }
        if (!runs) {
            EXPECT_FALSE(gost::UsePath(p.name));
        }
    }
    EXPECT_STREQ(PathAt(gost::Paths().count - 1).name, "portable");
    EXPECT_STREQ(GostHash_Implementation(), fastest);
    EXPECT_FALSE(gost::UsePath("sse"));
    EXPECT_STREQ(GostHash_Implementation(), fastest);
}

// The vector path's L against the standard's definition: bit 63 - i of a
// word adds row i of A. Every single-bit input, then random words.
TEST(GostGfniLinearTest, Linear_MatchesStandardDefinition) {
#if NDS_HAVE_GFNI_IMPL
    const gost::Path& gfni = PathAt(0);
    ASSERT_STREQ(gfni.name, "gfni");
    if (gfni.missing != nullptr) {
        GTEST_SKIP() << "path gfni not run: " << gfni.missing;
    }
    auto l = [](std::uint64_t w) {
        std::uint64_t r = 0;
        for (std::size_t i = 0; i < 64; ++i) {
            r ^= ((w >> (63 - i)) & 1U) != 0 ? gost::kA[i] : 0;
        }
        return r;
    };
    std::vector<Words> inputs;
    for (std::size_t bit = 0; bit < 512; ++bit) {
        Words w{};
        w[bit / 64] = std::uint64_t{1} << (bit % 64);
        inputs.push_back(w);
    }
    std::mt19937_64 rng(25);
    for (int i = 0; i < 64; ++i) {
        Words w;
        for (auto& v : w) {
            v = rng();
        }
        inputs.push_back(w);
    }
    for (const Words& in : inputs) {
        Words want;
        for (std::size_t k = 0; k < 8; ++k) {
            want[k] = l(in[k]);
        }
        Words got = in;
        gost::LinearGfni(got.data());
        ASSERT_EQ(got, want) << std::hex << in[0] << " " << in[7];
    }
#else
    GTEST_SKIP() << "path gfni not built for this target";
#endif
}

}  // namespace
}  // namespace nds::test
