// The verifier of endpoint 1: a session's signed application list.
#pragma once

#include "update/verifier/package_verifier.h"

namespace update::verifier {

// Checks the application list of a session's package against its detached
// signature file, in one call of the signature checker.
class ApplistVerifier final : public PackageVerifier {
public:
    // Throws eka::ResultCodeException 0x80000046 "empty registry" or "empty
    // verifier" for an empty owner.
    ApplistVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                    std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker);

    // 0 when the list's signature holds, otherwise the failing code that
    // common::utils::ManageException gives for the cause (which it logs).
    // Never throws. Logs one info line on success.
    int Verify(unsigned int handle) const noexcept override;
};

}  // namespace update::verifier
