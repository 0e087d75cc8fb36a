// The verifier of endpoint 0: a session's product update archive.
#pragma once

#include "update/verifier/package_verifier.h"

namespace update::verifier {

// Checks the update archive of a session's package against its detached
// signature file in two steps: the archive is hashed here (read once, in
// bounded chunks, by the signature checker's GetHash) and only the hash
// travels to the signature-verifier entity.
class ProductVerifier final : public PackageVerifier {
public:
    // Throws eka::ResultCodeException 0x80000046 "empty registry" or "empty
    // verifier" for an empty owner.
    ProductVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                    std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker);

    // 0 when the archive's signature holds, otherwise the failing code that
    // common::utils::ManageException gives for the cause (which it logs).
    // Never throws. Logs one info line on success.
    int Verify(unsigned int handle) const noexcept override;
};

}  // namespace update::verifier
