/*
 * GOST cryptography core: GOST R 34.11-2012 hashing (256- and 512-bit
 * digests) and GOST R 34.10-2001 signature verification.
 *
 * Objects live in memory owned by the caller. Every object type is used in
 * the same way: ask for its size (the call answers with GOST_STATUS_SIZE_ONLY
 * and the size), allocate that many bytes, initialise, use, clear, free.
 * Memory handed to the core must be aligned for a 64-bit integer.
 *
 * All functions return GOST_STATUS_OK on success or a negative GOST_STATUS_*
 * value; none of them allocates memory or keeps global state other than the
 * implementation chosen for this CPU (decided once, thread-safely).
 */
#ifndef NDS_GOST_CORE_H
#define NDS_GOST_CORE_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    GOST_STATUS_OK = 0,
    GOST_STATUS_SIZE_ONLY = 1,      /* a size query answered, nothing else done */
    GOST_STATUS_BAD_ARGUMENT = -1,  /* null pointer, bad size, unknown variant */
    GOST_STATUS_BAD_OBJECT = -2,    /* not an initialised object of this kind */
    GOST_STATUS_BAD_SIGNATURE = -3, /* a well-formed signature that does not hold */
    GOST_STATUS_FAILED = -4,        /* the underlying arithmetic library failed */
};

/* Hash (GOST R 34.11-2012). `bits` is 256 or 512. */
int GostHash_StateSize(unsigned bits, size_t* size);
/* `extra` (may be null) receives the digest length in bits. */
int GostHash_Init(void* state, size_t state_size, unsigned bits, uintptr_t* extra);
int GostHash_Update(void* state, const void* data, size_t size);
/* Writes the digest (32 or 64 bytes, `out_size` must be at least that) in
 * the byte order of the usual test vectors, then leaves the state finished:
 * only Reset, Copy (as destination) or Clear may follow. */
int GostHash_Final(void* state, void* out, size_t out_size);
int GostHash_Reset(void* state);
/* `dst` must be a block of the same size as `src`, initialised or not. */
int GostHash_Copy(void* dst, const void* src, size_t dst_size);
int GostHash_Clear(void* state);
/* Name of the compression path in use ("gfni", "avx", "portable"). */
const char* GostHash_Implementation(void);

/*
 * Signature verification (GOST R 34.10-2001 over a 256-bit curve).
 *
 * Parameter sets, by index:
 *   1  test curve of GOST R 34.10-2001
 *   2  CryptoPro-A
 *   3  CryptoPro-B
 *   4  CryptoPro-C
 *   5  CryptoPro-XchA
 *   6  CryptoPro-XchB
 *   7  GOST R 34.10-2012 256-bit parameter set A
 *
 * Public key: 64 bytes, X then Y, each 32 bytes big-endian.
 * Signature:  64 bytes, s then r, each 32 bytes big-endian.
 * Digest:     1 to 64 bytes, read as a big-endian integer e (reduced mod q;
 *             a zero remainder is taken as 1).
 */
int GostSign_ContextSize(int parameter_set, size_t* size);
int GostSign_Init(void* ctx, size_t ctx_size, int parameter_set);
int GostSign_SetPublicKey(void* ctx, const void* key, size_t key_size);
int GostSign_Verify(void* ctx, const void* signature, size_t signature_size,
                    const void* digest, size_t digest_size);
int GostSign_Clear(void* ctx);

/* Static text naming the core, its version and the arithmetic library. */
int GostCore_Version(const char** out);

#ifdef __cplusplus
}
#endif

#endif
