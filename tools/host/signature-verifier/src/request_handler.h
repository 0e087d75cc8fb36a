// Decoding of the SignatureVerifier requests into the checks and the trust
// store changes, and the encoding of the replies.
#pragma once

#include <cstdint>
#include <memory>

#include <nos/message.h>
#include <signature_verifier/signature_verifier_idl.h>

#include "signature_checker.h"

namespace spdlog {
class logger;
}

namespace signature_verifier::host {

// Whether clients may change the trust store (AddRootCertificate,
// RevokeRootCertificate, SetCRLBlob).
enum class TrustChanges { Refused, Allowed };

class RequestHandler {
public:
    // `riid` is the interface index that requests must carry (the endpoint's
    // riid on the channel). Logs one line per request through `logger`.
    // Refused trust changes are answered NV_SIGNATURE_VERIFIER_CC_TRUST_CHANGES_REFUSED.
    RequestHandler(SignatureChecker& checker, std::uint32_t riid, std::shared_ptr<spdlog::logger> logger,
                   TrustChanges trustChanges = TrustChanges::Refused);

    // Answers one request. `request` is the message as received; `arena` the
    // request arena as the transport left it, the bytes received being
    // [start, current). Every descriptor must lie inside those bytes. The
    // reply is always written whole: 32 bytes, riid and mid of the request,
    // size 32, and on failure the error bit and the completion code. Returns
    // the completion code (0 for success). Never throws.
    std::uint32_t Handle(const nv_SignatureVerifier_req& request, const nk_arena& arena,
                         nv_SignatureVerifier_res& reply) noexcept;

private:
    Outcome Dispatch(const nv_SignatureVerifier_req& request, const nk_arena& received);

    SignatureChecker& m_checker;
    std::uint32_t m_riid;
    std::shared_ptr<spdlog::logger> m_logger;
    TrustChanges m_trustChanges;
};

}  // namespace signature_verifier::host
