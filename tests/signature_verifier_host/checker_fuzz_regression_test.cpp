// Faults found while fuzzing the signature checks, one test each.
#include <cstdint>
#include <vector>

#include <gtest/gtest.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "checker_fixture.h"

namespace signature_verifier::host::testing {
namespace {

using KeyPtr = OpenSslPtr<EVP_PKEY, EVP_PKEY_free>;
using OctetsPtr = OpenSslPtr<ASN1_OCTET_STRING, ASN1_OCTET_STRING_free>;
using ExtensionPtr = OpenSslPtr<X509_EXTENSION, X509_EXTENSION_free>;

// A self-signed certificate named "root"; with `unreadable` its
// basicConstraints extension does not decode, so that libcrypto reads the
// certificate whole but marks it invalid.
ByteVector RootCertificate(bool unreadable)
{
    KeyPtr key(EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", "P-256"));
    X509Ptr certificate(X509_new());
    OctetsPtr value(ASN1_OCTET_STRING_new());
    const unsigned char notBasicConstraints[] = {0x04, 0x00};
    const unsigned char basicConstraints[] = {0x30, 0x03, 0x01, 0x01, 0xFF};  // cA TRUE
    if (!key || !certificate || !value ||
        (unreadable ? ASN1_OCTET_STRING_set(value.get(), notBasicConstraints, sizeof notBasicConstraints)
                    : ASN1_OCTET_STRING_set(value.get(), basicConstraints, sizeof basicConstraints)) != 1)
        throw std::runtime_error("cannot build the test certificate");
    ExtensionPtr extension(X509_EXTENSION_create_by_NID(nullptr, NID_basic_constraints, 1, value.get()));
    X509_NAME* name = X509_get_subject_name(certificate.get());
    const auto* commonName = reinterpret_cast<const unsigned char*>("root");
    if (!extension || X509_set_version(certificate.get(), X509_VERSION_3) != 1 ||
        ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) != 1 ||
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, commonName, -1, -1, 0) != 1 ||
        X509_set_issuer_name(certificate.get(), name) != 1 ||
        X509_gmtime_adj(X509_getm_notBefore(certificate.get()), 0) == nullptr ||
        X509_gmtime_adj(X509_getm_notAfter(certificate.get()), 3600) == nullptr ||
        X509_set_pubkey(certificate.get(), key.get()) != 1 || X509_add_ext(certificate.get(), extension.get(), -1) != 1 ||
        X509_sign(certificate.get(), key.get(), EVP_sha256()) <= 0)
        throw std::runtime_error("cannot build the test certificate: " + TakeOpenSslErrors());
    unsigned char* der = nullptr;
    const int length = i2d_X509(certificate.get(), &der);
    if (length <= 0)
        throw std::runtime_error("cannot encode the test certificate");
    ByteVector bytes(der, der + length);
    OPENSSL_free(der);
    return bytes;
}

// Trusting such a root beside one of the same name queued an OpenSSL error
// although the root was added; the stale entry then showed up in the reason
// of the next failure.
TEST_F(CheckerTest, AddRootCertificate_UnreadableExtensionLeavesNoOpenSslError)
{
    SignatureChecker checker;
    ASSERT_TRUE(checker.AddRootCertificate(RootCertificate(false)).Ok());
    ERR_clear_error();
    const Outcome outcome = checker.AddRootCertificate(RootCertificate(true));
    EXPECT_TRUE(outcome.Ok()) << outcome.detail;
    EXPECT_EQ(TakeOpenSslErrors(), "");
}

}  // namespace
}  // namespace signature_verifier::host::testing
