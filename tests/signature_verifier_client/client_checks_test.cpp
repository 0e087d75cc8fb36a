// The client library's local work: argument checks with their statuses and
// log lines, hash contexts, certificate identifiers and the reply decoding.

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nds/nds.h>
#include <nglog/nglog.h>
#include <signature_verifier/signature_verifier.h>

#include "private/client_private.h"
#include "support.h"

namespace signature_verifier::client::testing {
namespace {

struct CheckCase {
    const char* name;
    std::function<int()> call;
    int status;
    std::string log;
};

class ClientChecksTest : public ClientTest {
protected:
    // Checks fail before a context is used, so any non-null pointer serves.
    int m_fakeObject = 0;
    void* ctx = &m_fakeObject;
    const std::uint8_t bytes[4] = {1, 2, 3, 4};
    void* noCtx = nullptr;
};

TEST_F(ClientChecksTest, Requests_BadArguments_RefusedInOrderWithTheirText)
{
    const auto* b = bytes;
    constexpr std::size_t over = 0x4000001;
    void* out = nullptr;
    const std::vector<CheckCase> cases = {
        {"init ctx", [&] { return signature_verifier_init("nv.SignatureVerifierEntity", nullptr); }, 22,
         "signature_verifier_init: ctx is NULL\n"},
        {"init both", [&] { return signature_verifier_init(nullptr, nullptr); }, 22,
         "signature_verifier_init: ctx is NULL\n"},
        {"init name", [&] { return signature_verifier_init(nullptr, &out); }, 22,
         "signature_verifier_init: Connection  ID is NULL\n"},

        {"check_buffer ctx", [&] { return signature_verifier_check_buffer(noCtx, nullptr, 5, nullptr, 0); }, 22,
         "signature_verifier_check_buffer: ctx is NULL\n"},
        {"check_buffer null buffer", [&] { return signature_verifier_check_buffer(ctx, nullptr, 5, b, 4); }, 22,
         "signature_verifier_check_buffer: buffer and buffer size must both be NULL or not NULL\n"},
        {"check_buffer empty buffer", [&] { return signature_verifier_check_buffer(ctx, b, 0, b, 4); }, 22,
         "signature_verifier_check_buffer: buffer and buffer size must both be NULL or not NULL\n"},
        {"check_buffer buffer size", [&] { return signature_verifier_check_buffer(ctx, b, over, nullptr, 0); }, 22,
         "signature_verifier_check_buffer: buffer size (67108865) is greater that 67108864\n"},
        {"check_buffer signature", [&] { return signature_verifier_check_buffer(ctx, b, 4, nullptr, 4); }, 22,
         "signature_verifier_check_buffer: signature is NULL\n"},
        {"check_buffer signature size 0", [&] { return signature_verifier_check_buffer(ctx, nullptr, 0, b, 0); }, 22,
         "signature_verifier_check_buffer: signature size is 0\n"},
        {"check_buffer signature size", [&] { return signature_verifier_check_buffer(ctx, b, 4, b, over); }, 22,
         "signature_verifier_check_buffer: signature size (67108865) is greater that 67108864\n"},

        {"check_hash_value ctx", [&] { return signature_verifier_check_hash_value(noCtx, 1, nullptr, 0, b, 4); }, 22,
         "signature_verifier_check_hash_value: ctx is NULL\n"},
        {"check_hash_value hash", [&] { return signature_verifier_check_hash_value(ctx, 1, nullptr, 32, b, 4); }, 22,
         "signature_verifier_check_hash_value: hash is NULL\n"},
        {"check_hash_value hash size 0", [&] { return signature_verifier_check_hash_value(ctx, 1, b, 0, b, 4); }, 22,
         "signature_verifier_check_hash_value: hash size is 0\n"},
        {"check_hash_value hash size", [&] { return signature_verifier_check_hash_value(ctx, 1, b, 513, nullptr, 0); },
         22, "signature_verifier_check_hash_value: hash size (513) is greater that 512\n"},
        {"check_hash_value signature", [&] { return signature_verifier_check_hash_value(ctx, 1, b, 512, nullptr, 4); },
         22, "signature_verifier_check_hash_value: signature is NULL\n"},
        {"check_hash_value signature size 0", [&] { return signature_verifier_check_hash_value(ctx, 1, b, 4, b, 0); },
         22, "signature_verifier_check_hash_value: signature size is 0\n"},
        {"check_hash_value signature size", [&] { return signature_verifier_check_hash_value(ctx, 1, b, 4, b, over); },
         22, "signature_verifier_check_hash_value: signature size (67108865) is greater that 67108864\n"},

        {"add_root ctx", [&] { return signature_verifier_add_root_certificate(noCtx, nullptr, 0); }, 22,
         "signature_verifier_add_root_certificate: ctx is NULL\n"},
        {"add_root cert", [&] { return signature_verifier_add_root_certificate(ctx, nullptr, 4); }, 22,
         "signature_verifier_add_root_certificate: cert is NULL\n"},
        {"add_root cert size", [&] { return signature_verifier_add_root_certificate(ctx, b, 0); }, 22,
         "signature_verifier_add_root_certificate: cert size is 0\n"},

        {"revoke ctx", [&] { return signature_verifier_revoke_root_certificate(noCtx, b, 4); }, 22,
         "signature_verifier_revoke_root_certificate: ctx is NULL\n"},
        {"revoke skid", [&] { return signature_verifier_revoke_root_certificate(ctx, nullptr, 32); }, 22,
         "signature_verifier_revoke_root_certificate: SKID is NULL\n"},
        {"revoke skid size", [&] { return signature_verifier_revoke_root_certificate(ctx, b, 0); }, 22,
         "signature_verifier_revoke_root_certificate: SKID size is 0\n"},

        {"set_crl ctx", [&] { return signature_verifier_set_crl_blob(noCtx, nullptr, 0); }, 22,
         "signature_verifier_set_crl_blob: ctx is NULL\n"},
        {"set_crl null blob", [&] { return signature_verifier_set_crl_blob(ctx, nullptr, 4); }, 22,
         "signature_verifier_set_crl_blob: CRL must be NULL same time as CRL Size is 0\n"},
        {"set_crl empty blob", [&] { return signature_verifier_set_crl_blob(ctx, b, 0); }, 22,
         "signature_verifier_set_crl_blob: CRL must be NULL same time as CRL Size is 0\n"},

        {"identifier cert", [&] { return signature_verifier_get_certificate_identifier(nullptr, 4, nullptr, nullptr); },
         22, "signature_verifier_get_certificate_identifier: cert is NULL\n"},
        {"identifier cert size", [&] { return signature_verifier_get_certificate_identifier(b, 0, nullptr, nullptr); },
         22, "signature_verifier_get_certificate_identifier: cert size is 0\n"},
        {"identifier size", [&] { return signature_verifier_get_certificate_identifier(b, 4, nullptr, nullptr); }, 22,
         "signature_verifier_get_certificate_identifier: SKID size is NULL\n"},

        {"hash_create", [&] { return signature_verifier_hash_create(nullptr); }, 22,
         "signature_verifier_hash_create: hash_out is NULL\n"},
        {"hash_buffer hash", [&] { return signature_verifier_hash_buffer(nullptr, b, 4); }, 22,
         "signature_verifier_hash_buffer: hash is NULL\n"},
        {"hash_buffer buffer", [&] { return signature_verifier_hash_buffer(ctx, nullptr, 4); }, 22,
         "signature_verifier_hash_buffer: buffer and buffer size must both be not NULL\n"},
        {"hash_buffer size", [&] { return signature_verifier_hash_buffer(ctx, b, 0); }, 22,
         "signature_verifier_hash_buffer: buffer and buffer size must both be not NULL\n"},
        {"get_hash_value hash", [&] { return signature_verifier_get_hash_value(nullptr, nullptr, nullptr); }, 22,
         "signature_verifier_get_hash_value: hash is NULL\n"},
        {"get_hash_value size", [&] { return signature_verifier_get_hash_value(ctx, nullptr, nullptr); }, 22,
         "signature_verifier_get_hash_value: hash size is NULL\n"},
        {"check_hash ctx", [&] { return signature_verifier_check_hash(noCtx, nullptr, nullptr, 0); }, 22,
         "signature_verifier_check_hash: ctx is NULL\n"},
        {"check_hash hash", [&] { return signature_verifier_check_hash(ctx, nullptr, b, 4); }, 22,
         "signature_verifier_check_hash: hash is NULL\n"},
        {"check_hash signature", [&] { return signature_verifier_check_hash(ctx, ctx, nullptr, 4); }, 22,
         "signature_verifier_check_hash: signature is NULL\n"},
        {"check_hash signature size", [&] { return signature_verifier_check_hash(ctx, ctx, b, 0); }, 22,
         "signature_verifier_check_hash: signature size is 0\n"},
        {"hash_close", [&] { return signature_verifier_hash_close(nullptr); }, 22,
         "signature_verifier_hash_close: hash is NULL\n"},
    };
    for (const CheckCase& c : cases) {
        const Logged result = RunLogged(c.call);
        EXPECT_EQ(result.status, c.status) << c.name;
        EXPECT_EQ(result.log, c.log) << c.name;
    }
    EXPECT_EQ(out, nullptr) << "a refused init leaves the context as it was";

    nglog_set_level(NGLOG_LEVEL_SILENT);
    for (const CheckCase& c : cases) {
        const Logged result = RunLogged(c.call);
        EXPECT_EQ(result.status, c.status) << c.name;
        EXPECT_EQ(result.log, "") << "level 0 writes nothing: " << c.name;
    }
}

TEST_F(ClientChecksTest, Init_NobodyServes_13AndContextUntouched)
{
    void* out = &m_fakeObject;
    const Logged result = RunLogged([&] { return signature_verifier_init("nv.SignatureVerifierEntity", &out); });
    EXPECT_EQ(result.status, 13);
    EXPECT_EQ(result.log,
              "service_connect: ServiceLocatorConnect invalid handle\n"
              "signature_verifier_init: failed to connect to the server\n");
    EXPECT_EQ(out, &m_fakeObject);
    EXPECT_EQ(signature_verifier_destroy(nullptr), 0);
}

class HashContextTest : public ClientTest {
protected:
    void SetUp() override
    {
        ClientTest::SetUp();
        ASSERT_EQ(signature_verifier_hash_create(&hash), 0);
        ASSERT_NE(hash, nullptr);
    }
    void TearDown() override
    {
        if (hash != nullptr) {
            EXPECT_EQ(signature_verifier_hash_close(hash), 0);
        }
        ClientTest::TearDown();
    }
    int Add(const std::string& text) { return signature_verifier_hash_buffer(hash, text.data(), text.size()); }

    void* hash = nullptr;
};

TEST_F(HashContextTest, GetHashValue_PiecesAndSizeQuery_DigestOfTheWholeMessage)
{
    ASSERT_EQ(Add("The quick brown fox "), 0);
    std::size_t size = 0;
    EXPECT_EQ(signature_verifier_get_hash_value(hash, nullptr, &size), 0);
    EXPECT_EQ(size, 32u);
    ASSERT_EQ(Add("jumps over the lazy dog"), 0) << "a size query does not finalise";

    ByteVector digest(64, 0xAA);
    size = digest.size();
    ASSERT_EQ(signature_verifier_get_hash_value(hash, digest.data(), &size), 0);
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(ByteVector(digest.begin(), digest.begin() + 32),
              host::testing::Streebog256(host::testing::ToBytes("The quick brown fox jumps over the lazy dog")));
    EXPECT_EQ(ByteVector(digest.begin() + 32, digest.end()), ByteVector(32, 0xAA)) << "nothing written beyond 32";

    Logged result = RunLogged([&] { return Add("more"); });
    EXPECT_EQ(result.status, 14);
    EXPECT_EQ(result.log, "signature_verifier_hash_buffer: Can't hash data: -2\n");
    result = RunLogged([&] { return signature_verifier_get_hash_value(hash, digest.data(), &size); });
    EXPECT_EQ(result.status, 14);
    EXPECT_EQ(result.log, "signature_verifier_get_hash_value: Can't get hash value: -2\n");
}

TEST_F(HashContextTest, GetHashValue_SmallBuffer_22WithSizeAndHashStillOpen)
{
    ByteVector digest(31, 0xAA);
    std::size_t size = digest.size();
    const Logged result = RunLogged([&] { return signature_verifier_get_hash_value(hash, digest.data(), &size); });
    EXPECT_EQ(result.status, 22);
    EXPECT_EQ(result.log, "signature_verifier_get_hash_value: too small hash buffer\n");
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(digest, ByteVector(31, 0xAA));

    digest.assign(32, 0);
    ASSERT_EQ(signature_verifier_get_hash_value(hash, digest.data(), &size), 0);
    EXPECT_EQ(digest, host::testing::Streebog256({})) << "the digest of the empty message";
}

TEST_F(HashContextTest, HashClose_GivesBackTheLibraryReference)
{
    EXPECT_EQ(NdsIsInitializedLibrary(), 1);
    ASSERT_EQ(signature_verifier_hash_close(hash), 0);
    hash = nullptr;
    EXPECT_EQ(NdsIsInitializedLibrary(), 0);
}

TEST_F(ClientChecksTest, GetCertificateIdentifier_BufferSizes)
{
    const ByteVector cert = host::testing::ToBytes("not even DER: any blob has an identifier");
    const ByteVector expected = host::testing::Sha256(cert);

    std::size_t size = 0;
    Logged result = RunLogged(
        [&] { return signature_verifier_get_certificate_identifier(cert.data(), cert.size(), nullptr, &size); });
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(size, 32u);

    ByteVector skid(40, 0xAA);
    size = 31;
    result = RunLogged(
        [&] { return signature_verifier_get_certificate_identifier(cert.data(), cert.size(), skid.data(), &size); });
    EXPECT_EQ(result.status, 75);
    EXPECT_EQ(result.log, "") << "a too small buffer is not logged";
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(skid, ByteVector(40, 0xAA));

    size = skid.size();
    ASSERT_EQ(signature_verifier_get_certificate_identifier(cert.data(), cert.size(), skid.data(), &size), 0);
    EXPECT_EQ(size, 32u);
    EXPECT_EQ(ByteVector(skid.begin(), skid.begin() + 32), expected);
    EXPECT_EQ(ByteVector(skid.begin() + 32, skid.end()), ByteVector(8, 0xAA));
}

struct DecodeCase {
    const char* name;
    Retcode callResult;
    bool errorReply;
    std::uint32_t completionCode;
    int status;
    std::string log;
};

TEST_F(ClientChecksTest, DecodeReply_TransportCodesAndErrorReplies)
{
    const std::string prefix = "signature_verifier_check_buffer: nv_SignatureVerifier_CheckBuffer, ";
    const std::vector<DecodeCase> cases = {
        {"plain reply", NK_EOK, false, 0, 0, ""},
        {"plain reply ignores its code field", NK_EOK, false, 7, 0, ""},
        {"error reply, code 1", NK_EOK, true, 1, -49152, prefix + "invalid completion code 1\n"},
        {"error reply, code 2", NK_EOK, true, 2, -81920, prefix + "invalid completion code 2\n"},
        {"error reply, code 5", NK_EOK, true, 5, -180224, prefix + "invalid completion code 5\n"},
        {"error reply, code 0", NK_EOK, true, 0, -16384, prefix + "invalid completion code 0\n"},
        {"error reply, largest 16-bit code", NK_EOK, true, 0xFFFF, -2147467264,
         prefix + "invalid completion code 65535\n"},
        // The code is shifted in 32 bits: bit 16 of it reaches the sign bit,
        // and the status comes out positive. Kept as designed.
        {"error reply, code 0x10000", NK_EOK, true, 0x10000, 2147467264, prefix + "invalid completion code 0\n"},
        {"transport EPIPE", NK_EPIPE, false, 0, -32, prefix + "invalid result -32\n"},
        {"transport ETIMEDOUT", NK_ETIMEDOUT, true, 1, -110, prefix + "invalid result -110\n"},
        {"transport E2BIG", NK_E2BIG, false, 0, -7, prefix + "invalid result -7\n"},
        {"encoded code 1 as the call's result", -49152, false, 0, -49152, prefix + "invalid completion code 1\n"},
        {"encoded code 9 as the call's result", -311296, true, 1, -311296, prefix + "invalid completion code 9\n"},
    };
    for (const DecodeCase& c : cases) {
        nv_SignatureVerifier_res reply{};
        nk_msg_set_size(&reply.base, sizeof reply);
        if (c.errorReply)
            reply.base.size |= NK_MSG_ERROR_FLAG;
        reply.completion_code = c.completionCode;
        const Logged result = RunLogged([&] {
            return DecodeReply(c.callResult, reply,
                               {"signature_verifier_check_buffer", "nv_SignatureVerifier_CheckBuffer"});
        });
        EXPECT_EQ(result.status, c.status) << c.name;
        EXPECT_EQ(result.log, c.log) << c.name;
    }
}

}  // namespace
}  // namespace signature_verifier::client::testing
