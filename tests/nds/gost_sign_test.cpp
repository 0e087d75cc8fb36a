// GOST R 34.10-2001 verification through NdsCryptoPro_CheckSign.
#include <array>

#include "nds_test_support.h"

// libgcrypt keeps its random pool, filled when the test generates keys, for
// the life of the process and never frees it.
extern "C" const char* __lsan_default_suppressions() { return "leak:libgcrypt.so\n"; }

namespace nds::test {
namespace {

// The standard's example on its test curve (parameter set 1).
const Bytes kExampleDigest = FromHex("2dfbc1b372d89a1188c09c52e0eec61fce52032ab1022e8e67ece6672b043ee5");
const Bytes kExampleKey = FromHex(
    "7f2b49e270db6d90d8595bec458b50c58585ba1d4e9b788f6689dbd8e56fd80b"
    "26f1b489d6701dd185c8413a977b3cbbaf64d1c593d26627dffb101a87ff77da");
// s then r.
const Bytes kExampleSignature = FromHex(
    "01456c64ba4642a1653c235a98a60249bcd6d3f746b631df928014f6c5bf9c40"
    "41aa28d2f1ab148280cd9ed56feda41974053554a42767b83ad043fd39dc0493");

int Check(int set, const Bytes& digest, const Bytes& signature, const Bytes& key) {
    return NdsCryptoPro_CheckSign(set, digest.data(), digest.size(), signature.data(), signature.size(),
                                  key.data(), key.size());
}

Bytes Fixed32(gcry_sexp_t sexp, const char* token) {
    gcry_sexp_t item = gcry_sexp_find_token(sexp, token, 0);
    EXPECT_NE(item, nullptr) << token;
    gcry_mpi_t mpi = gcry_sexp_nth_mpi(item, 1, GCRYMPI_FMT_USG);
    Bytes raw(32);
    size_t n = 0;
    EXPECT_EQ(gcry_mpi_print(GCRYMPI_FMT_USG, raw.data(), raw.size(), &n, mpi), 0U);
    raw.resize(n);
    raw.insert(raw.begin(), 32 - n, 0);
    gcry_mpi_release(mpi);
    gcry_sexp_release(item);
    return raw;
}

struct Signed {
    Bytes key;        // X || Y
    Bytes signature;  // s || r
};

// Signs `digest` with a fresh key on the named curve, using libgcrypt.
Signed SignWithLibgcrypt(const char* curve, const Bytes& digest) {
    EXPECT_NE(gcry_check_version(nullptr), nullptr);
    gcry_sexp_t params = nullptr;
    gcry_sexp_t pair = nullptr;
    EXPECT_EQ(gcry_sexp_build(&params, nullptr, "(genkey (ecc (curve %s)))", curve), 0U);
    EXPECT_EQ(gcry_pk_genkey(&pair, params), 0U) << curve;
    gcry_sexp_t secret = gcry_sexp_find_token(pair, "private-key", 0);
    gcry_sexp_t q = gcry_sexp_find_token(pair, "q", 0);
    size_t q_size = 0;
    const char* q_data = gcry_sexp_nth_data(q, 1, &q_size);
    Signed out;
    EXPECT_EQ(q_size, 65U);
    out.key.assign(q_data + 1, q_data + q_size);
    gcry_sexp_t data = nullptr;
    gcry_sexp_t sig = nullptr;
    EXPECT_EQ(gcry_sexp_build(&data, nullptr, "(data (flags gost) (value %b))", static_cast<int>(digest.size()),
                              digest.data()),
              0U);
    EXPECT_EQ(gcry_pk_sign(&sig, data, secret), 0U);
    out.signature = Fixed32(sig, "s");
    const Bytes r = Fixed32(sig, "r");
    out.signature.insert(out.signature.end(), r.begin(), r.end());
    for (gcry_sexp_t s : {params, pair, secret, q, data, sig}) {
        gcry_sexp_release(s);
    }
    return out;
}

TEST(GostSignTest, CheckSign_StandardExample) {
    EXPECT_EQ(Check(1, kExampleDigest, kExampleSignature, kExampleKey), 0);
    Bytes digest = kExampleDigest;
    digest[31] ^= 1;
    EXPECT_EQ(Check(1, digest, kExampleSignature, kExampleKey), -13);
    Bytes signature = kExampleSignature;
    signature[5] ^= 0x40;
    EXPECT_EQ(Check(1, kExampleDigest, signature, kExampleKey), -13);
    // The same numbers on another curve do not verify.
    EXPECT_NE(Check(2, kExampleDigest, kExampleSignature, kExampleKey), 0);
}

TEST(GostSignTest, CheckSign_EveryParameterSet) {
    const std::array<const char*, 7> curves = {
        "GOST2001-test",           "GOST2001-CryptoPro-A",    "GOST2001-CryptoPro-B",
        "GOST2001-CryptoPro-C",    "GOST2001-CryptoPro-XchA", "GOST2001-CryptoPro-XchB",
        "GOST2012-256-A",
    };
    const Bytes digest = GcryptDigest(RandomBytes(100, 9), 256);
    for (std::size_t i = 0; i < curves.size(); ++i) {
        SCOPED_TRACE(curves[i]);
        const int set = static_cast<int>(i) + 1;
        const Signed s = SignWithLibgcrypt(curves[i], digest);
        EXPECT_EQ(Check(set, digest, s.signature, s.key), 0);
        Bytes other = digest;
        other[0] ^= 0x80;
        EXPECT_EQ(Check(set, other, s.signature, s.key), -13);
    }
}

TEST(GostSignTest, CheckSign_BadArguments) {
    const Bytes& d = kExampleDigest;
    const Bytes& s = kExampleSignature;
    const Bytes& k = kExampleKey;
    const Bytes short_key(k.begin(), k.end() - 1);
    const Bytes short_signature(s.begin(), s.end() - 1);
    const Bytes no_digest;
    for (const int set : {0, 8, -1, 1000}) {
        EXPECT_EQ(Check(set, d, s, k), -3) << set;
    }
    EXPECT_EQ(Check(1, d, s, short_key), -3);
    EXPECT_EQ(Check(1, d, short_signature, k), -3);
    EXPECT_EQ(Check(1, no_digest, s, k), -3);
    EXPECT_EQ(NdsCryptoPro_CheckSign(1, nullptr, 32, s.data(), s.size(), k.data(), k.size()), -3);
    EXPECT_EQ(NdsCryptoPro_CheckSign(1, d.data(), d.size(), nullptr, 64, k.data(), k.size()), -3);
    EXPECT_EQ(NdsCryptoPro_CheckSign(1, d.data(), d.size(), s.data(), s.size(), nullptr, 64), -3);
}

}  // namespace
}  // namespace nds::test
