// GOST R 34.10-2001 signature verification on libgcrypt, and the core's
// version text.
#include <gcrypt.h>

#include <array>
#include <cstring>
#include <string>

#include "nds/gost_core.h"

namespace nds::gost {
namespace {

constexpr std::uint32_t kSignTag = 0x53494731U;
constexpr std::size_t kCoordinateSize = 32;

// Index i (1-based) of the parameter sets named in gost_core.h. The
// "Xch" sets are libgcrypt's aliases of the key-exchange curves.
constexpr std::array<const char*, 8> kCurves = {
    nullptr,
    "GOST2001-test",
    "GOST2001-CryptoPro-A",
    "GOST2001-CryptoPro-B",
    "GOST2001-CryptoPro-C",
    "GOST2001-CryptoPro-XchA",
    "GOST2001-CryptoPro-XchB",
    "GOST2012-256-A",
};

struct SignContext {
    std::uint32_t tag;
    int parameter_set;
    gcry_sexp_t key;
};

const char* CurveName(int parameter_set) {
    if (parameter_set < 1 || parameter_set >= static_cast<int>(kCurves.size())) {
        return nullptr;
    }
    return kCurves[static_cast<std::size_t>(parameter_set)];
}

bool GcryptReady() {
    static const bool ready = gcry_check_version(GCRYPT_VERSION) != nullptr;
    return ready;
}

SignContext* AsLive(void* ctx) {
    auto* c = static_cast<SignContext*>(ctx);
    return (c != nullptr && c->tag == kSignTag && CurveName(c->parameter_set) != nullptr) ? c
                                                                                          : nullptr;
}

}  // namespace
}  // namespace nds::gost

using nds::gost::SignContext;

extern "C" {

int GostSign_ContextSize(int parameter_set, size_t* size) {
    if (size == nullptr || nds::gost::CurveName(parameter_set) == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    *size = sizeof(SignContext);
    return GOST_STATUS_SIZE_ONLY;
}

int GostSign_Init(void* ctx, size_t ctx_size, int parameter_set) {
    if (ctx == nullptr || ctx_size < sizeof(SignContext) ||
        nds::gost::CurveName(parameter_set) == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    if (!nds::gost::GcryptReady()) {
        return GOST_STATUS_FAILED;
    }
    auto* c = static_cast<SignContext*>(ctx);
    c->tag = nds::gost::kSignTag;
    c->parameter_set = parameter_set;
    c->key = nullptr;
    return GOST_STATUS_OK;
}

int GostSign_SetPublicKey(void* ctx, const void* key, size_t key_size) {
    SignContext* c = nds::gost::AsLive(ctx);
    if (c == nullptr) {
        return GOST_STATUS_BAD_OBJECT;
    }
    if (key == nullptr || key_size != 2 * nds::gost::kCoordinateSize) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    std::uint8_t point[1 + 2 * nds::gost::kCoordinateSize];
    point[0] = 0x04;  // uncompressed point
    std::memcpy(point + 1, key, key_size);
    gcry_sexp_t sexp = nullptr;
    const gcry_error_t err =
        gcry_sexp_build(&sexp, nullptr, "(public-key (ecc (curve %s) (q %b)))",
                        nds::gost::CurveName(c->parameter_set), static_cast<int>(sizeof(point)), point);
    if (err != 0) {
        return GOST_STATUS_FAILED;
    }
    gcry_sexp_release(c->key);
    c->key = sexp;
    return GOST_STATUS_OK;
}

int GostSign_Verify(void* ctx, const void* signature, size_t signature_size, const void* digest,
                    size_t digest_size) {
    SignContext* c = nds::gost::AsLive(ctx);
    if (c == nullptr || c->key == nullptr) {
        return GOST_STATUS_BAD_OBJECT;
    }
    constexpr std::size_t half = nds::gost::kCoordinateSize;
    if (signature == nullptr || signature_size != 2 * half || digest == nullptr ||
        digest_size == 0 || digest_size > 64) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    const auto* sig = static_cast<const std::uint8_t*>(signature);
    gcry_sexp_t data = nullptr;
    gcry_sexp_t sig_val = nullptr;
    gcry_error_t err = gcry_sexp_build(&data, nullptr, "(data (flags gost) (value %b))",
                                       static_cast<int>(digest_size), digest);
    if (err == 0) {
        err = gcry_sexp_build(&sig_val, nullptr, "(sig-val (gost (r %b) (s %b)))",
                              static_cast<int>(half), sig + half, static_cast<int>(half), sig);
    }
    int status = GOST_STATUS_FAILED;
    if (err == 0) {
        err = gcry_pk_verify(sig_val, data, c->key);
        if (err == 0) {
            status = GOST_STATUS_OK;
        } else if (gcry_err_code(err) == GPG_ERR_BAD_SIGNATURE) {
            status = GOST_STATUS_BAD_SIGNATURE;
        }
    }
    gcry_sexp_release(sig_val);
    gcry_sexp_release(data);
    return status;
}

int GostSign_Clear(void* ctx) {
    auto* c = static_cast<SignContext*>(ctx);
    if (c == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    if (c->tag == nds::gost::kSignTag) {
        gcry_sexp_release(c->key);
    }
    std::memset(c, 0, sizeof(*c));
    return GOST_STATUS_OK;
}

int GostCore_Version(const char** out) {
    if (out == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    static const std::string text = [] {
        const char* gcrypt = nds::gost::GcryptReady() ? gcry_check_version(nullptr) : nullptr;
        return std::string("nds-gost 1.0.0 (GOST R 34.11-2012: ") + GostHash_Implementation() +
               "; GOST R 34.10-2001: libgcrypt " + (gcrypt != nullptr ? gcrypt : "unavailable") +
               ")";
    }();
    *out = text.c_str();
    return GOST_STATUS_OK;
}

}  // extern "C"
