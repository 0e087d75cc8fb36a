// The operation of the IVerifier interface object.
#pragma once

#include <nos/message.h>

#include "verifier_api/component.h"

namespace update::verifier::ipc {

// Calls self's verifier with the request's handle: its low 24 bits, with
// 0xFFFFFF widened to 0xFFFFFFFF (no handle). A negative result becomes an
// error reply: the code at byte 24 and the size word (old AND 0x7F800000) OR
// 0x80000020; any other result leaves the reply untouched. A null `self`,
// `req` or `res`, or an interface object without a verifier, is logged
// through ManageException and answered the same way with 0x80000046 (nothing
// is written without a reply). Always returns 0; the arenas are not used.
int VerifyStub(nv_IVerifier* self, const nv_IVerifier_Verify_req* req, const nk_arena* reqArena,
               nv_IVerifier_Verify_res* res, nk_arena* resArena) noexcept;

}  // namespace update::verifier::ipc
