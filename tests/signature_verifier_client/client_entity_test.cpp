// The client library against the real signature-verifier process, with real
// GOST signatures made with the test PKI.

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <signature_verifier/signature_verifier.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "entity_support.h"

namespace signature_verifier::client::testing {
namespace {

using host::testing::ReadBytes;
using host::testing::Sha256;
using host::testing::Streebog256;

ByteVector Flipped(ByteVector bytes, std::size_t at)
{
    bytes.at(at) ^= 0x01;
    return bytes;
}

std::string CodeLine(const char* function, const char* method, unsigned code)
{
    return std::string(function) + ": " + method + ", invalid completion code " + std::to_string(code) + "\n";
}

std::string CheckBufferLine(unsigned code)
{
    return CodeLine("signature_verifier_check_buffer", "nv_SignatureVerifier_CheckBuffer", code);
}

class ClientEntityTest : public EntityTest {
protected:
    void Connect(const std::string& roots)
    {
        StartEntity(roots);
        ASSERT_EQ(signature_verifier_init(SIGNATURE_VERIFIER_SERVICE_NAME, &ctx), 0);
    }

    void TearDown() override
    {
        signature_verifier_destroy(ctx);
        EntityTest::TearDown();
    }

    Logged CheckBuffer(const ByteVector& data, const ByteVector& signature)
    {
        return RunLogged([&] {
            return signature_verifier_check_buffer(ctx, data.data(), data.size(), signature.data(), signature.size());
        });
    }

    Logged CheckHashValue(const ByteVector& hash, const ByteVector& signature)
    {
        return RunLogged([&] {
            return signature_verifier_check_hash_value(ctx, NV_SIGNATURE_VERIFIER_HASH_STREEBOG256, hash.data(),
                                                       hash.size(), signature.data(), signature.size());
        });
    }

    // Checks `signature` over `data`, the fixture's data by default.
    void ExpectCheckBuffer(const ByteVector& signature, unsigned code, const char* what,
                           const ByteVector* data = nullptr)
    {
        const Logged result = CheckBuffer(data != nullptr ? *data : Shared().data, signature);
        EXPECT_EQ(result.status, code == 0 ? 0 : CompletionStatus(code)) << what;
        EXPECT_EQ(result.log, code == 0 ? "" : CheckBufferLine(code)) << what;
    }

    void* ctx = nullptr;
};

TEST_F(ClientEntityTest, CheckBuffer_RealSignatures)
{
    Connect("roots");
    const Fixtures& f = Shared();
    struct Case {
        const char* name;
        ByteVector data;
        ByteVector signature;
        unsigned code;
    };
    const std::vector<Case> cases = {
        {"good", f.data, f.signature, 0},
        {"flipped data byte", Flipped(f.data, 5), f.signature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"flipped signature byte", f.data, Flipped(f.signature, f.signature.size() - 1),
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"signer of another root", f.data, f.pki.SignPackage(f.data, "wrong-signer"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
        {"not a signature", f.data, host::testing::ToBytes("not a signature"),
         NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
    };
    for (const Case& c : cases)
        ExpectCheckBuffer(c.signature, c.code, c.name, &c.data);
    EXPECT_EQ(CompletionStatus(NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE), -49152);
}

TEST_F(ClientEntityTest, CheckBuffer_LargestData_Sent)
{
    Connect("roots");
    ByteVector data(SIGNATURE_VERIFIER_MAX_DATA_SIZE, 0x33);
    // The entity refuses the signature only after the whole request reached it.
    const Logged result = CheckBuffer(data, host::testing::ToBytes("not a signature"));
    EXPECT_EQ(result.status, CompletionStatus(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE));
    EXPECT_EQ(result.log, CheckBufferLine(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE));
}

TEST_F(ClientEntityTest, CheckHash_RightAndWrongHash)
{
    Connect("roots");
    const Fixtures& f = Shared();
    EXPECT_EQ(CheckHashValue(Streebog256(f.data), f.signature).status, 0);
    const Logged wrong = CheckHashValue(Flipped(Streebog256(f.data), 0), f.signature);
    EXPECT_EQ(wrong.status, CompletionStatus(NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE));
    EXPECT_EQ(wrong.log, CodeLine("signature_verifier_check_hash_value", "nv_SignatureVerifier_CheckHash", 1));

    // Through a hash context, which finalises its digest and sends it.
    for (const bool right : {true, false}) {
        void* hash = nullptr;
        ASSERT_EQ(signature_verifier_hash_create(&hash), 0);
        const ByteVector data = right ? f.data : Flipped(f.data, 0);
        ASSERT_EQ(signature_verifier_hash_buffer(hash, data.data(), data.size()), 0);
        const Logged result =
            RunLogged([&] { return signature_verifier_check_hash(ctx, hash, f.signature.data(), f.signature.size()); });
        EXPECT_EQ(signature_verifier_hash_close(hash), 0);
        EXPECT_EQ(result.status, right ? 0 : 14);
        EXPECT_EQ(result.log, right ? ""
                                    : CodeLine("signature_verifier_check_hash_value",
                                               "nv_SignatureVerifier_CheckHash", 1) +
                                          "signature_verifier_check_hash: can't check hash value: -49152\n");
    }
}

TEST_F(ClientEntityTest, AddRootCertificate_WrongRootThenTheRightOne)
{
    Connect("wrong-roots");
    ExpectCheckBuffer(Shared().signature, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER, "trusting the wrong root");
    const ByteVector root = Shared().pki.Der("root-ca");
    ASSERT_EQ(signature_verifier_add_root_certificate(ctx, root.data(), root.size()), 0);
    ExpectCheckBuffer(Shared().signature, 0, "the root added");
}

TEST_F(ClientEntityTest, RevokeRootCertificate_IdentifierFromTheClient)
{
    Connect("roots");
    const ByteVector root = Shared().pki.Der("root-ca");
    ByteVector skid(SIGNATURE_VERIFIER_IDENTIFIER_SIZE);
    std::size_t size = skid.size();
    ASSERT_EQ(signature_verifier_get_certificate_identifier(root.data(), root.size(), skid.data(), &size), 0);
    EXPECT_EQ(skid, Sha256(root));

    ASSERT_EQ(signature_verifier_revoke_root_certificate(ctx, skid.data(), skid.size()), 0);
    ExpectCheckBuffer(Shared().signature, NV_SIGNATURE_VERIFIER_CC_REVOKED, "the root revoked");
    EXPECT_EQ(CheckHashValue(Streebog256(Shared().data), Shared().signature).status,
              CompletionStatus(NV_SIGNATURE_VERIFIER_CC_REVOKED));
}

TEST_F(ClientEntityTest, SetCRLBlob_CertificateInTheListUntilCleared)
{
    Connect("roots");
    const Fixtures& f = Shared();
    const ByteVector revokedSignature = f.pki.SignPackage(f.data, "revoked-signer");
    ExpectCheckBuffer(revokedSignature, 0, "no list yet");

    const ByteVector crl = ReadBytes(f.pki.File("crl.der"));
    ASSERT_EQ(signature_verifier_set_crl_blob(ctx, crl.data(), crl.size()), 0);
    ExpectCheckBuffer(revokedSignature, NV_SIGNATURE_VERIFIER_CC_REVOKED, "listed");
    ExpectCheckBuffer(f.signature, 0, "not listed");

    ASSERT_EQ(signature_verifier_set_crl_blob(ctx, nullptr, 0), 0);
    ExpectCheckBuffer(revokedSignature, 0, "list removed");
}

TEST_F(ClientEntityTest, TrustStoreRequests_RefusedWithTheirCodes)
{
    Connect("roots");
    const ByteVector garbage = host::testing::ToBytes("garbage DER");
    Logged result = RunLogged([&] { return signature_verifier_add_root_certificate(ctx, garbage.data(), garbage.size()); });
    EXPECT_EQ(result.status, CompletionStatus(NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE));
    EXPECT_EQ(result.log, CodeLine("signature_verifier_add_root_certificate",
                                   "nv_SignatureVerifier_AddRootCertificate", 8));

    result = RunLogged([&] { return signature_verifier_set_crl_blob(ctx, garbage.data(), garbage.size()); });
    EXPECT_EQ(result.status, CompletionStatus(NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL));
    EXPECT_EQ(result.log, CodeLine("signature_verifier_set_crl_blob", "nv_SignatureVerifier_SetCRLBlob", 9));

    result = RunLogged([&] { return signature_verifier_revoke_root_certificate(ctx, garbage.data(), 7); });
    EXPECT_EQ(result.status, CompletionStatus(NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST));
    EXPECT_EQ(result.log, CodeLine("signature_verifier_revoke_root_certificate",
                                   "nv_SignatureVerifier_RevokeRootCertificate", 7));

    ExpectCheckBuffer(Shared().signature, 0, "nothing was changed");
}

}  // namespace
}  // namespace signature_verifier::client::testing
