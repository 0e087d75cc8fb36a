/* Wire layouts of the SignatureVerifier interface.
 *
 * The one definition of these messages: the client library builds requests
 * from it and the signature-verifier entity decodes them with it. Every
 * integer is little-endian; every request and reply begins with the platform
 * header nk_message. Variable data travels in the request arena and is named
 * by nk_arena_desc fields (offset from the arena start, length).
 *
 * Replies are 32 bytes. A normal reply has the size word 32 and carries no
 * result: the check passed or the change was made. An error reply has bit 31
 * of the size word set (NK_MSG_ERROR_FLAG), the size 32, and a completion
 * code (NV_SIGNATURE_VERIFIER_CC_*) at byte 24.
 */
#ifndef SIGNATURE_VERIFIER_IDL_H
#define SIGNATURE_VERIFIER_IDL_H

#include <stdint.h>

#include <nos/message.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Service locator names of the entity. */
#define NV_SIGNATURE_VERIFIER_CONNECTION "nv.SignatureVerifierEntity"
#define NV_SIGNATURE_VERIFIER_ENDPOINT "storage.storage"

/* Method indexes (nk_message.mid). */
#define nv_SignatureVerifier_CheckBuffer_mid 0u
#define nv_SignatureVerifier_CheckHash_mid 1u
#define nv_SignatureVerifier_AddRootCertificate_mid 2u
#define nv_SignatureVerifier_RevokeRootCertificate_mid 3u
#define nv_SignatureVerifier_SetCRLBlob_mid 4u
#define nv_SignatureVerifier_method_count 5u

/* Limits of the data a request may carry. */
#define NV_SIGNATURE_VERIFIER_MAX_DATA_SIZE 0x4000000u      /* CheckBuffer data: 64 MiB */
#define NV_SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE 0x4000000u /* any signature: 64 MiB */
#define NV_SIGNATURE_VERIFIER_MAX_HASH_SIZE 512u            /* CheckHash hash as sent */

/* CheckHash algorithm: GOST R 34.11-2012 (Streebog) with a 256-bit digest. */
#define NV_SIGNATURE_VERIFIER_HASH_STREEBOG256 1u
#define NV_SIGNATURE_VERIFIER_STREEBOG256_SIZE 32u

/* RevokeRootCertificate identifier: SHA-256 of the certificate's DER. */
#define NV_SIGNATURE_VERIFIER_IDENTIFIER_SIZE 32u

/* Completion codes of an error reply (byte 24). 0 is never sent. */
#define NV_SIGNATURE_VERIFIER_CC_OK 0u
/* The signature does not match the data or the hash. */
#define NV_SIGNATURE_VERIFIER_CC_INVALID_SIGNATURE 1u
/* The signer's chain does not lead to a trusted root, or a certificate of it is unusable. */
#define NV_SIGNATURE_VERIFIER_CC_UNTRUSTED_SIGNER 2u
/* A certificate of the chain is in the revocation list, or the chain ends at a revoked root. */
#define NV_SIGNATURE_VERIFIER_CC_REVOKED 3u
/* The signature is not a detached DER CMS SignedData with one signer and signed attributes. */
#define NV_SIGNATURE_VERIFIER_CC_MALFORMED_SIGNATURE 4u
/* CheckHash algorithm other than 1, or a signature not made with GOST R 34.10-2012 256-bit and Streebog-256. */
#define NV_SIGNATURE_VERIFIER_CC_UNSUPPORTED_ALGORITHM 5u
/* CheckHash with algorithm 1 and a hash that is not 32 bytes. */
#define NV_SIGNATURE_VERIFIER_CC_INVALID_HASH_SIZE 6u
/* Unknown interface or method, wrong message size, descriptor outside the arena, bad identifier size. */
#define NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST 7u
/* AddRootCertificate with bytes that are not one DER certificate. */
#define NV_SIGNATURE_VERIFIER_CC_MALFORMED_CERTIFICATE 8u
/* SetCRLBlob with bytes that are not one DER CRL. */
#define NV_SIGNATURE_VERIFIER_CC_MALFORMED_CRL 9u
/* The entity could not finish the check (out of memory, crypto library failure). */
#define NV_SIGNATURE_VERIFIER_CC_INTERNAL_ERROR 10u
/* The signer's certificate has an extended key usage that does not list code signing. */
#define NV_SIGNATURE_VERIFIER_CC_NOT_FOR_CODE_SIGNING 11u
/* SetCRLBlob with a CRL that cannot be applied to every certificate of its issuer
 * (an issuing distribution point with only some reasons, or an indirect CRL). */
#define NV_SIGNATURE_VERIFIER_CC_UNUSABLE_CRL 12u
/* A trust store change (methods 2 to 4) to an entity that does not allow them. */
#define NV_SIGNATURE_VERIFIER_CC_TRUST_CHANGES_REFUSED 13u
/* The highest completion code the entity sends. */
#define NV_SIGNATURE_VERIFIER_CC_LAST NV_SIGNATURE_VERIFIER_CC_TRUST_CHANGES_REFUSED

typedef struct nv_SignatureVerifier_CheckBuffer_req {
    nk_message base;
    nk_arena_desc data;
    nk_arena_desc signature;
} nv_SignatureVerifier_CheckBuffer_req;

typedef struct nv_SignatureVerifier_CheckHash_req {
    nk_message base;
    uint8_t algorithm;
    uint8_t reserved0[3]; /* zero */
    nk_arena_desc hash;
    nk_arena_desc signature;
    uint8_t reserved1[4]; /* zero */
} nv_SignatureVerifier_CheckHash_req;

typedef struct nv_SignatureVerifier_AddRootCertificate_req {
    nk_message base;
    nk_arena_desc certificate; /* DER */
} nv_SignatureVerifier_AddRootCertificate_req;

typedef struct nv_SignatureVerifier_RevokeRootCertificate_req {
    nk_message base;
    nk_arena_desc identifier; /* NV_SIGNATURE_VERIFIER_IDENTIFIER_SIZE bytes */
} nv_SignatureVerifier_RevokeRootCertificate_req;

typedef struct nv_SignatureVerifier_SetCRLBlob_req {
    nk_message base;
    nk_arena_desc crl; /* DER; length 0 clears the list */
} nv_SignatureVerifier_SetCRLBlob_req;

/* The reply of every method. */
typedef struct nv_SignatureVerifier_res {
    nk_message base;
    uint32_t completion_code; /* meaningful only with NK_MSG_ERROR_FLAG set */
    uint32_t reserved;        /* zero */
} nv_SignatureVerifier_res;

typedef nv_SignatureVerifier_res nv_SignatureVerifier_CheckBuffer_res;
typedef nv_SignatureVerifier_res nv_SignatureVerifier_CheckHash_res;
typedef nv_SignatureVerifier_res nv_SignatureVerifier_AddRootCertificate_res;
typedef nv_SignatureVerifier_res nv_SignatureVerifier_RevokeRootCertificate_res;
typedef nv_SignatureVerifier_res nv_SignatureVerifier_SetCRLBlob_res;

/* Any request, as a server receives it before it knows the method. */
typedef union nv_SignatureVerifier_req {
    nk_message base;
    nv_SignatureVerifier_CheckBuffer_req check_buffer;
    nv_SignatureVerifier_CheckHash_req check_hash;
    nv_SignatureVerifier_AddRootCertificate_req add_root_certificate;
    nv_SignatureVerifier_RevokeRootCertificate_req revoke_root_certificate;
    nv_SignatureVerifier_SetCRLBlob_req set_crl_blob;
} nv_SignatureVerifier_req;

#define NV_SIGNATURE_VERIFIER_REPLY_SIZE 32u

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <cstddef>
#define NV_SV_ASSERT_(cond, text) static_assert(cond, text)
#else
#include <stddef.h>
#define NV_SV_ASSERT_(cond, text) _Static_assert(cond, text)
#endif

NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_CheckBuffer_req) == 40, "CheckBuffer request is 40 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckBuffer_req, data) == 24, "CheckBuffer data at 24");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckBuffer_req, signature) == 32, "CheckBuffer signature at 32");

NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_CheckHash_req) == 48, "CheckHash request is 48 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckHash_req, algorithm) == 24, "CheckHash algorithm at 24");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckHash_req, hash) == 28, "CheckHash hash at 28");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckHash_req, signature) == 36, "CheckHash signature at 36");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_CheckHash_req, reserved1) == 44, "CheckHash tail at 44");

NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_AddRootCertificate_req) == 32, "AddRootCertificate request is 32 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_AddRootCertificate_req, certificate) == 24, "certificate at 24");
NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_RevokeRootCertificate_req) == 32, "RevokeRootCertificate request is 32 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_RevokeRootCertificate_req, identifier) == 24, "identifier at 24");
NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_SetCRLBlob_req) == 32, "SetCRLBlob request is 32 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_SetCRLBlob_req, crl) == 24, "CRL at 24");

NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_res) == NV_SIGNATURE_VERIFIER_REPLY_SIZE, "reply is 32 bytes");
NV_SV_ASSERT_(offsetof(nv_SignatureVerifier_res, completion_code) == 24, "completion code at 24");
NV_SV_ASSERT_(sizeof(nv_SignatureVerifier_req) == 48, "the largest request is 48 bytes");

#undef NV_SV_ASSERT_

#endif
