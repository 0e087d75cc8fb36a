// Fuzz target: the host signature verifier's CMS handling (SignatureChecker)
// over arbitrary signatures, data, hashes, certificates and CRLs, against
// the committed test root and CRL in fixtures/signature_checker/.
//
// Input: mode (1 byte), hash algorithm (1 byte), data length (u16), the data,
// then the signature. Mode bit 0 adds the test CRL to the trust store used;
// bit 1 also checks the data as a hash sent with the given algorithm; bit 2
// offers the data as a root certificate and the signature as a CRL to a
// store of its own.
//
// Checks that every outcome is a known completion code with a reason exactly
// when it fails, that checking the data and checking its Streebog-256 digest
// give the same verdict, that a hash of the wrong algorithm or size is
// refused as such, that a refused certificate or CRL leaves the store
// answering as before, and that no operation leaves OpenSSL errors behind.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <vector>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>

#include "fuzz_support.h"
#include "gost_engine.h"
#include "signature_checker.h"

namespace {

using signature_verifier::host::Bytes;
using signature_verifier::host::Outcome;
using signature_verifier::host::SignatureChecker;
using ByteVector = std::vector<std::uint8_t>;

ByteVector ReadFixture(const char* name)
{
    const char* dir = std::getenv("VERIFIER_FUZZ_FIXTURES");
    const std::filesystem::path file = std::filesystem::path(dir != nullptr ? dir : FUZZ_FIXTURE_DIR) / name;
    std::ifstream in(file, std::ios::binary);
    ByteVector bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!in.good() && !in.eof())
        throw std::runtime_error("cannot read the fuzz fixture " + file.string());
    if (bytes.empty())
        throw std::runtime_error("missing or empty fuzz fixture " + file.string());
    return bytes;
}

void CheckOutcome(const Outcome& outcome)
{
    FUZZ_CHECK(outcome.code <= NV_SIGNATURE_VERIFIER_CC_LAST);
    FUZZ_CHECK(outcome.Ok() == outcome.detail.empty());
    if (ERR_peek_error() != 0) {
        std::fprintf(stderr, "outcome %u \"%s\" left OpenSSL errors: %s\n", outcome.code, outcome.detail.c_str(),
                     signature_verifier::host::TakeOpenSslErrors().c_str());
        fuzz::InvariantBroken("no OpenSSL errors left behind", __FILE__, __LINE__);
    }
}

std::unique_ptr<SignatureChecker> MakeChecker(const ByteVector& root, const ByteVector* crl)
{
    auto checker = std::make_unique<SignatureChecker>();
    if (!checker->AddRootCertificate(root).Ok() || (crl != nullptr && !checker->SetCrl(*crl).Ok()))
        throw std::runtime_error("the fuzz fixtures are not a usable root and CRL");
    return checker;
}

// Loaded once: the engine, the fixtures and the two stores never change.
struct Fixtures {
    // Kept for the whole run: the checkers need the engine's digests.
    signature_verifier::host::GostEngine* engine = new signature_verifier::host::GostEngine();
    ByteVector root = ReadFixture("root-ca.der");
    ByteVector crl = ReadFixture("crl.der");
    ByteVector payload = ReadFixture("payload");
    ByteVector signature = ReadFixture("payload.sign");
    std::unique_ptr<SignatureChecker> plain = MakeChecker(root, nullptr);
    std::unique_ptr<SignatureChecker> withCrl = MakeChecker(root, &crl);

    // A fixture signature that does not pass would leave the deep paths
    // (digest, signature and chain checks) unreached.
    Fixtures()
    {
        if (!plain->CheckBuffer(payload, signature).Ok() || !withCrl->CheckBuffer(payload, signature).Ok())
            throw std::runtime_error("the fixture signature does not pass: run fuzz/make-seeds --signatures");
    }
};

const Fixtures& Get()
{
    static const Fixtures* fixtures = new Fixtures();
    return *fixtures;
}

ByteVector Streebog256(Bytes data)
{
    ByteVector digest(EVP_MAX_MD_SIZE);
    unsigned int size = 0;
    const EVP_MD* md = EVP_get_digestbynid(NID_id_GostR3411_2012_256);
    FUZZ_CHECK(md != nullptr && EVP_Digest(data.data(), data.size(), digest.data(), &size, md, nullptr) == 1);
    digest.resize(size);
    return digest;
}

// A certificate and a CRL offered to a store of their own: whatever is
// refused must leave the store answering the fixture signature as before.
void OfferTrust(const Fixtures& f, Bytes certificate, Bytes crl)
{
    auto store = MakeChecker(f.root, nullptr);
    const Outcome added = store->AddRootCertificate(certificate);
    CheckOutcome(added);
    FUZZ_CHECK(added.Ok() || added.code == NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE);
    const Outcome set = store->SetCrl(crl);
    CheckOutcome(set);
    FUZZ_CHECK(set.Ok() || set.code == NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL ||
               set.code == NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL);
    FUZZ_CHECK(!crl.empty() || set.Ok());
    if (!added.Ok() && !set.Ok()) {
        const Outcome check = store->CheckBuffer(f.payload, f.signature);
        CheckOutcome(check);
        FUZZ_CHECK(check.Ok());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* input, std::size_t size)
{
    const Fixtures& f = Get();
    fuzz::Reader in(input, size);
    const std::uint8_t mode = in.Byte();
    const std::uint8_t algorithm = in.Byte();
    const ByteVector data = in.Bytes(std::min<std::size_t>(in.U16(), in.Remaining()));
    const ByteVector signature = in.Rest();
    const SignatureChecker& checker = (mode & 0x01) != 0 ? *f.withCrl : *f.plain;

    const Outcome byData = checker.CheckBuffer(data, signature);
    CheckOutcome(byData);
    const ByteVector digest = Streebog256(data);
    const Outcome byDigest = checker.CheckHash(NV_SIGNATURE_VERIFIER_HASH_STREEBOG256, digest, signature);
    CheckOutcome(byDigest);
    FUZZ_CHECK(byDigest.code == byData.code);

    if ((mode & 0x02) != 0) {
        const Outcome byHash = checker.CheckHash(algorithm, data, signature);
        CheckOutcome(byHash);
        if (algorithm != NV_SIGNATURE_VERIFIER_HASH_STREEBOG256)
            FUZZ_CHECK(byHash.code == NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM);
        else if (data.size() != NV_SIGNATURE_VERIFIER_STREEBOG256_SIZE)
            FUZZ_CHECK(byHash.code == NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE);
        else if (data == digest)
            FUZZ_CHECK(byHash.code == byData.code);
    }
    if ((mode & 0x04) != 0)
        OfferTrust(f, data, signature);
    return 0;
}
