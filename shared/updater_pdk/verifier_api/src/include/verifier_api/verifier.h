// The abstract verifier behind one endpoint of the IVerifier interface.
#pragma once

namespace update::verifier::ipc {

class IVerifier {
public:
    virtual ~IVerifier() = default;

    // Checks the update session whose registry handle is `handle` and returns
    // an eka result code: 0 on success, a negative code on failure. Must not
    // throw: an exception escaping here ends the process. Called from any
    // number of server threads at once.
    virtual int Verify(unsigned int handle) const = 0;
};

}  // namespace update::verifier::ipc
