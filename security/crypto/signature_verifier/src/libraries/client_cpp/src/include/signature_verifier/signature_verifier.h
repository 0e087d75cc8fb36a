/* Client of the signature-verifier entity, and local hashing for it.
 *
 * Every function returns an int status:
 *   0         success;
 *   22        EINVAL: a bad argument;
 *   12        ENOMEM: an allocation failed, or the request arena could not
 *             hold the data;
 *   13        EACCES: the connection to the entity could not be made;
 *   14        EFAULT: the hash library failed, or a hash check failed;
 *   75        the identifier buffer is too small
 *             (signature_verifier_get_certificate_identifier only);
 *   negative  the five requests only: a transport error, or an error reply
 *             of the entity. A completion code c of the entity comes back as
 *             -((c << 15) | 0x4000): code 1 gives -49152. Bit 14 of the
 *             magnitude tells such a code from a plain transport error.
 *
 * Every fault is written to the plain logging facility (nglog) at level 1,
 * and only when nglog_level_ is above 0.
 *
 * A connection (the `ctx` of signature_verifier_init) may be used by one
 * caller at a time. A hash context hashes with GOST R 34.11-2012 into a
 * 32-byte digest.
 */
#ifndef SIGNATURE_VERIFIER_SIGNATURE_VERIFIER_H
#define SIGNATURE_VERIFIER_SIGNATURE_VERIFIER_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The channel of the signature-verifier entity. */
#define SIGNATURE_VERIFIER_SERVICE_NAME "nv.SignatureVerifierEntity"

/* Largest data and signature of a request, and largest hash of
 * signature_verifier_check_hash_value. */
#define SIGNATURE_VERIFIER_MAX_DATA_SIZE 0x4000000u
#define SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE 0x4000000u
#define SIGNATURE_VERIFIER_MAX_HASH_SIZE 512u

/* Size of a certificate identifier (SHA-256 of its DER). */
#define SIGNATURE_VERIFIER_IDENTIFIER_SIZE 32u

/* Status 75 of signature_verifier_get_certificate_identifier. */
#define SIGNATURE_VERIFIER_BUFFER_TOO_SMALL 75

/* Connects to the entity serving `connection_name` and stores the
 * connection in *ctx. 13 when nobody serves it or it has no
 * "storage.storage" endpoint; *ctx is left as it was on any failure. */
int signature_verifier_init(const char* connection_name, void** ctx);

/* Frees a connection (NULL is accepted). Returns 0. */
int signature_verifier_destroy(void* ctx);

/* Asks the entity whether `signature` (detached CMS, DER) signs `buffer`.
 * A NULL buffer of size 0 sends empty data. Data and signature: at most
 * 0x4000000 bytes each; the signature must not be empty. */
int signature_verifier_check_buffer(void* ctx, const void* buffer, size_t buffer_size, const void* signature,
                                    size_t signature_size);

/* Asks the entity whether `signature` signs the digest `hash` made with
 * `algorithm` (1: GOST R 34.11-2012, 256 bits; sent as given). The hash is
 * 1 to 512 bytes, the signature 1 to 0x4000000. */
int signature_verifier_check_hash_value(void* ctx, uint8_t algorithm, const void* hash, size_t hash_size,
                                        const void* signature, size_t signature_size);

/* Makes the entity trust the root certificate `cert` (DER). */
int signature_verifier_add_root_certificate(void* ctx, const void* cert, size_t cert_size);

/* Makes the entity refuse every chain through the certificate whose
 * identifier is `skid` (see signature_verifier_get_certificate_identifier). */
int signature_verifier_revoke_root_certificate(void* ctx, const void* skid, size_t skid_size);

/* Replaces the entity's revocation list with `crl` (DER); a NULL blob of
 * size 0 removes it. */
int signature_verifier_set_crl_blob(void* ctx, const void* crl, size_t crl_size);

/* Local: the identifier of a certificate, the SHA-256 of its whole blob.
 * With `skid` NULL only reports the size (32) in *skid_size; with a buffer
 * of fewer than *skid_size = 32 bytes returns 75 and sets *skid_size to 32. */
int signature_verifier_get_certificate_identifier(const void* cert, size_t cert_size, uint8_t* skid,
                                                  size_t* skid_size);

/* Local hash contexts (GOST R 34.11-2012, 32-byte digest). Each context
 * holds one reference on the hash library from create to close. */
int signature_verifier_hash_create(void** hash_out);
/* Adds `size` bytes (not 0) to the hash. Fails with 14 once the hash has
 * been finalised. */
int signature_verifier_hash_buffer(void* hash, const void* buffer, size_t size);
/* Finalises the hash into `out`, which must hold *size >= 32 bytes; sets
 * *size to 32. With `out` NULL only reports the size, without finalising. */
int signature_verifier_get_hash_value(void* hash, uint8_t* out, size_t* size);
/* Finalises `hash` and asks the entity whether `signature` signs it. Any
 * refusal of the entity, and any transport error, gives 14. */
int signature_verifier_check_hash(void* ctx, void* hash, const void* signature, size_t signature_size);
/* Frees a hash context and gives back its library reference. */
int signature_verifier_hash_close(void* hash);

#ifdef __cplusplus
}
#endif

#endif
