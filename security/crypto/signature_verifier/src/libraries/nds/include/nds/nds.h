/*
 * Nds hashing library: reference-counted library lifetime, GOST R 34.11-2012
 * hashers behind one operation table, and a format-aware hasher that hashes
 * a PE32/PE32+ image with its checksum and certificate-table entry blanked.
 *
 * Every function returns 0 (or a positive count) on success and a negated
 * errno value on failure, with these meanings, kept as they are:
 *   -1  (-EPERM)   the library is not initialised
 *   -2  (-ENOENT)  object in the wrong state, or use count out of range
 *   -3  (-ESRCH)   bad argument or size mismatch
 *   -7  (-E2BIG)   an allocation failed
 *   -12 (-ENOMEM)  the GOST core failed
 *   -13 (-EACCES)  a signature does not hold
 *
 * Hasher objects are not thread-safe; the library use count is.
 */
#ifndef NDS_NDS_H
#define NDS_NDS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    NDS_ERROR_NOT_INITIALIZED = -1,
    NDS_ERROR_STATE = -2,          /* -ENOENT */
    NDS_ERROR_ARGUMENT = -3,       /* -ESRCH */
    NDS_ERROR_ALLOCATION = -7,     /* -E2BIG */
    NDS_ERROR_CORE = -12,          /* -ENOMEM */
    NDS_ERROR_BAD_SIGNATURE = -13, /* -EACCES */
};

typedef int NdsHashAlgorithm;
enum {
    NDS_HASH_GOST_2012_256 = 1, /* 32-byte digest */
    NDS_HASH_GOST_2012_512 = 2, /* 64-byte digest */
};

/* Formats reported by the format-aware hasher. */
enum {
    NDS_FORMAT_NONE = 0,
    NDS_FORMAT_PE32 = 1,
    NDS_FORMAT_PE32_PLUS = 2,
};

typedef struct NdsHasher NdsHasher;

/* Operation table; every slot takes the hasher first. */
typedef struct NdsHasherVtbl {
    int (*GetAlgorithmIdentifier)(const NdsHasher* h);
    int (*GetDigestSize)(const NdsHasher* h);
    int (*Update)(NdsHasher* h, const void* data, size_t size);
    int (*Finalize)(NdsHasher* h, void* out);
    int (*Reset)(NdsHasher* h);
    int (*Clone)(const NdsHasher* h, NdsHasher** out);
    int (*Delete)(NdsHasher* h);
} NdsHasherVtbl;

struct NdsHasher {
    const NdsHasherVtbl* ops;
    uint32_t active;   /* 1 from creation/reset until finalisation */
    void* state;       /* core hash state, or the format-aware handler */
    size_t state_size; /* bytes of `state` */
    uintptr_t extra;   /* word returned by the core at initialisation */
};

extern const NdsHasherVtbl ndsCryptoProHasherVtbl_256;
extern const NdsHasherVtbl ndsCryptoProHasherVtbl_512;
extern const NdsHasherVtbl ndsFormatAwareHasherVtbl;

/* Library lifetime. */
int NdsInitializeLibrary(void);
int NdsDeInitializeLibrary(void);
int NdsIsInitializedLibrary(void);

/* Hashers. */
int NdsCreateHasher(NdsHashAlgorithm algorithm, NdsHasher** out);
int NdsCloneHasher(const NdsHasher* h, NdsHasher** out);
int NdsDeleteHasher(NdsHasher* h);
int NdsResetHasher(NdsHasher* h);
int NdsUpdateHasher(NdsHasher* h, const void* data, size_t size);
int NdsFinalizeHasher(NdsHasher* h, void* out, size_t size);
int NdsFinalizeHasherWithAdditionalContent(NdsHasher* h, const void* extra, size_t extra_size,
                                           void* out, size_t size);
int NdsGetHashDigestSize(const NdsHasher* h);
int NdsGetHashAlgorithmIdentifier(const NdsHasher* h);
int NdsGetDigestSize(NdsHashAlgorithm algorithm);

/* Format-aware hasher. */
int NdsCreateFormatAwareHasher(NdsHashAlgorithm algorithm, NdsHasher** out);
/* NdsFinalizeHasher for a format-aware hasher that also reports the format
 * recognised (NDS_FORMAT_*); -3 if `h` is not a format-aware hasher. */
int NdsFinalizeFormatAwareHasher(NdsHasher* h, void* out, size_t size, int* format_out);

/* Hashers on the GOST core. */
int NdsCryptoPro_CreateHasher(NdsHashAlgorithm algorithm, NdsHasher** out);

/*
 * GOST R 34.10-2001 signature check. `parameter_set` 1..7 selects the curve:
 *   1 test, 2 CryptoPro-A, 3 CryptoPro-B, 4 CryptoPro-C, 5 CryptoPro-XchA,
 *   6 CryptoPro-XchB, 7 GOST R 34.10-2012 256-bit set A.
 * `first` is the signed digest (big-endian integer, as a GOST R 34.10
 * signer takes it), `second` the 64-byte signature (s then r, big-endian),
 * `public_key` 64 bytes (X then Y, big-endian).
 * Returns 0 if the signature holds, -13 if not, -3 for a bad argument or
 * parameter set, -12 / -7 when the core or an allocation fails.
 */
int NdsCryptoPro_CheckSign(int parameter_set, const void* first, size_t first_size,
                           const void* second, size_t second_size, const void* public_key,
                           size_t key_size);
int NdsCryptoPro_GetGostLibraryVersionString(const char** out);

/* Format-aware content handler, the state of a format-aware hasher. */
typedef struct NdsFormatAwareContentHandler NdsFormatAwareContentHandler;
int NdsFormatAwareHasher_Create(NdsHashAlgorithm algorithm, NdsHasher** out);
int NdsFormatAwareContentHandler_Create(NdsHashAlgorithm algorithm,
                                        NdsFormatAwareContentHandler** out);
int NdsFormatAwareContentHandler_Update(NdsFormatAwareContentHandler* handler, const void* data,
                                        size_t size);
int NdsFormatAwareContentHandler_Finalize(NdsFormatAwareContentHandler* handler, void* out,
                                          size_t size, int* format_out);
int NdsFormatAwareContentHandler_Reset(NdsFormatAwareContentHandler* handler);
int NdsFormatAwareContentHandler_Clone(const NdsFormatAwareContentHandler* handler,
                                       NdsFormatAwareContentHandler** out);
int NdsFormatAwareContentHandler_Delete(NdsFormatAwareContentHandler* handler);
int NdsFormatAwareContentHandler_GetHashDigestSize(const NdsFormatAwareContentHandler* handler);
int NdsFormatAwareContentHandler_NdsHashAlgorithmIdentifier(
    const NdsFormatAwareContentHandler* handler);

/* Runtime support. */
void* NstdcAlloc(size_t size);
void NstdcFree(void* p);
int32_t NstdcAtomicRead(const volatile int32_t* p);
int32_t NstdcAtomicInc(volatile int32_t* p);
int32_t NstdcAtomicDec(volatile int32_t* p);

#ifdef __cplusplus
}
#endif

#endif
