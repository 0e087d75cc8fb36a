// Tests against the real signature-verifier process: the test PKI and a
// signed package made once per test process, and an entity per test.
#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "entity_process.h"
#include "support.h"

namespace signature_verifier::client::testing {

// Status of an error reply with completion code `code`: -((code << 15) | 0x4000).
constexpr int CompletionStatus(unsigned code)
{
    return -static_cast<int>((code << 15) | 0x4000u);
}

struct Fixtures {
    host::testing::TempDir dir{"signature-verifier-client-pki"};
    host::testing::TestPki pki{dir.Path() / "pki"};
    ByteVector data = host::testing::ToBytes("{\"applications\": [\"launcher\", \"settings\"]}\n");
    ByteVector signature = pki.SignPackage(data);
};

class EntityTest : public ClientTest {
protected:
    // Made by the first test of the process that needs them; a failure fails
    // that test.
    static Fixtures& Shared();

    // Starts an entity trusting the roots in the PKI's directory `roots`
    // ("roots" or "wrong-roots") and waits until it serves.
    void StartEntity(const std::string& roots);

    // Stops the entity; it must end cleanly.
    void TearDown() override;

    std::unique_ptr<host::testing::EntityProcess> entity;
};

}  // namespace signature_verifier::client::testing
