// Library lifetime, the plain GOST hashers and the Nds* entry points.
#include <cstdint>

#include "nds/gost_core.h"
#include "nds/nds.h"
#include "nds_internal.h"

namespace {

constexpr int32_t kMaxUseCount = 1000000000;
volatile int32_t g_use_count = 0;

bool Initialized() { return NstdcAtomicRead(&g_use_count) > 0; }

unsigned BitsOf(NdsHashAlgorithm algorithm) {
    return algorithm == NDS_HASH_GOST_2012_256 ? 256U : algorithm == NDS_HASH_GOST_2012_512 ? 512U : 0U;
}

// Plain hasher slots.
int Algorithm256(const NdsHasher*) { return NDS_HASH_GOST_2012_256; }
int Algorithm512(const NdsHasher*) { return NDS_HASH_GOST_2012_512; }
int DigestSize256(const NdsHasher*) { return 32; }
int DigestSize512(const NdsHasher*) { return 64; }

int PlainUpdate(NdsHasher* h, const void* data, size_t size) {
    return GostHash_Update(h->state, data, size) == GOST_STATUS_OK ? 0 : NDS_ERROR_CORE;
}

int PlainFinalize(NdsHasher* h, void* out) {
    const int size = h->ops->GetDigestSize(h);
    return GostHash_Final(h->state, out, static_cast<size_t>(size)) == GOST_STATUS_OK ? 0 : NDS_ERROR_CORE;
}

int PlainReset(NdsHasher* h) { return GostHash_Reset(h->state) == GOST_STATUS_OK ? 0 : NDS_ERROR_CORE; }

int PlainClone(const NdsHasher* h, NdsHasher** out) {
    NdsHasher* copy = nds::detail::AllocHasher();
    if (copy == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    *copy = *h;
    copy->state = NstdcAlloc(h->state_size);
    if (copy->state == nullptr) {
        nds::detail::FreeHasher(copy);
        return NDS_ERROR_ALLOCATION;
    }
    if (GostHash_Copy(copy->state, h->state, h->state_size) != GOST_STATUS_OK) {
        NstdcFree(copy->state);
        nds::detail::FreeHasher(copy);
        return NDS_ERROR_CORE;
    }
    *out = copy;
    return 0;
}

int PlainDelete(NdsHasher* h) {
    GostHash_Clear(h->state);
    NstdcFree(h->state);
    nds::detail::FreeHasher(h);
    return 0;
}

}  // namespace

extern "C" {

const NdsHasherVtbl ndsCryptoProHasherVtbl_256 = {
    Algorithm256, DigestSize256, PlainUpdate, PlainFinalize, PlainReset, PlainClone, PlainDelete,
};

const NdsHasherVtbl ndsCryptoProHasherVtbl_512 = {
    Algorithm512, DigestSize512, PlainUpdate, PlainFinalize, PlainReset, PlainClone, PlainDelete,
};

int NdsInitializeLibrary(void) {
    if (NstdcAtomicRead(&g_use_count) > kMaxUseCount) {
        return NDS_ERROR_STATE;
    }
    NstdcAtomicInc(&g_use_count);
    return 0;
}

int NdsDeInitializeLibrary(void) {
    if (NstdcAtomicRead(&g_use_count) < 1 || NstdcAtomicDec(&g_use_count) < 0) {
        return NDS_ERROR_STATE;
    }
    return 0;
}

int NdsIsInitializedLibrary(void) { return Initialized() ? 1 : 0; }

int NdsCryptoPro_CreateHasher(NdsHashAlgorithm algorithm, NdsHasher** out) {
    if (out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    NdsHasher* h = nds::detail::AllocHasher();
    if (h == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    const unsigned bits = BitsOf(algorithm);
    if (bits == 0) {
        nds::detail::FreeHasher(h);
        return NDS_ERROR_ARGUMENT;
    }
    size_t size = 0;
    if (GostHash_StateSize(bits, &size) != GOST_STATUS_SIZE_ONLY) {
        nds::detail::FreeHasher(h);
        return NDS_ERROR_CORE;
    }
    h->state = NstdcAlloc(size);
    if (h->state == nullptr) {
        nds::detail::FreeHasher(h);
        return NDS_ERROR_ALLOCATION;
    }
    if (GostHash_Init(h->state, size, bits, &h->extra) != GOST_STATUS_OK) {
        NstdcFree(h->state);
        nds::detail::FreeHasher(h);
        return NDS_ERROR_CORE;
    }
    h->state_size = size;
    h->ops = bits == 256U ? &ndsCryptoProHasherVtbl_256 : &ndsCryptoProHasherVtbl_512;
    h->active = 1;
    *out = h;
    return 0;
}

int NdsCreateHasher(NdsHashAlgorithm algorithm, NdsHasher** out) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (out == nullptr || BitsOf(algorithm) == 0) {
        return NDS_ERROR_ARGUMENT;
    }
    const int rc = NdsCryptoPro_CreateHasher(algorithm, out);
    if (rc == 0) {
        (*out)->active = 1;
    }
    return rc;
}

int NdsCloneHasher(const NdsHasher* h, NdsHasher** out) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr || out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    const int rc = h->ops->Clone(h, out);
    if (rc == 0) {
        (*out)->active = h->active;
    }
    return rc;
}

int NdsDeleteHasher(NdsHasher* h) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    h->ops->Delete(h);
    return 0;
}

int NdsResetHasher(NdsHasher* h) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    const int rc = h->ops->Reset(h);
    if (rc == 0) {
        h->active = 1;
    }
    return rc;
}

int NdsUpdateHasher(NdsHasher* h, const void* data, size_t size) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr || (data == nullptr && size != 0)) {
        return NDS_ERROR_ARGUMENT;
    }
    if (h->active == 0) {
        return NDS_ERROR_STATE;
    }
    return h->ops->Update(h, data, size);
}

int NdsFinalizeHasher(NdsHasher* h, void* out, size_t size) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr || out == nullptr || size != static_cast<size_t>(h->ops->GetDigestSize(h))) {
        return NDS_ERROR_ARGUMENT;
    }
    if (h->active == 0) {
        return NDS_ERROR_STATE;
    }
    const int rc = h->ops->Finalize(h, out);
    if (rc == 0) {
        h->active = 0;
    }
    return rc;
}

int NdsFinalizeHasherWithAdditionalContent(NdsHasher* h, const void* extra, size_t extra_size,
                                           void* out, size_t size) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr || (extra == nullptr && extra_size != 0) || out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    if (h->active == 0) {
        return NDS_ERROR_STATE;
    }
    if (size != static_cast<size_t>(h->ops->GetDigestSize(h))) {
        return NDS_ERROR_ARGUMENT;
    }
    int rc = extra_size != 0 ? h->ops->Update(h, extra, extra_size) : 0;
    if (rc == 0) {
        rc = h->ops->Finalize(h, out);
    }
    if (rc == 0) {
        h->active = 0;
    }
    return rc;
}

int NdsGetHashDigestSize(const NdsHasher* h) {
    return (h == nullptr || !Initialized()) ? 0 : h->ops->GetDigestSize(h);
}

int NdsGetHashAlgorithmIdentifier(const NdsHasher* h) {
    return (h == nullptr || !Initialized()) ? 0 : h->ops->GetAlgorithmIdentifier(h);
}

int NdsGetDigestSize(NdsHashAlgorithm algorithm) { return static_cast<int>(BitsOf(algorithm) / 8U); }

int NdsCreateFormatAwareHasher(NdsHashAlgorithm algorithm, NdsHasher** out) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    const int rc = NdsFormatAwareHasher_Create(algorithm, out);
    if (rc == 0) {
        (*out)->active = 1;
    }
    return rc;
}

int NdsFinalizeFormatAwareHasher(NdsHasher* h, void* out, size_t size, int* format_out) {
    if (!Initialized()) {
        return NDS_ERROR_NOT_INITIALIZED;
    }
    if (h == nullptr || out == nullptr || h->ops != &ndsFormatAwareHasherVtbl ||
        size != static_cast<size_t>(h->ops->GetDigestSize(h))) {
        return NDS_ERROR_ARGUMENT;
    }
    if (h->active == 0) {
        return NDS_ERROR_STATE;
    }
    const int rc = NdsFormatAwareContentHandler_Finalize(
        static_cast<NdsFormatAwareContentHandler*>(h->state), out, size, format_out);
    if (rc == 0) {
        h->active = 0;
    }
    return rc;
}

int NdsCryptoPro_CheckSign(int parameter_set, const void* first, size_t first_size,
                           const void* second, size_t second_size, const void* public_key,
                           size_t key_size) {
    size_t size = 0;
    const int query = GostSign_ContextSize(parameter_set, &size);
    if (query == GOST_STATUS_BAD_ARGUMENT) {
        return NDS_ERROR_ARGUMENT;
    }
    if (query != GOST_STATUS_SIZE_ONLY) {
        return NDS_ERROR_CORE;
    }
    void* ctx = NstdcAlloc(size);
    if (ctx == nullptr) {
        return NDS_ERROR_ALLOCATION;
    }
    int rc = GostSign_Init(ctx, size, parameter_set);
    if (rc == GOST_STATUS_OK) {
        rc = GostSign_SetPublicKey(ctx, public_key, key_size);
    }
    if (rc == GOST_STATUS_OK) {
        // The core takes the signature before the signed digest.
        rc = GostSign_Verify(ctx, second, second_size, first, first_size);
    }
    GostSign_Clear(ctx);
    NstdcFree(ctx);
    switch (rc) {
        case GOST_STATUS_OK:
            return 0;
        case GOST_STATUS_BAD_SIGNATURE:
            return NDS_ERROR_BAD_SIGNATURE;
        case GOST_STATUS_BAD_ARGUMENT:
            return NDS_ERROR_ARGUMENT;
        default:
            return NDS_ERROR_CORE;
    }
}

int NdsCryptoPro_GetGostLibraryVersionString(const char** out) {
    if (out == nullptr) {
        return NDS_ERROR_ARGUMENT;
    }
    return GostCore_Version(out) == GOST_STATUS_OK ? 0 : NDS_ERROR_CORE;
}

}  // extern "C"
