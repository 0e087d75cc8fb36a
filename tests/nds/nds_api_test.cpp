// Return codes and object states of the Nds entry points.
#include <array>
#include <cstring>
#include <functional>

#include "nds_test_support.h"

namespace nds::test {
namespace {

const Bytes kData = RandomBytes(300, 7);

struct CodeCase {
    const char* name;
    std::function<int()> call;
    int expected;
};

void RunCases(const std::vector<CodeCase>& cases) {
    for (const auto& c : cases) {
        EXPECT_EQ(c.call(), c.expected) << c.name;
    }
}

class NdsApiTest : public LibraryTest {
protected:
    void SetUp() override {
        LibraryTest::SetUp();
        ASSERT_EQ(NdsCreateHasher(NDS_HASH_GOST_2012_256, &live_), 0);
        ASSERT_EQ(NdsCreateHasher(NDS_HASH_GOST_2012_512, &done_), 0);
        ASSERT_EQ(NdsFinalizeHasher(done_, out_.data(), 64), 0);
    }
    void TearDown() override {
        EXPECT_EQ(NdsDeleteHasher(live_), 0);
        EXPECT_EQ(NdsDeleteHasher(done_), 0);
        LibraryTest::TearDown();
    }

    NdsHasher* live_ = nullptr;  // 256-bit, active
    NdsHasher* done_ = nullptr;  // 512-bit, finalised
    std::array<std::uint8_t, 64> out_{};
};

TEST_F(NdsApiTest, ReturnCodes_BadArgumentsAndStates) {
    NdsHasher* h = live_;
    NdsHasher* d = done_;
    NdsHasher* made = nullptr;
    std::uint8_t* out = out_.data();
    const std::uint8_t* in = kData.data();
    const char* text = nullptr;
    RunCases({
        {"create algorithm 3", [&] { return NdsCreateHasher(3, &made); }, -3},
        {"create algorithm 0", [&] { return NdsCreateHasher(0, &made); }, -3},
        {"create null out", [&] { return NdsCreateHasher(1, nullptr); }, -3},
        {"core create algorithm 3", [&] { return NdsCryptoPro_CreateHasher(3, &made); }, -3},
        {"core create null out", [&] { return NdsCryptoPro_CreateHasher(1, nullptr); }, -3},
        {"format-aware null out", [&] { return NdsCreateFormatAwareHasher(1, nullptr); }, -3},
        {"format-aware algorithm 3", [&] { return NdsCreateFormatAwareHasher(3, &made); }, -3},
        {"clone null", [&] { return NdsCloneHasher(nullptr, &made); }, -3},
        {"clone null out", [&] { return NdsCloneHasher(h, nullptr); }, -3},
        {"delete null", [&] { return NdsDeleteHasher(nullptr); }, -3},
        {"reset null", [&] { return NdsResetHasher(nullptr); }, -3},
        {"update null hasher", [&] { return NdsUpdateHasher(nullptr, in, 1); }, -3},
        {"update null data", [&] { return NdsUpdateHasher(h, nullptr, 1); }, -3},
        {"update null data, size 0", [&] { return NdsUpdateHasher(h, nullptr, 0); }, 0},
        {"update finalised", [&] { return NdsUpdateHasher(d, in, 1); }, -2},
        {"update finalised, null data", [&] { return NdsUpdateHasher(d, nullptr, 1); }, -3},
        {"finalize null hasher", [&] { return NdsFinalizeHasher(nullptr, out, 32); }, -3},
        {"finalize null out", [&] { return NdsFinalizeHasher(h, nullptr, 32); }, -3},
        {"finalize 64 on 256", [&] { return NdsFinalizeHasher(h, out, 64); }, -3},
        {"finalize 31 on 256", [&] { return NdsFinalizeHasher(h, out, 31); }, -3},
        {"finalize finalised", [&] { return NdsFinalizeHasher(d, out, 64); }, -2},
        {"finalize finalised, bad size", [&] { return NdsFinalizeHasher(d, out, 32); }, -3},
        {"additional null hasher",
         [&] { return NdsFinalizeHasherWithAdditionalContent(nullptr, in, 1, out, 32); }, -3},
        {"additional null extra",
         [&] { return NdsFinalizeHasherWithAdditionalContent(h, nullptr, 1, out, 32); }, -3},
        {"additional null out", [&] { return NdsFinalizeHasherWithAdditionalContent(h, in, 1, nullptr, 32); },
         -3},
        {"additional bad size", [&] { return NdsFinalizeHasherWithAdditionalContent(h, in, 1, out, 64); }, -3},
        {"additional finalised", [&] { return NdsFinalizeHasherWithAdditionalContent(d, in, 1, out, 64); },
         -2},
        {"additional finalised, bad size",
         [&] { return NdsFinalizeHasherWithAdditionalContent(d, in, 1, out, 32); }, -2},
        {"digest size 1", [&] { return NdsGetDigestSize(1); }, 32},
        {"digest size 2", [&] { return NdsGetDigestSize(2); }, 64},
        {"digest size 3", [&] { return NdsGetDigestSize(3); }, 0},
        {"digest size 0", [&] { return NdsGetDigestSize(0); }, 0},
        {"hasher digest size", [&] { return NdsGetHashDigestSize(h); }, 32},
        {"hasher digest size 512", [&] { return NdsGetHashDigestSize(d); }, 64},
        {"hasher digest size null", [&] { return NdsGetHashDigestSize(nullptr); }, 0},
        {"hasher algorithm", [&] { return NdsGetHashAlgorithmIdentifier(h); }, 1},
        {"hasher algorithm 512", [&] { return NdsGetHashAlgorithmIdentifier(d); }, 2},
        {"hasher algorithm null", [&] { return NdsGetHashAlgorithmIdentifier(nullptr); }, 0},
        {"version null", [&] { return NdsCryptoPro_GetGostLibraryVersionString(nullptr); }, -3},
        {"version", [&] { return NdsCryptoPro_GetGostLibraryVersionString(&text); }, 0},
    });
    EXPECT_EQ(made, nullptr);
    ASSERT_NE(text, nullptr);
    EXPECT_EQ(std::string(text).rfind("nds-gost ", 0), 0U) << text;
    // None of the refused calls touched the active hasher or the output.
    EXPECT_EQ(h->active, 1U);
    out_.fill(0xEE);
    ASSERT_EQ(NdsFinalizeHasher(h, out, 32), 0);
    EXPECT_EQ(Hex(out, 32), Hex(GcryptDigest(nullptr, 0, 256)));
    EXPECT_EQ(out_[32], 0xEE);
}

TEST(NdsLibraryTest, ReturnCodes_LibraryNotInitialised) {
    ASSERT_EQ(NdsIsInitializedLibrary(), 0);
    ASSERT_EQ(NdsInitializeLibrary(), 0);
    NdsHasher* h = nullptr;
    ASSERT_EQ(NdsCreateHasher(1, &h), 0);
    ASSERT_EQ(NdsDeInitializeLibrary(), 0);

    NdsHasher* made = nullptr;
    std::array<std::uint8_t, 32> out{};
    RunCases({
        {"create", [&] { return NdsCreateHasher(1, &made); }, -1},
        {"create bad algorithm", [&] { return NdsCreateHasher(3, nullptr); }, -1},
        {"format-aware", [&] { return NdsCreateFormatAwareHasher(1, &made); }, -1},
        {"clone", [&] { return NdsCloneHasher(h, &made); }, -1},
        {"reset", [&] { return NdsResetHasher(h); }, -1},
        {"update", [&] { return NdsUpdateHasher(h, kData.data(), 1); }, -1},
        {"finalize", [&] { return NdsFinalizeHasher(h, out.data(), 32); }, -1},
        {"finalize format-aware", [&] { return NdsFinalizeFormatAwareHasher(h, out.data(), 32, nullptr); }, -1},
        {"additional", [&] { return NdsFinalizeHasherWithAdditionalContent(h, nullptr, 0, out.data(), 32); },
         -1},
        {"delete", [&] { return NdsDeleteHasher(h); }, -1},
        {"digest size", [&] { return NdsGetHashDigestSize(h); }, 0},
        {"algorithm", [&] { return NdsGetHashAlgorithmIdentifier(h); }, 0},
        {"static digest size", [&] { return NdsGetDigestSize(1); }, 32},
        {"deinitialise at 0", [&] { return NdsDeInitializeLibrary(); }, -2},
        {"is initialised", [&] { return NdsIsInitializedLibrary(); }, 0},
    });
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(h->active, 1U);
    ASSERT_EQ(NdsInitializeLibrary(), 0);
    EXPECT_EQ(NdsDeleteHasher(h), 0);
    EXPECT_EQ(NdsDeInitializeLibrary(), 0);
}

TEST(NdsLibraryTest, InitializeLibrary_CountsUsers) {
    ASSERT_EQ(NdsIsInitializedLibrary(), 0);
    EXPECT_EQ(NdsInitializeLibrary(), 0);
    EXPECT_EQ(NdsInitializeLibrary(), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 1);
    EXPECT_EQ(NdsDeInitializeLibrary(), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 1);
    EXPECT_EQ(NdsDeInitializeLibrary(), 0);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);
    EXPECT_EQ(NdsDeInitializeLibrary(), -2);
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);
}

TEST_F(NdsApiTest, FinalizeHasher_OnlyOnceUntilReset) {
    ASSERT_EQ(NdsUpdateHasher(live_, kData.data(), kData.size()), 0);
    ASSERT_EQ(NdsFinalizeHasher(live_, out_.data(), 32), 0);
    EXPECT_EQ(live_->active, 0U);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(kData, 256)));
    EXPECT_EQ(NdsFinalizeHasher(live_, out_.data(), 32), -2);
    EXPECT_EQ(NdsUpdateHasher(live_, kData.data(), 1), -2);
    ASSERT_EQ(NdsResetHasher(live_), 0);
    EXPECT_EQ(live_->active, 1U);
    ASSERT_EQ(NdsUpdateHasher(live_, kData.data(), 5), 0);
    ASSERT_EQ(NdsFinalizeHasher(live_, out_.data(), 32), 0);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(kData.data(), 5, 256)));
}

TEST_F(NdsApiTest, CloneHasher_ContinuesIndependentlyAndKeepsState) {
    ASSERT_EQ(NdsUpdateHasher(live_, kData.data(), 100), 0);
    NdsHasher* copy = nullptr;
    ASSERT_EQ(NdsCloneHasher(live_, &copy), 0);
    EXPECT_EQ(copy->ops, &ndsCryptoProHasherVtbl_256);
    EXPECT_EQ(copy->active, 1U);
    ASSERT_EQ(NdsUpdateHasher(copy, kData.data() + 100, 200), 0);
    ASSERT_EQ(NdsFinalizeHasher(copy, out_.data(), 32), 0);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(kData, 256)));
    ASSERT_EQ(NdsFinalizeHasher(live_, out_.data(), 32), 0);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(kData.data(), 100, 256)));
    EXPECT_EQ(NdsDeleteHasher(copy), 0);

    // A clone of a finalised hasher is finalised too.
    NdsHasher* finished = nullptr;
    ASSERT_EQ(NdsCloneHasher(done_, &finished), 0);
    EXPECT_EQ(finished->active, 0U);
    EXPECT_EQ(NdsUpdateHasher(finished, kData.data(), 1), -2);
    EXPECT_EQ(NdsGetHashAlgorithmIdentifier(finished), 2);
    EXPECT_EQ(NdsDeleteHasher(finished), 0);
}

TEST_F(NdsApiTest, FinalizeWithAdditionalContent_AppendsContent) {
    ASSERT_EQ(NdsUpdateHasher(live_, kData.data(), 120), 0);
    ASSERT_EQ(NdsFinalizeHasherWithAdditionalContent(live_, kData.data() + 120, 180, out_.data(), 32), 0);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(kData, 256)));
    EXPECT_EQ(live_->active, 0U);
    ASSERT_EQ(NdsResetHasher(live_), 0);
    ASSERT_EQ(NdsFinalizeHasherWithAdditionalContent(live_, nullptr, 0, out_.data(), 32), 0);
    EXPECT_EQ(Hex(out_.data(), 32), Hex(GcryptDigest(nullptr, 0, 256)));
}

TEST_F(NdsApiTest, Slots_DamagedCoreStateGivesCoreError) {
    std::memset(live_->state, 0, live_->state_size);
    NdsHasher* made = nullptr;
    RunCases({
        {"update", [&] { return NdsUpdateHasher(live_, kData.data(), 3); }, -12},
        {"finalize", [&] { return NdsFinalizeHasher(live_, out_.data(), 32); }, -12},
        {"additional", [&] { return NdsFinalizeHasherWithAdditionalContent(live_, nullptr, 0, out_.data(), 32); },
         -12},
        {"clone", [&] { return NdsCloneHasher(live_, &made); }, -12},
        {"reset", [&] { return NdsResetHasher(live_); }, -12},
    });
    EXPECT_EQ(made, nullptr);
    EXPECT_EQ(live_->active, 1U);
}

}  // namespace
}  // namespace nds::test
