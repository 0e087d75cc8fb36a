// Local half of the client library: hash contexts on the Nds hashing library,
// certificate identifiers, and the check of a hash context's digest.

#include <cstdint>
#include <cstdlib>

#include <nds/nds.h>
#include <openssl/sha.h>
#include <signature_verifier/signature_verifier.h>

#include "private/client_private.h"

namespace {

using namespace signature_verifier::client;

// A hash context: one zero-filled heap block.
struct SignatureHash {
    // The hash algorithm identifier; it goes on the wire as its first byte.
    std::uint32_t algorithm;
    std::uint64_t digest_size;
    NdsHasher* hasher;
};

constexpr std::uint32_t kHashAlgorithm = NDS_HASH_GOST_2012_256;
constexpr std::uint64_t kDigestSize = 32;

// The digest is finalised into a local buffer of this size by
// signature_verifier_check_hash.
constexpr std::size_t kCheckHashDigestBuffer = 40;

std::uint8_t WireAlgorithm(const SignatureHash& hash)
{
    return static_cast<std::uint8_t>(hash.algorithm & 0xFFu);
}

}  // namespace

extern "C" {

int signature_verifier_get_certificate_identifier(const void* cert, size_t cert_size, uint8_t* skid,
                                                  size_t* skid_size)
{
    if (cert == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_get_certificate_identifier: cert is NULL");
    if (cert_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_get_certificate_identifier: cert size is 0");
    if (skid_size == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_get_certificate_identifier: SKID size is NULL");
    if (skid != nullptr) {
        if (*skid_size < SIGNATURE_VERIFIER_IDENTIFIER_SIZE) {
            *skid_size = SIGNATURE_VERIFIER_IDENTIFIER_SIZE;
            return SIGNATURE_VERIFIER_BUFFER_TOO_SMALL;
        }
        SHA256(static_cast<const unsigned char*>(cert), cert_size, skid);
    }
    *skid_size = SIGNATURE_VERIFIER_IDENTIFIER_SIZE;
    return kStatusOk;
}

// The library reference taken here is not given back when the context
// cannot be made.
int signature_verifier_hash_create(void** hash_out)
{
    if (hash_out == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_hash_create: hash_out is NULL");
    int rc = NdsInitializeLibrary();
    if (rc < 0)
        return Fault(kStatusHashFailed, "signature_verifier_hash_create: Can't initialize NDS lib: %d", rc);
    auto* hash = static_cast<SignatureHash*>(std::calloc(1, sizeof(SignatureHash)));
    if (hash == nullptr)
        return Fault(kStatusOutOfMemory, "signature_verifier_hash_create: out of memory");
    hash->algorithm = kHashAlgorithm;
    hash->digest_size = kDigestSize;
    rc = NdsCreateHasher(static_cast<NdsHashAlgorithm>(kHashAlgorithm), &hash->hasher);
    if (rc < 0) {
        std::free(hash);
        return Fault(kStatusHashFailed, "signature_verifier_hash_create: Can't initialize NDS hasher: %d", rc);
    }
    *hash_out = hash;
    return kStatusOk;
}

int signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size)
{
    if (hash == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_hash_buffer: hash is NULL");
    if (buffer == nullptr || size == 0)
        return Fault(kStatusInvalidArgument,
                     "signature_verifier_hash_buffer: buffer and buffer size must both be not NULL");
    const int rc = NdsUpdateHasher(static_cast<SignatureHash*>(hash)->hasher, buffer, size);
    if (rc < 0)
        return Fault(kStatusHashFailed, "signature_verifier_hash_buffer: Can't hash data: %d", rc);
    return kStatusOk;
}

int signature_verifier_get_hash_value(void* hash, uint8_t* out, size_t* size)
{
    if (hash == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_get_hash_value: hash is NULL");
    if (size == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_get_hash_value: hash size is NULL");
    const auto* context = static_cast<SignatureHash*>(hash);
    if (out == nullptr) {
        *size = context->digest_size;
        return kStatusOk;
    }
    if (*size < context->digest_size) {
        *size = context->digest_size;
        return Fault(kStatusInvalidArgument, "signature_verifier_get_hash_value: too small hash buffer");
    }
    const int rc = NdsFinalizeHasher(context->hasher, out, context->digest_size);
    if (rc < 0)
        return Fault(kStatusHashFailed, "signature_verifier_get_hash_value: Can't get hash value: %d", rc);
    *size = context->digest_size;
    return kStatusOk;
}

int signature_verifier_check_hash(void* ctx, void* hash, const void* signature, size_t signature_size)
{
    if (ctx == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash: ctx is NULL");
    if (hash == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash: hash is NULL");
    if (signature == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash: signature is NULL");
    if (signature_size == 0)
        return Fault(kStatusInvalidArgument, "signature_verifier_check_hash: signature size is 0");
    // A digest that cannot be had leaves the zeroed buffer at its full size,
    // which the entity refuses.
    std::uint8_t digest[kCheckHashDigestBuffer] = {};
    std::size_t digestSize = sizeof digest;
    (void)signature_verifier_get_hash_value(hash, digest, &digestSize);
    const int status = signature_verifier_check_hash_value(ctx, WireAlgorithm(*static_cast<SignatureHash*>(hash)),
                                                           digest, digestSize, signature, signature_size);
    if (status < 0)
        return Fault(kStatusHashFailed, "signature_verifier_check_hash: can't check hash value: %d", status);
    return kStatusOk;
}

int signature_verifier_hash_close(void* hash)
{
    if (hash == nullptr)
        return Fault(kStatusInvalidArgument, "signature_verifier_hash_close: hash is NULL");
    auto* context = static_cast<SignatureHash*>(hash);
    int rc = NdsDeleteHasher(context->hasher);
    std::free(context);
    if (rc < 0)
        return Fault(kStatusHashFailed, "signature_verifier_hash_close: Can't deinitialize NDS hasher: %d", rc);
    rc = NdsDeInitializeLibrary();
    if (rc < 0)
        return Fault(kStatusHashFailed, "signature_verifier_hash_close: Can't deinitialize NDS lib: %d", rc);
    return kStatusOk;
}

}  // extern "C"
