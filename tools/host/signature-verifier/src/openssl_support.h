// Owning handles of OpenSSL objects (so that every early return frees them)
// and the reading of its error queue.
#pragma once

#include <memory>
#include <string>

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/x509.h>

namespace signature_verifier::host {

template <typename T, void (*Free)(T*)>
struct OpenSslDeleter {
    void operator()(T* object) const noexcept { Free(object); }
};

template <typename T, void (*Free)(T*)>
using OpenSslPtr = std::unique_ptr<T, OpenSslDeleter<T, Free>>;

using BioPtr = OpenSslPtr<BIO, BIO_free_all>;
using CmsPtr = OpenSslPtr<CMS_ContentInfo, CMS_ContentInfo_free>;
using X509Ptr = OpenSslPtr<X509, X509_free>;
using X509CrlPtr = OpenSslPtr<X509_CRL, X509_CRL_free>;
using X509StorePtr = OpenSslPtr<X509_STORE, X509_STORE_free>;
using X509StoreCtxPtr = OpenSslPtr<X509_STORE_CTX, X509_STORE_CTX_free>;

inline void FreeX509Stack(STACK_OF(X509) * certs) { sk_X509_pop_free(certs, X509_free); }
inline void FreeCrlStack(STACK_OF(X509_CRL) * crls) { sk_X509_CRL_pop_free(crls, X509_CRL_free); }
using X509StackPtr = OpenSslPtr<STACK_OF(X509), FreeX509Stack>;
using CrlStackPtr = OpenSslPtr<STACK_OF(X509_CRL), FreeCrlStack>;

// Empties this thread's OpenSSL error queue and returns its entries as one
// text ("" when it was empty), for log lines and exception messages.
inline std::string TakeOpenSslErrors()
{
    std::string text;
    unsigned long error = 0;
    while ((error = ERR_get_error()) != 0) {
        char line[256];
        ERR_error_string_n(error, line, sizeof line);
        if (!text.empty())
            text += "; ";
        text += line;
    }
    return text;
}

}  // namespace signature_verifier::host
