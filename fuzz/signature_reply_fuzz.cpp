// Fuzz target: the one reply decoder of the signature-verifier client,
// shared by its five requests, over every transport return value and reply.
//
// Input: the transport's return value (int32), the request (1 byte, taken
// modulo 5), the 32-byte reply.
//
// Checks the status against the wire rules: a transport failure comes back
// unchanged; a normal reply gives 0; an error reply with completion code c
// gives -((c << 15) | 0x4000) in 32 bits, which always reads back as an
// encoded completion code (bit 14 of its magnitude) carrying c cut to 16
// bits. The reply is never written.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include <nglog/nglog.h>

#include "fuzz_support.h"
#include "private/client_private.h"

namespace {

using signature_verifier::client::RequestNames;

constexpr std::array<RequestNames, 5> kRequests{{
    {"signature_verifier_check_buffer", "nv_SignatureVerifier_CheckBuffer"},
    {"signature_verifier_check_hash_value", "nv_SignatureVerifier_CheckHash"},
    {"signature_verifier_add_root_certificate", "nv_SignatureVerifier_AddRootCertificate"},
    {"signature_verifier_revoke_root_certificate", "nv_SignatureVerifier_RevokeRootCertificate"},
    {"signature_verifier_set_crl_blob", "nv_SignatureVerifier_SetCRLBlob"},
}};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Every fault is logged; the lines would only flood the fuzzer's output.
    nglog_set_level(NGLOG_LEVEL_SILENT);
    fuzz::Reader in(data, size);
    const auto callResult = static_cast<Retcode>(in.U32());
    const RequestNames& names = kRequests[in.Byte() % kRequests.size()];
    const std::vector<std::uint8_t> raw = in.Bytes(sizeof(nv_SignatureVerifier_res));
    nv_SignatureVerifier_res reply;
    std::memcpy(&reply, raw.data(), sizeof reply);

    const int status = signature_verifier::client::DecodeReply(callResult, reply, names);
    FUZZ_CHECK(std::memcmp(&reply, raw.data(), sizeof reply) == 0);

    if (callResult != NK_EOK) {
        FUZZ_CHECK(status == callResult);
        return 0;
    }
    if ((fuzz::LoadU32(raw.data() + 4) & 0x80000000u) == 0) {
        FUZZ_CHECK(status == 0);
        return 0;
    }
    const std::uint32_t code = fuzz::LoadU32(raw.data() + 24);
    const std::uint32_t magnitude = (code << 15) | 0x4000u;
    FUZZ_CHECK(status == static_cast<std::int32_t>(0u - magnitude));
    // The status tells itself apart from a transport code the same way the
    // decoder does for a code that arrived through the transport.
    const std::uint32_t back = 0u - static_cast<std::uint32_t>(status);
    FUZZ_CHECK((back & 0x4000u) != 0);
    FUZZ_CHECK(((back >> 15) & 0xFFFFu) == (code & 0xFFFFu));
    return 0;
}
