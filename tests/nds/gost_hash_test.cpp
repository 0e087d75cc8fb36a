// GOST R 34.11-2012 digests of the core against the standard's examples, and
// its hash objects. Each compression path against libgcrypt: gost_paths_test.cpp.
#include <array>

#include "nds/gost_core.h"
#include "nds_test_support.h"

namespace nds::test {
namespace {

// The standard's examples. The standard prints messages and digests as
// numbers, most significant byte first; hashers take and give bytes least
// significant first, so the printed digests are reversed here.
const std::string kM1 = "012345678901234567890123456789012345678901234567890123456789012";
const Bytes kM2 = FromHex(
    "d1e520e2e5f2f0e82c20d1f2f0e8e1eee6e820e2edf3f6e82c20e2e5fef2fa20f120eceef0ff20f1f2f0e5ebe0ece8"
    "20ede020f5f0e0e1f0fbff20efebfaeafb20c8e3eef0e5e2fb");

struct Vector {
    const char* name;
    Bytes message;
    int algorithm;
    std::string printed;  // as the standard prints it

    std::string Digest() const {
        Bytes b = FromHex(printed);
        return Hex(Bytes(b.rbegin(), b.rend()));
    }
};

std::vector<Vector> StandardVectors() {
    const Bytes m1(kM1.begin(), kM1.end());
    return {
        {"M1/512", m1, NDS_HASH_GOST_2012_512,
         "486f64c1917879417fef082b3381a4e211c324f074654c38823a7b76f830ad00"
         "fa1fbae42b1285c0352f227524bc9ab16254288dd6863dccd5b9f54a1ad0541b"},
        {"M1/256", m1, NDS_HASH_GOST_2012_256,
         "00557be5e584fd52a449b16b0251d05d27f94ab76cbaa6da890b59d8ef1e159d"},
        {"M2/512", kM2, NDS_HASH_GOST_2012_512,
         "28fbc9bada033b1460642bdcddb90c3fb3e56c497ccd0f62b8a2ad4935e85f03"
         "7613966de4ee00531ae60f3b5a47f8dae06915d5f2f194996fcabf2622e6881e"},
        {"M2/256", kM2, NDS_HASH_GOST_2012_256,
         "508f7e553c06501d749a66fc28c6cac0b005746d97537fa85d9e40904efed29d"},
    };
}

class GostHashTest : public LibraryTest {};

TEST_F(GostHashTest, Digest_StandardExamples) {
    ASSERT_EQ(kM1.size(), 63U);
    ASSERT_EQ(kM2.size(), 72U);
    for (const auto& v : StandardVectors()) {
        SCOPED_TRACE(v.name);
        const unsigned bits = v.algorithm == NDS_HASH_GOST_2012_256 ? 256 : 512;
        EXPECT_EQ(Hex(NdsDigest(v.algorithm, v.message)), v.Digest());
        EXPECT_EQ(Hex(GcryptDigest(v.message, bits)), v.Digest());
        // Byte by byte, so every buffering path is taken.
        EXPECT_EQ(Hex(NdsDigest(v.algorithm, v.message, std::vector<std::size_t>(v.message.size(), 1))),
                  v.Digest());
    }
}

TEST(GostCoreTest, HashObject_LifecycleAndArguments) {
    size_t size = 0;
    EXPECT_EQ(GostHash_StateSize(384, &size), GOST_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(GostHash_StateSize(256, nullptr), GOST_STATUS_BAD_ARGUMENT);
    ASSERT_EQ(GostHash_StateSize(256, &size), GOST_STATUS_SIZE_ONLY);
    std::vector<std::uint64_t> a(size / 8 + 1), b(size / 8 + 1);
    EXPECT_EQ(GostHash_Init(a.data(), size - 1, 256, nullptr), GOST_STATUS_BAD_ARGUMENT);
    EXPECT_EQ(GostHash_Update(a.data(), "x", 1), GOST_STATUS_BAD_OBJECT);
    uintptr_t extra = 0;
    ASSERT_EQ(GostHash_Init(a.data(), size, 256, &extra), GOST_STATUS_OK);
    EXPECT_EQ(extra, 256U);
    EXPECT_EQ(GostHash_Update(a.data(), nullptr, 1), GOST_STATUS_BAD_ARGUMENT);
    ASSERT_EQ(GostHash_Update(a.data(), kM1.data(), 10), GOST_STATUS_OK);
    ASSERT_EQ(GostHash_Copy(b.data(), a.data(), size), GOST_STATUS_OK);
    ASSERT_EQ(GostHash_Update(b.data(), kM1.data() + 10, kM1.size() - 10), GOST_STATUS_OK);
    std::array<std::uint8_t, 32> out{};
    EXPECT_EQ(GostHash_Final(b.data(), out.data(), 31), GOST_STATUS_BAD_ARGUMENT);
    ASSERT_EQ(GostHash_Final(b.data(), out.data(), out.size()), GOST_STATUS_OK);
    EXPECT_EQ(Hex(out.data(), out.size()), StandardVectors()[1].Digest());
    EXPECT_EQ(GostHash_Final(b.data(), out.data(), out.size()), GOST_STATUS_BAD_OBJECT);
    EXPECT_EQ(GostHash_Update(b.data(), "x", 1), GOST_STATUS_BAD_OBJECT);
    // Reset restarts from the empty message.
    ASSERT_EQ(GostHash_Reset(b.data()), GOST_STATUS_OK);
    ASSERT_EQ(GostHash_Final(b.data(), out.data(), out.size()), GOST_STATUS_OK);
    EXPECT_EQ(Hex(out.data(), out.size()), Hex(GcryptDigest(nullptr, 0, 256)));
    EXPECT_EQ(GostHash_Clear(b.data()), GOST_STATUS_OK);
    EXPECT_EQ(GostHash_Reset(b.data()), GOST_STATUS_BAD_OBJECT);
    EXPECT_EQ(GostHash_Clear(a.data()), GOST_STATUS_OK);
    EXPECT_NE(std::string(GostHash_Implementation()), "");
}

}  // namespace
}  // namespace nds::test
