// What the two package verifiers share: the registry client and the
// signature checker they are built with.
#pragma once

#include <memory>

#include <signature_verifier/update_verifier.h>

#include "update/registry/ipc/registry.h"
#include "verifier_api/verifier.h"

namespace update::verifier {

// A verifier of one kind of package file. Immutable after construction and
// keeps every per-call value on the stack, so one object serves any number
// of threads at once without a lock.
class PackageVerifier : public ipc::IVerifier {
protected:
    // Takes both owners over. An empty one throws eka::ResultCodeException
    // 0x80000046 "empty registry" or "empty verifier" at `file` and the given
    // line; the registry is checked first.
    PackageVerifier(std::shared_ptr<update::registry::ipc::IRegistry> sessionRegistry,
                    std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> signatureChecker,
                    const char* file, int emptyRegistryLine, int emptyVerifierLine);

    std::shared_ptr<update::registry::ipc::IRegistry> registry;
    std::shared_ptr<signature_verifier::wrapper::ISignatureVerifier> verifier;
};

}  // namespace update::verifier
