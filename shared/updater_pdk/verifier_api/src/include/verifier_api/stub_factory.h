// Binds a verifier to an interface object.
#pragma once

#include <memory>

#include "verifier_api/component.h"

namespace update::verifier::ipc {

// Returns an interface object that holds `verifier` and calls it through
// VerifyStub. An empty `verifier` throws eka::ResultCodeException 0x80000046
// "empty verifier".
nv_IVerifier CreateStub(std::shared_ptr<IVerifier> verifier);

}  // namespace update::verifier::ipc
