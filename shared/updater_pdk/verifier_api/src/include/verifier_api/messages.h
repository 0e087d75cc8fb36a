// Wire records of the IVerifier interface. Little-endian; every record
// begins with the platform header nk_message, whose first two fields are the
// interface index (the endpoint: 0 product archive, 1 application list) and
// the method index (0 Verify, the only method).
#pragma once

#include <nos/message.h>

#include <cstddef>
#include <cstdint>

inline constexpr std::uint16_t nv_IVerifier_Verify_mid = 0;

// Request of Verify.
struct nv_IVerifier_Verify_req {
    nk_message base_;
    // The session handle; only its low 24 bits are meaningful.
    std::uint32_t handle;
    std::uint8_t padding_[4];
};

// Reply of Verify. A normal reply is the bare 24-byte header; an error reply
// has bit 31 of the size word set, is 32 bytes long and carries the
// verifier's negative result code.
struct nv_IVerifier_Verify_res {
    nk_message base_;
    std::int32_t result;
    std::uint8_t padding_[4];
};

// Every request and reply of one endpoint.
union nv_IVerifier_req {
    nk_message base_;
    nv_IVerifier_Verify_req Verify;
};

union nv_IVerifier_res {
    nk_message base_;
    nv_IVerifier_Verify_res Verify;
};

// The buffers the component's server receives into and replies from. The
// request buffer is the 40 bytes the channel is declared with.
union nv_Verifier_component_req {
    nk_message base_;
    nv_IVerifier_req productVerifier;
    nv_IVerifier_req applistVerifier;
    std::uint8_t raw_[40];
};

union nv_Verifier_component_res {
    nk_message base_;
    nv_IVerifier_res productVerifier;
    nv_IVerifier_res applistVerifier;
};

static_assert(sizeof(nv_IVerifier_Verify_req) == 32);
static_assert(offsetof(nv_IVerifier_Verify_req, base_) == 0);
static_assert(offsetof(nv_IVerifier_Verify_req, handle) == 24);
static_assert(sizeof(nv_IVerifier_Verify_res) == 32);
static_assert(offsetof(nv_IVerifier_Verify_res, base_) == 0);
static_assert(offsetof(nv_IVerifier_Verify_res, result) == 24);
static_assert(offsetof(nv_IVerifier_Verify_res, padding_) == 28);
static_assert(sizeof(nv_Verifier_component_req) == 40);
static_assert(sizeof(nv_Verifier_component_res) == 32);
