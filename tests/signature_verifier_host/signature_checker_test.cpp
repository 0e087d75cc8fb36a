#include "signature_checker.h"

#include <algorithm>

#include "checker_fixture.h"

namespace signature_verifier::host::testing {
namespace {

struct BufferCase {
    const char* name;
    ByteVector data;
    ByteVector signature;
    std::uint32_t code;
};

TEST_F(CheckerTest, CheckBuffer_Signatures)
{
    const TestPki& pki = fx.pki;
    const std::string chain = "-md md_gost12_256 -certfile " + ShellQuote(pki.File("chain.pem").string());
    pki.MakeEcSigner();

    ByteVector flippedData = fx.data;
    flippedData[3] ^= 0x01;
    // The last bytes of the DER are the signer's signature value.
    ByteVector flippedSignature = fx.goodSignature;
    flippedSignature.back() ^= 0x80;
    ByteVector truncated(fx.goodSignature.begin(), fx.goodSignature.begin() + 200);
    // The first id-data OID is the unsigned eContentType; id-data + 1 is id-signedData.
    const ByteVector idData{0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};
    ByteVector otherContentType = fx.goodSignature;
    const auto at = std::search(otherContentType.begin(), otherContentType.end(), idData.begin(), idData.end());
    ASSERT_NE(at, otherContentType.end());
    at[idData.size() - 1] = 0x02;
    ByteVector trailing = fx.goodSignature;
    trailing.push_back(0);

    const BufferCase cases[] = {
        {"good", fx.data, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_OK},
        {"empty data, signed", {}, pki.SignPackage({}), NV_SIGNATURE_VERIFIER_CC_OK},
        {"revoked signer, no CRL set", fx.data, pki.SignPackage(fx.data, "revoked-signer"), NV_SIGNATURE_VERIFIER_CC_OK},
        {"flipped data byte", flippedData, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"flipped signature byte", fx.data, flippedSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"empty data, other signature", {}, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"signer under the wrong root", fx.data, pki.SignPackage(fx.data, "wrong-signer"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
        {"intermediate missing", fx.data, pki.SignWithOptions(fx.data, "signer", "-md md_gost12_256"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
        {"no certificates", fx.data, pki.SignWithOptions(fx.data, "signer", chain + " -nocerts"),
         NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER},
        {"no signed attributes", fx.data, pki.SignWithOptions(fx.data, "signer", chain + " -noattr"),
         NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"embedded content", fx.data, pki.SignWithOptions(fx.data, "signer", chain + " -nodetach"),
         NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"truncated", fx.data, truncated, NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"unsigned content type changed", fx.data, otherContentType, NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"trailing byte", fx.data, trailing, NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"not DER", fx.data, ToBytes("-----BEGIN CMS-----"), NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"a certificate", fx.data, pki.Der("signer"), NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"empty", fx.data, {}, NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"ECDSA with SHA-256", fx.data, pki.SignWithOptions(fx.data, "ec-signer", ""),
         NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM},
    };
    const auto checker = fx.TrustingChecker();
    for (const auto& c : cases) {
        const Outcome outcome = checker->CheckBuffer(c.data, c.signature);
        EXPECT_EQ(outcome.code, c.code) << c.name << ": " << outcome.detail;
        EXPECT_EQ(outcome.detail.empty(), outcome.Ok()) << c.name;
    }
}

TEST_F(CheckerTest, CheckBuffer_WrongRootOnly_UntrustedSigner)
{
    SignatureChecker checker;
    ASSERT_EQ(checker.LoadRoots(fx.pki.File("wrong-roots")), 1u);
    const Outcome outcome = checker.CheckBuffer(fx.data, fx.goodSignature);
    EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);
    EXPECT_EQ(outcome.detail, "unable to get local issuer certificate at /O=Verifier Test PKI/CN=Test Intermediate CA");
}

struct HashCase {
    const char* name;
    std::uint8_t algorithm;
    ByteVector hash;
    ByteVector signature;
    std::uint32_t code;
};

TEST_F(CheckerTest, CheckHash_Hashes)
{
    const ByteVector right = Streebog256(fx.data);
    ASSERT_EQ(right.size(), 32u);
    ByteVector wrong = right;
    wrong[31] ^= 0x01;
    ByteVector flippedSignature = fx.goodSignature;
    flippedSignature.back() ^= 0x01;
    const ByteVector garbage = ToBytes("garbage");

    const HashCase cases[] = {
        {"right hash", 1, right, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_OK},
        {"wrong hash", 1, wrong, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"hash of other data", 1, Streebog256(ToBytes("other")), fx.goodSignature,
         NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"flipped signature byte", 1, right, flippedSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE},
        {"malformed signature", 1, right, garbage, NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE},
        {"algorithm 0", 0, right, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM},
        {"algorithm 2", 2, right, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM},
        {"algorithm 255, garbage signature", 255, right, garbage, NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM},
        {"31-byte hash", 1, ByteVector(right.begin(), right.end() - 1), fx.goodSignature,
         NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE},
        {"64-byte hash", 1, ByteVector(64, 0), fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE},
        {"empty hash", 1, {}, fx.goodSignature, NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE},
    };
    const auto checker = fx.TrustingChecker();
    for (const auto& c : cases) {
        const Outcome outcome = checker->CheckHash(c.algorithm, c.hash, c.signature);
        EXPECT_EQ(outcome.code, c.code) << c.name << ": " << outcome.detail;
    }
}

TEST_F(CheckerTest, AddRootCertificate_TrustsOnlyOneWholeDerCertificate)
{
    SignatureChecker checker;
    EXPECT_EQ(checker.CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);

    ByteVector trailing = fx.pki.Der("root-ca");
    trailing.push_back(0);
    const ByteVector refused[] = {{}, ToBytes("garbage"), ReadBytes(fx.pki.File("root-ca.pem")), trailing,
                                  ReadBytes(fx.pki.File("crl.der"))};
    for (const auto& der : refused) {
        const Outcome outcome = checker.AddRootCertificate(der);
        EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE);
        EXPECT_EQ(outcome.detail, "not one DER certificate");
    }
    EXPECT_EQ(checker.CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);

    EXPECT_TRUE(checker.AddRootCertificate(fx.pki.Der("root-ca")).Ok());
    EXPECT_TRUE(checker.AddRootCertificate(fx.pki.Der("root-ca")).Ok()) << "adding twice";
    EXPECT_EQ(checker.CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_OK);
}

TEST_F(CheckerTest, IdentifierOf_IsSha256OfDer)
{
    const ByteVector der = fx.pki.Der("root-ca");
    const unsigned char* cursor = der.data();
    X509Ptr root(d2i_X509(nullptr, &cursor, static_cast<long>(der.size())));
    ASSERT_TRUE(root);
    const CertificateIdentifier identifier = SignatureChecker::IdentifierOf(*root);
    EXPECT_EQ(ByteVector(identifier.begin(), identifier.end()), Sha256(der));
}

ByteVector IdentifierOfFile(const TestPki& pki, const std::string& name)
{
    return Sha256(pki.Der(name));
}

TEST_F(CheckerTest, RevokeRootCertificate_RevokesChainsThroughIt)
{
    const auto checker = fx.TrustingChecker();
    EXPECT_TRUE(checker->RevokeRootCertificate(IdentifierOfFile(fx.pki, "wrong-root-ca")).Ok());
    EXPECT_EQ(checker->CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_OK)
        << "another root's identifier";

    EXPECT_TRUE(checker->RevokeRootCertificate(IdentifierOfFile(fx.pki, "root-ca")).Ok());
    Outcome outcome = checker->CheckBuffer(fx.data, fx.goodSignature);
    EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_REVOKED);
    EXPECT_EQ(outcome.detail, "the chain holds the revoked /O=Verifier Test PKI/CN=Test Root CA");
    EXPECT_EQ(checker->CheckHash(1, Streebog256(fx.data), fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_REVOKED);

    EXPECT_TRUE(checker->AddRootCertificate(fx.pki.Der("root-ca")).Ok());
    EXPECT_EQ(checker->CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_REVOKED)
        << "adding a revoked root again does not lift the revocation";
}

TEST_F(CheckerTest, RevokeRootCertificate_IntermediateIdentifier_Revoked)
{
    const auto checker = fx.TrustingChecker();
    EXPECT_TRUE(checker->RevokeRootCertificate(IdentifierOfFile(fx.pki, "intermediate-ca")).Ok());
    EXPECT_EQ(checker->CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_REVOKED);
}

TEST_F(CheckerTest, RevokeRootCertificate_WrongSize_MalformedRequest)
{
    const auto checker = fx.TrustingChecker();
    const ByteVector identifier = IdentifierOfFile(fx.pki, "root-ca");
    for (std::size_t size : {0u, 20u, 31u, 33u}) {
        ByteVector cut(size, 0);
        std::copy_n(identifier.begin(), std::min<std::size_t>(size, identifier.size()), cut.begin());
        const Outcome outcome = checker->RevokeRootCertificate(cut);
        EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST) << size;
        EXPECT_EQ(outcome.detail, "an identifier has 32 bytes, not " + std::to_string(size));
    }
    EXPECT_EQ(checker->CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_OK);
}

TEST_F(CheckerTest, SetCrl_RevokesListedSignerUntilCleared)
{
    const auto checker = fx.TrustingChecker();
    const ByteVector revokedSignature = fx.pki.SignPackage(fx.data, "revoked-signer");
    const ByteVector wrongRootSignature = fx.pki.SignPackage(fx.data, "wrong-signer");

    ASSERT_TRUE(checker->SetCrl(ReadBytes(fx.pki.File("crl.der"))).Ok());
    Outcome outcome = checker->CheckBuffer(fx.data, revokedSignature);
    EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_REVOKED);
    EXPECT_EQ(outcome.detail, "certificate revoked at /O=Verifier Test PKI/CN=Test Revoked Signer");
    EXPECT_EQ(checker->CheckHash(1, Streebog256(fx.data), revokedSignature).code, NV_SIGNATURE_VERIFIER_CC_REVOKED);
    EXPECT_EQ(checker->CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(checker->CheckBuffer(fx.data, wrongRootSignature).code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);

    // A refused blob leaves the CRL in force.
    for (const ByteVector& bad : {ToBytes("garbage"), ReadBytes(fx.pki.File("crl.pem")), fx.pki.Der("root-ca")}) {
        outcome = checker->SetCrl(bad);
        EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL);
        EXPECT_EQ(outcome.detail, "not one DER CRL");
    }
    EXPECT_EQ(checker->CheckBuffer(fx.data, revokedSignature).code, NV_SIGNATURE_VERIFIER_CC_REVOKED);

    EXPECT_TRUE(checker->SetCrl({}).Ok());
    EXPECT_EQ(checker->CheckBuffer(fx.data, revokedSignature).code, NV_SIGNATURE_VERIFIER_CC_OK);
}

TEST_F(CheckerTest, SetCrl_ForgedCrl_FailsChainsOfItsIssuer)
{
    const auto checker = fx.TrustingChecker();
    ByteVector forged = ReadBytes(fx.pki.File("crl.der"));
    forged.back() ^= 0x01; // inside the CRL's signature value
    ASSERT_TRUE(checker->SetCrl(forged).Ok());
    const Outcome outcome = checker->CheckBuffer(fx.data, fx.goodSignature);
    EXPECT_EQ(outcome.code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER);
    EXPECT_EQ(outcome.detail, "CRL signature failure at /O=Verifier Test PKI/CN=Test Package Signer");
}

TEST_F(CheckerTest, LoadRoots_Directories)
{
    const auto dir = fx.dir.Path() / "load-roots";
    std::filesystem::create_directories(dir / "pem");
    std::filesystem::copy_file(fx.pki.File("root-ca.pem"), dir / "pem" / "root.pem");
    std::filesystem::copy_file(fx.pki.File("wrong-root-ca.der"), dir / "pem" / "wrong-root.der");
    WriteBytes(dir / "pem" / ".hidden", ToBytes("not a certificate"));
    std::filesystem::create_directories(dir / "pem" / "subdir");

    std::filesystem::create_directories(dir / "bundle");
    ByteVector bundle = ReadBytes(fx.pki.File("root-ca.pem"));
    const ByteVector second = ReadBytes(fx.pki.File("wrong-root-ca.pem"));
    bundle.insert(bundle.end(), second.begin(), second.end());
    WriteBytes(dir / "bundle" / "roots.pem", bundle);

    std::filesystem::create_directories(dir / "bad");
    std::filesystem::copy_file(fx.pki.File("root-ca.pem"), dir / "bad" / "a-root.pem");
    WriteBytes(dir / "bad" / "b-notes.txt", ToBytes("not a certificate"));

    SignatureChecker checker;
    EXPECT_EQ(checker.LoadRoots(dir / "pem"), 2u);
    EXPECT_EQ(checker.CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_OK);
    EXPECT_EQ(SignatureChecker().LoadRoots(dir / "bundle"), 2u);

    SignatureChecker refusing;
    try {
        refusing.LoadRoots(dir / "bad");
        ADD_FAILURE() << "a file without a certificate was accepted";
    } catch (const std::runtime_error& error) {
        EXPECT_EQ(std::string(error.what()), "'" + (dir / "bad" / "b-notes.txt").string() +
                                                 "' holds no PEM or DER certificate");
    }
    EXPECT_EQ(refusing.CheckBuffer(fx.data, fx.goodSignature).code, NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER)
        << "nothing is trusted from a refused directory";
    EXPECT_THROW(refusing.LoadRoots(dir / "missing"), std::runtime_error);
}

}  // namespace
}  // namespace signature_verifier::host::testing
