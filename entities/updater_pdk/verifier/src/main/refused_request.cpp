#include "refused_request.h"

#include <cstdint>
#include <cstring>

#include "eka/result_code.h"
#include "verifier_api/messages.h"

namespace update::verifier::entity {
namespace {
// The interface indexes that the component routes: 0 product, 1 applist.
constexpr std::uint16_t kLastInterface = 1;
}  // namespace

int DispatchOrRefuse(nv_Verifier_component* component, const nk_message* request, const nk_arena* requestArena,
                     nk_message* response, nk_arena* responseArena)
{
    const int rc = nv_Verifier_component_dispatch(component, request, requestArena, response, responseArena);
    if (rc == 0 || request == nullptr || response == nullptr)
        return rc;
    auto* reply = reinterpret_cast<nv_IVerifier_Verify_res*>(response);
    std::memset(reply, 0, sizeof(*reply));
    reply->base_.riid = request->riid;
    reply->base_.mid = request->mid;
    reply->base_.size = NK_MSG_ERROR_FLAG | static_cast<std::uint32_t>(sizeof(nv_IVerifier_Verify_res));
    reply->result =
        request->riid > kLastInterface ? eka::result::InterfaceNotSupported : eka::result::MethodNotFound;
    return rc;
}

}  // namespace update::verifier::entity
