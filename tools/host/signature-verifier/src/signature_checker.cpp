#include "signature_checker.h"

#include <algorithm>
#include <climits>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <vector>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/obj_mac.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509v3.h>

namespace signature_verifier::host {
namespace {

Outcome Fail(std::uint32_t code, std::string detail)
{
    // Leave no stale entries behind for the next operation's diagnostics.
    ERR_clear_error();
    return Outcome{code, std::move(detail)};
}

Outcome Internal(const std::string& what)
{
    std::string detail = what;
    const std::string errors = TakeOpenSslErrors();
    if (!errors.empty())
        detail += ": " + errors;
    return Outcome{NV_SIGNATURE_VERIFIER_CC_INTERNAL_ERROR, detail};
}

// Decodes exactly one DER object that fills the whole input, or nothing.
template <typename T, T* (*Decode)(T**, const unsigned char**, long), void (*Free)(T*)>
OpenSslPtr<T, Free> DecodeWhole(Bytes der)
{
    if (der.empty() || der.size() > static_cast<std::size_t>(LONG_MAX))
        return nullptr;
    const unsigned char* cursor = der.data();
    OpenSslPtr<T, Free> object(Decode(nullptr, &cursor, static_cast<long>(der.size())));
    if (object && cursor != der.data() + der.size())
        object.reset();
    ERR_clear_error();
    return object;
}

constexpr auto DecodeCertificate = DecodeWhole<X509, d2i_X509, X509_free>;
constexpr auto DecodeCrl = DecodeWhole<X509_CRL, d2i_X509_CRL, X509_CRL_free>;
constexpr auto DecodeCms = DecodeWhole<CMS_ContentInfo, d2i_CMS_ContentInfo, CMS_ContentInfo_free>;

std::string SubjectOf(const X509* certificate)
{
    char name[256] = {};
    X509_NAME_oneline(X509_get_subject_name(certificate), name, sizeof name);
    return name;
}

// The slot of a chain check's context that holds the CRL in use.
int CrlSlot()
{
    static const int slot = X509_STORE_CTX_get_ex_new_index(0, nullptr, nullptr, nullptr, nullptr);
    return slot;
}

// Chain checks with a CRL: a certificate of another issuer than the CRL's has
// no CRL, and that is not an error. For a certificate of the CRL's issuer,
// "unable to get CRL" means that the CRL could not be applied to it (out of
// its scope, or not provably its issuer's), which fails the chain.
int AcceptMissingCrlOfOtherIssuers(int ok, X509_STORE_CTX* context)
{
    if (ok != 0 || X509_STORE_CTX_get_error(context) != X509_V_ERR_UNABLE_TO_GET_CRL)
        return ok;
    const auto* crl = static_cast<const X509_CRL*>(X509_STORE_CTX_get_ex_data(context, CrlSlot()));
    const X509* certificate = X509_STORE_CTX_get_current_cert(context);
    if (crl == nullptr || certificate == nullptr)
        return ok;
    return X509_NAME_cmp(X509_get_issuer_name(certificate), X509_CRL_get_issuer(crl)) != 0 ? 1 : 0;
}

bool IsSigningKey(X509* certificate)
{
    if ((X509_get_extension_flags(certificate) & EXFLAG_KUSAGE) == 0)
        return true;
    return (X509_get_key_usage(certificate) & (KU_DIGITAL_SIGNATURE | KU_NON_REPUDIATION)) != 0;
}

// A certificate without extended key usage may sign anything; one that names
// its purposes must name code signing (anyExtendedKeyUsage alone is not).
bool IsForCodeSigning(X509* certificate)
{
    if ((X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) == 0)
        return true;
    return (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0;
}

// Why a CRL cannot be applied to every certificate of its issuer, or "".
// The chain check passes over a CRL of either kind for every certificate.
std::string UnusableScope(const X509_CRL& crl)
{
    const OpenSslPtr<ISSUING_DIST_POINT, ISSUING_DIST_POINT_free> point(static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(&crl, NID_issuing_distribution_point, nullptr, nullptr)));
    ERR_clear_error();
    if (!point)
        return "";
    if (point->onlysomereasons != nullptr)
        return "its issuing distribution point covers only some reasons";
    if (point->indirectCRL != 0)
        return "it is an indirect CRL";
    return "";
}

// Whether `der` is exactly the DER encoding of `certificate`, which was
// decoded from it. The to-be-signed part is encoded again rather than taken
// from what the decoder kept of the input.
bool IsExactDer(X509& certificate, Bytes der)
{
    if (i2d_re_X509_tbs(&certificate, nullptr) <= 0)
        return false;
    unsigned char* encoded = nullptr;
    const int length = i2d_X509(&certificate, &encoded);
    const bool same = length > 0 && static_cast<std::size_t>(length) == der.size() &&
                      std::equal(der.begin(), der.end(), encoded);
    OPENSSL_free(encoded);
    ERR_clear_error();
    return same;
}

std::vector<std::uint8_t> ReadFile(const std::filesystem::path& file)
{
    std::ifstream in(file, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open root certificate file '" + file.string() + "'");
    std::vector<std::uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        throw std::runtime_error("cannot read root certificate file '" + file.string() + "'");
    return bytes;
}

// Every certificate of a PEM file, or the one certificate of a DER file.
std::vector<X509Ptr> CertificatesIn(Bytes bytes)
{
    std::vector<X509Ptr> certificates;
    if (bytes.size() > static_cast<std::size_t>(INT_MAX))
        return certificates;
    BioPtr bio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
    if (!bio)
        return certificates;
    while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr))
        certificates.emplace_back(certificate);
    ERR_clear_error(); // the end of the PEM input shows as an error
    if (certificates.empty()) {
        if (X509Ptr certificate = DecodeCertificate(bytes))
            certificates.push_back(std::move(certificate));
    }
    return certificates;
}

}  // namespace

struct SignatureChecker::ParsedSignature {
    CmsPtr cms;
    CMS_SignerInfo* signerInfo = nullptr; // owned by cms
    X509StackPtr certificates;            // all certificates the signature carries
    X509* signer = nullptr;               // owned by certificates
    const ASN1_OCTET_STRING* messageDigest = nullptr; // owned by cms
};

SignatureChecker::SignatureChecker()
    : m_roots(X509_STORE_new()),
      m_crls(sk_X509_CRL_new_null()),
      m_streebog(EVP_get_digestbynid(NID_id_GostR3411_2012_256))
{
    if (!m_roots || !m_crls)
        throw std::runtime_error("cannot create the trust store: " + TakeOpenSslErrors());
    if (m_streebog == nullptr)
        throw std::runtime_error("Streebog-256 is not available: the GOST engine is not loaded");
}

CertificateIdentifier SignatureChecker::IdentifierOf(const X509& certificate)
{
    CertificateIdentifier identifier{};
    unsigned char* der = nullptr;
    const int length = i2d_X509(&certificate, &der);
    if (length > 0) {
        SHA256(der, static_cast<std::size_t>(length), identifier.data());
        OPENSSL_free(der);
    }
    return identifier;
}

Outcome SignatureChecker::CheckBuffer(Bytes data, Bytes signature) const
{
    ParsedSignature parsed;
    if (Outcome parsing = Parse(signature, parsed); !parsing.Ok())
        return parsing;
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned int digestSize = 0;
    if (EVP_Digest(data.data(), data.size(), digest.data(), &digestSize, m_streebog, nullptr) != 1)
        return Internal("cannot compute Streebog-256 of the data");
    return Verify(parsed, Bytes(digest.data(), digestSize));
}

Outcome SignatureChecker::CheckHash(std::uint8_t algorithm, Bytes hash, Bytes signature) const
{
    if (algorithm != NV_SIGNATURE_VERIFIER_HASH_STREEBOG256)
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM,
                    "hash algorithm " + std::to_string(algorithm) + " is not supported");
    if (hash.size() != NV_SIGNATURE_VERIFIER_STREEBOG256_SIZE)
        return Fail(NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE,
                    "a Streebog-256 hash has 32 bytes, not " + std::to_string(hash.size()));
    ParsedSignature parsed;
    if (Outcome parsing = Parse(signature, parsed); !parsing.Ok())
        return parsing;
    return Verify(parsed, hash);
}

Outcome SignatureChecker::Parse(Bytes signature, ParsedSignature& parsed) const
{
    if (signature.empty())
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signature is empty");
    parsed.cms = DecodeCms(signature);
    if (!parsed.cms)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signature is not one DER CMS structure");
    if (OBJ_obj2nid(CMS_get0_type(parsed.cms.get())) != NID_pkcs7_signed)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the CMS structure is not SignedData");
    if (CMS_is_detached(parsed.cms.get()) != 1)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signed content is embedded, not detached");

    const ASN1_OBJECT* contentType = CMS_get0_eContentType(parsed.cms.get());
    if (OBJ_obj2nid(contentType) != NID_pkcs7_data)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signed content is not of type data");

    STACK_OF(CMS_SignerInfo)* signerInfos = CMS_get0_SignerInfos(parsed.cms.get());
    if (sk_CMS_SignerInfo_num(signerInfos) != 1)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signature must have exactly one signer");
    parsed.signerInfo = sk_CMS_SignerInfo_value(signerInfos, 0);
    if (CMS_signed_get_attr_count(parsed.signerInfo) <= 0)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signer has no signed attributes");

    X509_ALGOR* digestAlgorithm = nullptr;
    X509_ALGOR* signatureAlgorithm = nullptr;
    CMS_SignerInfo_get0_algs(parsed.signerInfo, nullptr, nullptr, &digestAlgorithm, &signatureAlgorithm);
    if (digestAlgorithm == nullptr || OBJ_obj2nid(digestAlgorithm->algorithm) != NID_id_GostR3411_2012_256)
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM, "the digest is not Streebog-256");
    const int signatureNid = signatureAlgorithm ? OBJ_obj2nid(signatureAlgorithm->algorithm) : NID_undef;
    if (signatureNid != NID_id_GostR3410_2012_256 && signatureNid != NID_id_tc26_signwithdigest_gost3410_2012_256)
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM,
                    "the signature algorithm is not GOST R 34.10-2012 256-bit");

    // The content type is outside what the signature covers; its signed copy
    // must agree with it.
    const auto* signedContentType = static_cast<const ASN1_OBJECT*>(CMS_signed_get0_data_by_OBJ(
        parsed.signerInfo, OBJ_nid2obj(NID_pkcs9_contentType), -3, V_ASN1_OBJECT));
    if (signedContentType == nullptr || OBJ_cmp(signedContentType, contentType) != 0)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the contentType attribute does not match the content");

    parsed.messageDigest = static_cast<const ASN1_OCTET_STRING*>(CMS_signed_get0_data_by_OBJ(
        parsed.signerInfo, OBJ_nid2obj(NID_pkcs9_messageDigest), -3, V_ASN1_OCTET_STRING));
    if (parsed.messageDigest == nullptr)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signer has no single messageDigest attribute");

    parsed.certificates.reset(CMS_get1_certs(parsed.cms.get()));
    for (int i = 0; i < sk_X509_num(parsed.certificates.get()); ++i) {
        X509* candidate = sk_X509_value(parsed.certificates.get(), i);
        if (CMS_SignerInfo_cert_cmp(parsed.signerInfo, candidate) == 0) {
            parsed.signer = candidate;
            break;
        }
    }
    if (parsed.signer == nullptr)
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER, "the signature does not carry the signer's certificate");
    const EVP_PKEY* key = X509_get0_pubkey(parsed.signer);
    if (key == nullptr)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE, "the signer's public key cannot be read");
    if (EVP_PKEY_get_id(key) != NID_id_GostR3410_2012_256)
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM,
                    "the signer's key is not GOST R 34.10-2012 256-bit");
    CMS_SignerInfo_set1_signer_cert(parsed.signerInfo, parsed.signer);
    return {};
}

Outcome SignatureChecker::Verify(ParsedSignature& parsed, Bytes digest) const
{
    const auto* expected = ASN1_STRING_get0_data(parsed.messageDigest);
    const auto expectedSize = static_cast<std::size_t>(ASN1_STRING_length(parsed.messageDigest));
    if (expectedSize != digest.size() || CRYPTO_memcmp(expected, digest.data(), digest.size()) != 0)
        return Fail(NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE, "the message digest does not match the data");
    if (CMS_SignerInfo_verify(parsed.signerInfo) != 1)
        return Fail(NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE, "the signature over the signed attributes is wrong");
    return VerifyChain(parsed.signer, parsed.certificates.get());
}

Outcome SignatureChecker::VerifyChain(X509* signer, STACK_OF(X509) * intermediates) const
{
    if (!IsSigningKey(signer))
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER, "the signer's certificate is not for signatures");
    if (!IsForCodeSigning(signer))
        return Fail(NV_SIGNATURE_VERIFIER_CC_NOT_FOR_CODE_SIGNING,
                    "the signer's certificate is not for code signing: its extended key usage does not list it");
    X509StoreCtxPtr context(X509_STORE_CTX_new());
    if (!context || X509_STORE_CTX_init(context.get(), m_roots.get(), signer, intermediates) != 1)
        return Internal("cannot set up the chain check");
    if (sk_X509_CRL_num(m_crls.get()) > 0) {
        X509_STORE_CTX_set0_crls(context.get(), m_crls.get());
        if (X509_STORE_CTX_set_ex_data(context.get(), CrlSlot(), sk_X509_CRL_value(m_crls.get(), 0)) != 1)
            return Internal("cannot set up the chain check");
        X509_STORE_CTX_set_flags(context.get(), X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL);
        X509_STORE_CTX_set_verify_cb(context.get(), AcceptMissingCrlOfOtherIssuers);
    }
    if (X509_verify_cert(context.get()) != 1) {
        const int error = X509_STORE_CTX_get_error(context.get());
        X509* at = X509_STORE_CTX_get_current_cert(context.get());
        std::string detail = X509_verify_cert_error_string(error);
        if (at != nullptr)
            detail += " at " + SubjectOf(at);
        if (error == X509_V_ERR_CERT_REVOKED)
            return Fail(NV_SIGNATURE_VERIFIER_CC_REVOKED, detail);
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER, detail);
    }
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        const X509* certificate = sk_X509_value(chain, i);
        if (m_revoked.count(IdentifierOf(*certificate)) != 0)
            return Fail(NV_SIGNATURE_VERIFIER_CC_REVOKED, "the chain holds the revoked " + SubjectOf(certificate));
    }
    return {};
}

Outcome SignatureChecker::AddRootCertificate(Bytes der)
{
    X509Ptr certificate = DecodeCertificate(der);
    if (!certificate)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE, "not one DER certificate");
    // A root is named by the SHA-256 of its DER (RevokeRootCertificate); one
    // sent in another encoding could not be revoked by the bytes sent.
    if (!IsExactDer(*certificate, der))
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE, "a certificate in BER, not DER");
    if (X509_STORE_add_cert(m_roots.get(), certificate.get()) != 1)
        return Internal("cannot add the root " + SubjectOf(certificate.get()));
    // Comparing it with a stored root of the same name reads its extensions,
    // which queues an error for one that does not decode although the root
    // is kept; the entry must not reach the next operation's reason.
    ERR_clear_error();
    return {};
}

Outcome SignatureChecker::RevokeRootCertificate(Bytes identifier)
{
    if (identifier.size() != NV_SIGNATURE_VERIFIER_IDENTIFIER_SIZE)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST,
                    "an identifier has 32 bytes, not " + std::to_string(identifier.size()));
    CertificateIdentifier revoked{};
    std::copy(identifier.begin(), identifier.end(), revoked.begin());
    m_revoked.insert(revoked);
    return {};
}

Outcome SignatureChecker::SetCrl(Bytes der)
{
    if (der.empty()) {
        while (sk_X509_CRL_num(m_crls.get()) > 0)
            X509_CRL_free(sk_X509_CRL_pop(m_crls.get()));
        return {};
    }
    X509CrlPtr crl = DecodeCrl(der);
    if (!crl)
        return Fail(NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL, "not one DER CRL");
    if (const std::string why = UnusableScope(*crl); !why.empty())
        return Fail(NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL, "the CRL cannot be applied: " + why);
    CrlStackPtr replacement(sk_X509_CRL_new_null());
    if (!replacement || sk_X509_CRL_push(replacement.get(), crl.get()) == 0)
        return Internal("cannot keep the CRL");
    crl.release();
    m_crls = std::move(replacement);
    return {};
}

std::size_t SignatureChecker::LoadRoots(const std::filesystem::path& directory)
{
    std::error_code error;
    std::filesystem::directory_iterator entries(directory, error);
    if (error)
        throw std::runtime_error("cannot read the roots directory '" + directory.string() + "': " + error.message());
    std::vector<std::filesystem::path> files;
    for (const auto& entry : entries) {
        if (entry.path().filename().string().starts_with(".") || !entry.is_regular_file())
            continue;
        files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());

    std::vector<X509Ptr> roots;
    for (const auto& file : files) {
        const std::vector<std::uint8_t> bytes = ReadFile(file);
        std::vector<X509Ptr> found = CertificatesIn(bytes);
        if (found.empty())
            throw std::runtime_error("'" + file.string() + "' holds no PEM or DER certificate");
        std::move(found.begin(), found.end(), std::back_inserter(roots));
    }
    for (const auto& root : roots) {
        if (X509_STORE_add_cert(m_roots.get(), root.get()) != 1)
            throw std::runtime_error("cannot trust " + SubjectOf(root.get()) + ": " + TakeOpenSslErrors());
    }
    return roots.size();
}

}  // namespace signature_verifier::host
