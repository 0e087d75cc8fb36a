// SignatureVerifier requests built as a client lays them out: the message,
// and an arena holding the data, whose stored bytes are [start, current).
#pragma once

#include <cstdint>
#include <cstring>

#include <gtest/gtest.h>
#include <nos/message.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "test_support.h"

namespace signature_verifier::host::testing {

struct WireRequest {
    nv_SignatureVerifier_req message{};
    ByteVector buffer;
    nk_arena arena{};

    // `room` is the arena's capacity; the client's slack goes beyond the data.
    WireRequest(std::uint16_t mid, std::uint32_t size, std::size_t room) : buffer(room, 0)
    {
        message.base.mid = mid;
        nk_msg_set_size(&message.base, size);
        nk_arena_init(&arena, buffer.data(), buffer.size());
    }

    WireRequest(const WireRequest& other) : message(other.message), buffer(other.buffer)
    {
        RebaseArena(other);
    }

    WireRequest& operator=(const WireRequest& other)
    {
        if (this != &other) {
            message = other.message;
            buffer = other.buffer;
            RebaseArena(other);
        }
        return *this;
    }

    nk_arena_desc Store(const ByteVector& bytes)
    {
        nk_arena_desc desc{};
        EXPECT_EQ(nk_arena_store(&arena, &desc, bytes.data(), bytes.size()), NK_EOK);
        return desc;
    }

private:
    void RebaseArena(const WireRequest& other)
    {
        if (other.arena.start == nullptr) {
            arena = other.arena;
            return;
        }
        nk_arena_init(&arena, buffer.data(), buffer.size());
        arena.current = arena.start + (other.arena.current - other.arena.start);
    }
};

inline WireRequest CheckBufferRequest(const ByteVector& data, const ByteVector& signature)
{
    WireRequest r(nv_SignatureVerifier_CheckBuffer_mid, sizeof(nv_SignatureVerifier_CheckBuffer_req),
                  data.size() + signature.size() + 16);
    r.message.check_buffer.data = r.Store(data);
    r.message.check_buffer.signature = r.Store(signature);
    return r;
}

inline WireRequest CheckHashRequest(std::uint8_t algorithm, const ByteVector& hash, const ByteVector& signature)
{
    WireRequest r(nv_SignatureVerifier_CheckHash_mid, sizeof(nv_SignatureVerifier_CheckHash_req),
                  hash.size() + signature.size() + 16);
    r.message.check_hash.algorithm = algorithm;
    r.message.check_hash.hash = r.Store(hash);
    r.message.check_hash.signature = r.Store(signature);
    return r;
}

// AddRootCertificate, RevokeRootCertificate or SetCRLBlob: the three share
// the layout of a header and one descriptor.
inline WireRequest OneBlobRequest(std::uint16_t mid, const ByteVector& blob)
{
    WireRequest r(mid, 32, blob.size() + 8);
    r.message.set_crl_blob.crl = r.Store(blob);
    return r;
}

}  // namespace signature_verifier::host::testing
