// What the signature checker trusts: signer certificates, CRLs and roots from
// the test PKI, and trust changes only in an entity that allows them.

#include "checker_fixture.h"
#include "entity_process.h"
#include "support/runtime_dir.h"

namespace signature_verifier::host::testing {
namespace {

constexpr std::uint32_t kOk = NV_SIGNATURE_VERIFIER_CC_OK;
constexpr std::uint32_t kUntrusted = NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER;
constexpr std::uint32_t kRevoked = NV_SIGNATURE_VERIFIER_CC_REVOKED;
const std::string kPki = "/O=Verifier Test PKI/CN=";

// A signature of the fixture's data by `signer`, with the certificates of
// `chain`.pem embedded.
ByteVector SignatureBy(const std::string& signer, const std::string& chain = "chain")
{
    const std::string certificates = ShellQuote(Shared().pki.File(chain + ".pem").string());
    return Shared().pki.SignWithOptions(Shared().data, signer, "-md md_gost12_256 -certfile " + certificates);
}

struct SignerCase {
    const char* signer;
    const char* chain;
    std::uint32_t code;
    std::string detail;
};

TEST_F(CheckerTest, CheckBuffer_SignerCertificates)
{
    const SignerCase cases[] = {
        {"signer", "chain", kOk, ""},  // no extended key usage
        {"code-signer", "chain", kOk, ""},
        {"tls-signer", "chain", NV_SIGNATURE_VERIFIER_CC_NOT_FOR_CODE_SIGNING,
         "the signer's certificate is not for code signing: its extended key usage does not list it"},
        {"no-ds-signer", "chain", kUntrusted, "the signer's certificate is not for signatures"},
        {"expired-signer", "chain", kUntrusted, "certificate has expired at " + kPki + "Test Expired Signer"},
        {"future-signer", "chain", kUntrusted, "certificate is not yet valid at " + kPki + "Test Future Signer"},
        {"non-ca-signer", "non-ca-chain", kUntrusted, "invalid CA certificate at " + kPki + "Test Package Signer"},
    };
    const auto checker = fx.TrustingChecker();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.signer);
        const Outcome outcome = checker->CheckBuffer(fx.data, SignatureBy(c.signer, c.chain));
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.detail, c.detail);
    }
}

struct CrlCase {
    const char* crl;
    std::uint32_t setCode;
    std::string setDetail;
    const char* signer;
    std::uint32_t code;
    std::string detail;
};

// Each case sets crl.der, then its own CRL, then checks a signature.
TEST_F(CheckerTest, SetCrl_RevocationLists)
{
    const std::string revoked = "certificate revoked at " + kPki + "Test Revoked Signer";
    const CrlCase cases[] = {
        {"crl", kOk, "", "revoked-signer", kRevoked, revoked},
        {"crl", kOk, "", "signer", kOk, ""},
        {"root-crl", kOk, "", "signer", kOk, ""},  // no CRL for the signer's issuer
        {"expired-crl", kOk, "", "signer", kUntrusted, "CRL has expired at " + kPki + "Test Package Signer"},
        {"stranger-crl", kOk, "", "signer", kUntrusted,
         "unable to get certificate CRL at " + kPki + "Test Package Signer"},
        {"reasons-crl", NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL,
         "the CRL cannot be applied: its issuing distribution point covers only some reasons", "revoked-signer",
         kRevoked, revoked},
        {"indirect-crl", NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL, "the CRL cannot be applied: it is an indirect CRL",
         "revoked-signer", kRevoked, revoked},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.crl + std::string(" / ") + c.signer);
        const auto checker = fx.TrustingChecker();
        ASSERT_TRUE(checker->SetCrl(fx.pki.Der("crl")).Ok());
        const Outcome set = checker->SetCrl(fx.pki.Der(c.crl));
        EXPECT_EQ(set.code, c.setCode);
        EXPECT_EQ(set.detail, c.setDetail);
        const Outcome outcome = checker->CheckBuffer(fx.data, SignatureBy(c.signer));
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.detail, c.detail);
    }
}

TEST_F(CheckerTest, AddRootCertificate_DerExactly)
{
    const struct {
        const char* file;
        std::uint32_t code;
    } cases[] = {
        {"root-ca", kOk},
        {"root-ca-ber", NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE},
        {"root-ca-ber-tbs", NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        SignatureChecker checker;
        const Outcome outcome = checker.AddRootCertificate(fx.pki.Der(c.file));
        EXPECT_EQ(outcome.code, c.code);
        EXPECT_EQ(outcome.detail, c.code == kOk ? "" : "a certificate in BER, not DER");
        EXPECT_EQ(checker.CheckBuffer(fx.data, fx.goodSignature).code, c.code == kOk ? kOk : kUntrusted);
    }
}

class TrustChangesTest : public test_support::RuntimeDirTest {};

TEST_F(TrustChangesTest, Main_TrustChangesOnlyWhenAllowed)
{
    const SharedPki& fx = Shared();
    const struct {
        std::vector<std::string> flags;
        std::uint32_t code;
        std::uint32_t afterRevoke;
    } cases[] = {
        {{}, NV_SIGNATURE_VERIFIER_CC_TRUST_CHANGES_REFUSED, kOk},
        {{"--allow-trust-changes"}, kOk, kRevoked},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.flags.empty() ? "without the flag" : "with the flag");
        std::vector<std::string> args{"--roots", fx.pki.File("roots").string()};
        args.insert(args.end(), c.flags.begin(), c.flags.end());
        EntityProcess entity(args, runtime.Path() / ("entity" + std::to_string(c.flags.size()) + ".log"));
        {
            RawClient client(entity.WaitServing());
            EXPECT_EQ(client.Code(OneBlobRequest(nv_SignatureVerifier_AddRootCertificate_mid, fx.pki.Der("root-ca"))),
                      c.code);
            EXPECT_EQ(client.Code(OneBlobRequest(nv_SignatureVerifier_SetCRLBlob_mid, fx.pki.Der("crl"))), c.code);
            EXPECT_EQ(client.Code(OneBlobRequest(nv_SignatureVerifier_RevokeRootCertificate_mid,
                                                 Sha256(fx.pki.Der("root-ca")))),
                      c.code);
            EXPECT_EQ(client.Code(CheckBufferRequest(fx.data, fx.goodSignature)), c.afterRevoke);
        }
        EXPECT_EQ(entity.Stop(), 0);
        const std::string log = entity.Log();
        std::size_t refusals = 0;
        for (auto at = log.find("refused with code 13"); at != std::string::npos;
             at = log.find("refused with code 13", at + 1))
            ++refusals;
        EXPECT_EQ(refusals, c.code == kOk ? 0u : 3u) << log;
        if (c.code != kOk) {
            EXPECT_NE(log.find("] SetCRLBlob (mid 4): refused with code 13: trust store changes are not allowed (the "
                               "entity was started without --allow-trust-changes)\n"),
                      std::string::npos)
                << log;
        }
    }
}

}  // namespace
}  // namespace signature_verifier::host::testing
