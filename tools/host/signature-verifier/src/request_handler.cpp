#include "request_handler.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <string>

#include <spdlog/spdlog.h>

namespace signature_verifier::host {
namespace {

constexpr const char* kMethodNames[nv_SignatureVerifier_method_count] = {
    "CheckBuffer", "CheckHash", "AddRootCertificate", "RevokeRootCertificate", "SetCRLBlob"};

constexpr std::uint32_t kRequestSizes[nv_SignatureVerifier_method_count] = {
    sizeof(nv_SignatureVerifier_CheckBuffer_req), sizeof(nv_SignatureVerifier_CheckHash_req),
    sizeof(nv_SignatureVerifier_AddRootCertificate_req), sizeof(nv_SignatureVerifier_RevokeRootCertificate_req),
    sizeof(nv_SignatureVerifier_SetCRLBlob_req)};

Outcome Malformed(std::string detail)
{
    return Outcome{NV_SIGNATURE_VERIFIER_CC_MALFORMED_REQUEST, std::move(detail)};
}

// Resolves one descriptor against the received bytes of the arena.
class ArenaReader {
public:
    explicit ArenaReader(const nk_arena& arena) : m_received{arena.start, arena.current, arena.current}
    {
        if (arena.start == nullptr || arena.current < arena.start || arena.current > arena.end)
            m_received = nk_arena{nullptr, nullptr, nullptr};
    }

    // The bytes the descriptor names, at most `limit` of them. A failure is
    // recorded in `outcome` (when it holds none yet) and gives an empty span.
    Bytes Get(const nk_arena_desc& desc, std::uint32_t limit, const char* field, Outcome& outcome) const
    {
        if (!outcome.Ok())
            return {};
        if (desc.size > limit) {
            outcome = Malformed(std::string(field) + " of " + std::to_string(desc.size) + " bytes exceeds " +
                                std::to_string(limit));
            return {};
        }
        if (desc.size == 0 && desc.offset == 0)
            return {};
        const void* bytes = nk_arena_get(&m_received, desc);
        if (bytes == nullptr) {
            outcome = Malformed(std::string(field) + " (" + std::to_string(desc.offset) + ", " +
                                std::to_string(desc.size) + ") lies outside the " +
                                std::to_string(nk_arena_used(&m_received)) + " bytes of the arena");
            return {};
        }
        return Bytes(static_cast<const std::uint8_t*>(bytes), desc.size);
    }

private:
    nk_arena m_received;
};

bool AllZero(const std::uint8_t* bytes, std::size_t size)
{
    for (std::size_t i = 0; i < size; ++i) {
        if (bytes[i] != 0)
            return false;
    }
    return true;
}

}  // namespace

RequestHandler::RequestHandler(SignatureChecker& checker, std::uint32_t riid, std::shared_ptr<spdlog::logger> logger,
                               TrustChanges trustChanges)
    : m_checker(checker), m_riid(riid), m_logger(std::move(logger)), m_trustChanges(trustChanges)
{
}

std::uint32_t RequestHandler::Handle(const nv_SignatureVerifier_req& request, const nk_arena& arena,
                                     nv_SignatureVerifier_res& reply) noexcept
{
    const std::uint16_t mid = request.base.mid;
    const char* method = mid < nv_SignatureVerifier_method_count ? kMethodNames[mid] : "unknown method";
    Outcome outcome;
    try {
        outcome = Dispatch(request, arena);
    } catch (const std::exception& error) {
        outcome = Outcome{NV_SIGNATURE_VERIFIER_CC_INTERNAL_ERROR, error.what()};
    }

    std::memset(&reply, 0, sizeof reply);
    reply.base.riid = request.base.riid;
    reply.base.mid = mid;
    nk_msg_set_size(&reply.base, NV_SIGNATURE_VERIFIER_REPLY_SIZE);
    if (!outcome.Ok()) {
        reply.base.size |= NK_MSG_ERROR_FLAG;
        reply.completion_code = outcome.code;
    }

    try {
        if (outcome.Ok())
            m_logger->info("{}: passed", method);
        else
            m_logger->warn("{} (mid {}): refused with code {}: {}", method, mid, outcome.code, outcome.detail);
    } catch (const std::exception& error) {
        // A log line that cannot be written must not cost the client its answer.
        std::fprintf(stderr, "signature-verifier: cannot log: %s\n", error.what());
    }
    return outcome.code;
}

Outcome RequestHandler::Dispatch(const nv_SignatureVerifier_req& request, const nk_arena& received)
{
    const nk_message& header = request.base;
    if (header.riid != m_riid)
        return Malformed("interface " + std::to_string(header.riid) + " is not served here");
    if (header.mid >= nv_SignatureVerifier_method_count)
        return Malformed("method " + std::to_string(header.mid) + " does not exist");
    const std::uint32_t size = nk_msg_size(&header);
    if (size != kRequestSizes[header.mid])
        return Malformed("a request of " + std::to_string(size) + " bytes, expected " +
                         std::to_string(kRequestSizes[header.mid]));
    if (header.mid >= nv_SignatureVerifier_AddRootCertificate_mid && m_trustChanges != TrustChanges::Allowed)
        return Outcome{NV_SIGNATURE_VERIFIER_CC_TRUST_CHANGES_REFUSED,
                       "trust store changes are not allowed (the entity was started without --allow-trust-changes)"};

    const ArenaReader arena(received);
    Outcome outcome;
    switch (header.mid) {
    case nv_SignatureVerifier_CheckBuffer_mid: {
        const auto& req = request.check_buffer;
        const Bytes data = arena.Get(req.data, NV_SIGNATURE_VERIFIER_MAX_DATA_SIZE, "data", outcome);
        const Bytes signature =
            arena.Get(req.signature, NV_SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE, "signature", outcome);
        return outcome.Ok() ? m_checker.CheckBuffer(data, signature) : outcome;
    }
    case nv_SignatureVerifier_CheckHash_mid: {
        const auto& req = request.check_hash;
        if (!AllZero(req.reserved0, sizeof req.reserved0) || !AllZero(req.reserved1, sizeof req.reserved1))
            return Malformed("reserved bytes of CheckHash are not zero");
        const Bytes hash = arena.Get(req.hash, NV_SIGNATURE_VERIFIER_MAX_HASH_SIZE, "hash", outcome);
        const Bytes signature =
            arena.Get(req.signature, NV_SIGNATURE_VERIFIER_MAX_SIGNATURE_SIZE, "signature", outcome);
        return outcome.Ok() ? m_checker.CheckHash(req.algorithm, hash, signature) : outcome;
    }
    case nv_SignatureVerifier_AddRootCertificate_mid: {
        const Bytes der = arena.Get(request.add_root_certificate.certificate, UINT32_MAX, "certificate", outcome);
        return outcome.Ok() ? m_checker.AddRootCertificate(der) : outcome;
    }
    case nv_SignatureVerifier_RevokeRootCertificate_mid: {
        const Bytes id = arena.Get(request.revoke_root_certificate.identifier, UINT32_MAX, "identifier", outcome);
        return outcome.Ok() ? m_checker.RevokeRootCertificate(id) : outcome;
    }
    default: {
        const Bytes der = arena.Get(request.set_crl_blob.crl, UINT32_MAX, "CRL", outcome);
        return outcome.Ok() ? m_checker.SetCrl(der) : outcome;
    }
    }
}

}  // namespace signature_verifier::host
