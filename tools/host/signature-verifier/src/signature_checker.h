// The signature checks and the trust store of the signature-verifier entity,
// free of any IPC: bytes in, completion code out.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <set>
#include <span>
#include <string>

#include <signature_verifier/signature_verifier_idl.h>

#include <openssl/evp.h>

#include "openssl_support.h"

namespace signature_verifier::host {

using Bytes = std::span<const std::uint8_t>;

// Result of one operation: a completion code of the wire interface
// (NV_SIGNATURE_VERIFIER_CC_*) and, on failure, why, for the log.
struct Outcome {
    std::uint32_t code = NV_SIGNATURE_VERIFIER_CC_OK;
    std::string detail;

    bool Ok() const { return code == NV_SIGNATURE_VERIFIER_CC_OK; }
};

// Identifier of a certificate: SHA-256 of its DER encoding.
using CertificateIdentifier = std::array<std::uint8_t, NV_SIGNATURE_VERIFIER_IDENTIFIER_SIZE>;

// Checks detached CMS SignedData signatures (DER, one signer, signed
// attributes, GOST R 34.10-2012 256-bit key, Streebog-256 digest) and the
// signer's chain against a set of trusted roots, an optional CRL and a set of
// revoked root identifiers.
//
// Needs the GOST engine loaded (GostEngine) for as long as it is used. Not
// thread-safe: one caller at a time. Every method returns its outcome and
// leaves the trust store unchanged on failure; none throws for bad input.
class SignatureChecker {
public:
    // Throws std::runtime_error when libcrypto cannot compute Streebog-256
    // (the GOST engine is not loaded).
    SignatureChecker();

    // The signature must cover `data`: its messageDigest attribute equals the
    // Streebog-256 of the data, its signature over the signed attributes
    // verifies, the signer's certificate is for signatures and, when it has
    // an extended key usage, for code signing, and its chain is trusted.
    Outcome CheckBuffer(Bytes data, Bytes signature) const;

    // As CheckBuffer, for data known only by its digest: `algorithm` must be
    // NV_SIGNATURE_VERIFIER_HASH_STREEBOG256 and `hash` 32 bytes.
    Outcome CheckHash(std::uint8_t algorithm, Bytes hash, Bytes signature) const;

    // Trusts one certificate, in DER exactly (BER is refused), as a root.
    // Adding a root twice is no error.
    Outcome AddRootCertificate(Bytes der);

    // Marks the identifier (SHA-256 of a certificate's DER) as revoked: a
    // later check whose chain holds that certificate fails as revoked, even
    // when it is added again. The certificate need not be known yet.
    Outcome RevokeRootCertificate(Bytes identifier);

    // Replaces the CRL consulted by the chain checks with one DER CRL; an
    // empty blob removes it. A CRL applies to the certificates of its issuer
    // and is itself checked against that issuer when used: a certificate of
    // that issuer to which it cannot be applied fails its chain. A CRL that
    // limits itself to some reasons or is indirect is refused.
    Outcome SetCrl(Bytes der);

    // Trusts every certificate found in the regular files of `directory`
    // (hidden files skipped): PEM files with one or more certificates, or DER
    // files with one. Returns the number added. Throws std::runtime_error
    // naming the directory or file when the directory cannot be read or a
    // file holds no certificate; nothing is added then.
    std::size_t LoadRoots(const std::filesystem::path& directory);

    static CertificateIdentifier IdentifierOf(const X509& certificate);

private:
    struct ParsedSignature;

    Outcome Parse(Bytes signature, ParsedSignature& parsed) const;
    Outcome Verify(ParsedSignature& parsed, Bytes digest) const;
    Outcome VerifyChain(X509* signer, STACK_OF(X509) * intermediates) const;

    X509StorePtr m_roots;
    std::set<CertificateIdentifier> m_revoked;
    CrlStackPtr m_crls; // empty or one CRL
    const EVP_MD* m_streebog;
};

}  // namespace signature_verifier::host
