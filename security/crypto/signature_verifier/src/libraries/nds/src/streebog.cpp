// GOST R 34.11-2012 hash objects on caller-owned memory.
#include <algorithm>
#include <cstring>

#include "nds/gost_core.h"
#include "streebog_compress.h"

namespace nds::gost {
namespace {

constexpr std::uint32_t kLive = 0x53424731U;      // initialised, accepts data
constexpr std::uint32_t kFinished = 0x53424746U;  // digest taken; Reset or Copy next

struct HashState {
    std::uint64_t h[8];
    std::uint64_t n[8];
    std::uint64_t sigma[8];
    std::uint8_t buf[64];
    std::uint32_t buf_len;
    std::uint32_t bits;
    std::uint32_t tag;
    std::uint32_t reserved;
};

bool ValidBits(unsigned bits) { return bits == 256U || bits == 512U; }

HashState* AsState(void* p) { return static_cast<HashState*>(p); }

bool IsLive(const HashState* s) { return s != nullptr && s->tag == kLive && ValidBits(s->bits); }

bool IsKnown(const HashState* s) {
    return s != nullptr && (s->tag == kLive || s->tag == kFinished) && ValidBits(s->bits);
}

void Start(HashState* s, unsigned bits) {
    std::memset(s, 0, sizeof(*s));
    // The 256-bit variant starts from 0x01 in every byte, the 512-bit one from zero.
    if (bits == 256U) {
        for (auto& w : s->h) {
            w = 0x0101010101010101ULL;
        }
    }
    s->bits = bits;
    s->tag = kLive;
}

void Wipe(void* p, std::size_t size) {
    auto* v = static_cast<volatile std::uint8_t*>(p);
    for (std::size_t i = 0; i < size; ++i) {
        v[i] = 0;
    }
}

}  // namespace
}  // namespace nds::gost

using nds::gost::HashState;

extern "C" {

int GostHash_StateSize(unsigned bits, size_t* size) {
    if (size == nullptr || !nds::gost::ValidBits(bits)) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    *size = sizeof(HashState);
    return GOST_STATUS_SIZE_ONLY;
}

int GostHash_Init(void* state, size_t state_size, unsigned bits, uintptr_t* extra) {
    if (state == nullptr || state_size < sizeof(HashState) || !nds::gost::ValidBits(bits)) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    nds::gost::Start(nds::gost::AsState(state), bits);
    if (extra != nullptr) {
        *extra = bits;
    }
    return GOST_STATUS_OK;
}

int GostHash_Update(void* state, const void* data, size_t size) {
    HashState* s = nds::gost::AsState(state);
    if (!nds::gost::IsLive(s)) {
        return GOST_STATUS_BAD_OBJECT;
    }
    if (size == 0) {
        return GOST_STATUS_OK;
    }
    if (data == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    const auto& impl = nds::gost::SelectedImpl();
    const auto* p = static_cast<const std::uint8_t*>(data);
    if (s->buf_len != 0) {
        const std::size_t take = std::min<std::size_t>(size, 64U - s->buf_len);
        std::memcpy(s->buf + s->buf_len, p, take);
        s->buf_len += static_cast<std::uint32_t>(take);
        p += take;
        size -= take;
        if (s->buf_len < 64U) {
            return GOST_STATUS_OK;
        }
        impl.compress_blocks(s->h, s->n, s->sigma, s->buf, 1);
        s->buf_len = 0;
    }
    const std::size_t blocks = size / 64U;
    if (blocks != 0) {
        impl.compress_blocks(s->h, s->n, s->sigma, p, blocks);
        p += blocks * 64U;
        size -= blocks * 64U;
    }
    std::memcpy(s->buf, p, size);
    s->buf_len = static_cast<std::uint32_t>(size);
    return GOST_STATUS_OK;
}

int GostHash_Final(void* state, void* out, size_t out_size) {
    HashState* s = nds::gost::AsState(state);
    if (!nds::gost::IsLive(s)) {
        return GOST_STATUS_BAD_OBJECT;
    }
    const std::size_t digest_size = s->bits / 8U;
    if (out == nullptr || out_size < digest_size) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    const auto& impl = nds::gost::SelectedImpl();
    // The last, partial block is padded with one 1 bit above the data.
    std::memset(s->buf + s->buf_len, 0, 64U - s->buf_len);
    s->buf[s->buf_len] = 0x01;
    std::uint64_t m[8];
    nds::gost::LoadBlock(m, s->buf);
    impl.compress(s->h, s->n, m);
    nds::gost::AddSmall512(s->n, static_cast<std::uint64_t>(s->buf_len) * 8U);
    nds::gost::Add512(s->sigma, m);
    static constexpr std::uint64_t kZero[8] = {};
    impl.compress(s->h, kZero, s->n);
    impl.compress(s->h, kZero, s->sigma);

    std::uint8_t digest[64];
    for (int i = 0; i < 8; ++i) {
        for (int b = 0; b < 8; ++b) {
            digest[8 * i + b] = static_cast<std::uint8_t>(s->h[i] >> (8 * b));
        }
    }
    // The 256-bit digest is the most significant half of h.
    std::memcpy(out, digest + (64U - digest_size), digest_size);
    nds::gost::Wipe(digest, sizeof(digest));
    nds::gost::Wipe(m, sizeof(m));
    s->tag = nds::gost::kFinished;
    return GOST_STATUS_OK;
}

int GostHash_Reset(void* state) {
    HashState* s = nds::gost::AsState(state);
    if (!nds::gost::IsKnown(s)) {
        return GOST_STATUS_BAD_OBJECT;
    }
    nds::gost::Start(s, s->bits);
    return GOST_STATUS_OK;
}

int GostHash_Copy(void* dst, const void* src, size_t dst_size) {
    const auto* from = static_cast<const HashState*>(src);
    if (dst == nullptr || dst_size < sizeof(HashState)) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    if (!nds::gost::IsKnown(from)) {
        return GOST_STATUS_BAD_OBJECT;
    }
    std::memcpy(dst, src, sizeof(HashState));
    return GOST_STATUS_OK;
}

int GostHash_Clear(void* state) {
    if (state == nullptr) {
        return GOST_STATUS_BAD_ARGUMENT;
    }
    nds::gost::Wipe(state, sizeof(HashState));
    return GOST_STATUS_OK;
}

const char* GostHash_Implementation(void) { return nds::gost::SelectedImpl().name; }

}  // extern "C"
