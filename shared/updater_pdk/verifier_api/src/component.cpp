#include <nos/types.h>

#include <cstdint>
#include <cstring>

#include "verifier_api/component.h"

namespace {
// The answer to an interface or method index that names nothing.
constexpr int kNoSuchMethod = NK_ENOENT;

// Size words of the two kinds of reply.
constexpr std::uint32_t kNormalReplySize = sizeof(nk_message);
constexpr std::uint32_t kErrorReplySize = NK_MSG_ERROR_FLAG | sizeof(nv_IVerifier_Verify_res);

nv_IVerifier* EndpointObject(const nv_Verifier_component& component, std::uint16_t riid)
{
    const nv_Verifier_endpoint* endpoint = nullptr;
    switch (riid) {
    case 0:
        endpoint = component.productVerifier;
        break;
    case 1:
        endpoint = component.applistVerifier;
        break;
    default:
        return nullptr;
    }
    if (endpoint == nullptr || endpoint->verifier == nullptr || endpoint->verifier->ops == nullptr ||
        endpoint->verifier->ops->Verify == nullptr)
        return nullptr;
    return endpoint->verifier;
}
}  // namespace

int nv_Verifier_component_dispatch(nv_Verifier_component* self, const nk_message* req, const nk_arena* reqArena,
                                   nk_message* res, nk_arena* resArena)
{
    if (self == nullptr || req == nullptr || res == nullptr)
        return NK_EINVAL;
    const std::uint16_t riid = req->riid;
    const std::uint16_t mid = req->mid;

    nv_IVerifier* object = EndpointObject(*self, riid);
    if (object == nullptr)
        return kNoSuchMethod;
    if (mid != nv_IVerifier_Verify_mid) {
        res->riid = riid;
        res->mid = mid;
        return kNoSuchMethod;
    }

    auto* reply = reinterpret_cast<nv_IVerifier_Verify_res*>(res);
    std::memset(reply, 0, sizeof(nv_IVerifier_Verify_res));
    const int rc = object->ops->Verify(object, reinterpret_cast<const nv_IVerifier_Verify_req*>(req), reqArena,
                                       reply, resArena);
    if (rc == 0)
        res->size = (res->size & NK_MSG_ERROR_FLAG) != 0 ? kErrorReplySize : kNormalReplySize;
    res->riid = riid;
    res->mid = mid;
    return rc;
}
