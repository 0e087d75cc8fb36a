#include "verifier_api/stub.h"

#include <cstdint>

#include "common/utils/manage_exception.h"
#include "eka/result_code.h"
#include "eka/throw.h"

namespace update::verifier::ipc {
namespace {
// Where the argument checks report from; the lines are part of the log text
// that operators search for, so they are fixed here rather than taken from
// this file's layout.
constexpr const char* kFile = "shared/updater_pdk/verifier_api/src/stub";
constexpr int kSelfLine = 21;
constexpr int kReqLine = 22;
constexpr int kResLine = 23;
constexpr int kVerifierLine = 24;

constexpr std::uint32_t kHandleMask = 0x00FFFFFFu;
constexpr std::uint32_t kNoHandle = 0xFFFFFFFFu;

void CheckArgument(bool holds, int line, const char16_t* description)
{
    if (!holds)
        eka::Throw<eka::ResultCodeException>(kFile, line, eka::result::InvalidArgument, description);
}

void SetErrorReply(nv_IVerifier_Verify_res& res, int result) noexcept
{
    res.result = result;
    res.base_.size = (res.base_.size & NK_MSG_PLATFORM_MASK) | NK_MSG_ERROR_FLAG |
                     static_cast<std::uint32_t>(sizeof(nv_IVerifier_Verify_res));
}
}  // namespace

int VerifyStub(nv_IVerifier* self, const nv_IVerifier_Verify_req* req, const nk_arena* /*reqArena*/,
               nv_IVerifier_Verify_res* res, nk_arena* /*resArena*/) noexcept
{
    try {
        CheckArgument(self != nullptr, kSelfLine, u"self is nullptr");
        CheckArgument(req != nullptr, kReqLine, u"req is nullptr");
        CheckArgument(res != nullptr, kResLine, u"res is nullptr");
        CheckArgument(self->verifier != nullptr, kVerifierLine, u"empty verifier");
    } catch (...) {
        // ManageException logs the cause and gives its code.
        const int code = common::utils::ManageException("", "VerifyStub");
        if (res != nullptr)
            SetErrorReply(*res, code);
        return 0;
    }

    // Messages carry handles in 24 bits; their all-ones value is "no handle".
    std::uint32_t handle = req->handle & kHandleMask;
    if (handle == kHandleMask)
        handle = kNoHandle;

    // Outside any handler: a verifier that throws ends the process here.
    const int result = self->verifier->Verify(handle);
    if (result < 0)
        SetErrorReply(*res, result);
    return 0;
}

}  // namespace update::verifier::ipc
