// A verifier that records the handles it is given and answers a chosen code.
#pragma once

#include <stdexcept>
#include <vector>

#include "verifier_api/verifier.h"

namespace verifier_api_test {

class FakeVerifier final : public update::verifier::ipc::IVerifier {
public:
    explicit FakeVerifier(int result = 0) : m_result(result) {}

    int Verify(unsigned int handle) const override
    {
        m_handles.push_back(handle);
        return m_result;
    }

    const std::vector<unsigned int>& handles() const { return m_handles; }

private:
    int m_result;
    mutable std::vector<unsigned int> m_handles;
};

// Breaks the no-throw contract of Verify.
class ThrowingVerifier final : public update::verifier::ipc::IVerifier {
public:
    int Verify(unsigned int) const override { throw std::runtime_error("verifier threw"); }
};

}  // namespace verifier_api_test
