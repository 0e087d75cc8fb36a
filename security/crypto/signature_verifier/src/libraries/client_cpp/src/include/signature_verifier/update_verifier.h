// Signature checks of update package files, each as one call that returns a
// result code (0 success, bit 31 set on failure) and never throws.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace signature_verifier::wrapper {

class ISignatureVerifier {
public:
    virtual ~ISignatureVerifier() = default;

    // Hashes the whole file with GOST R 34.11-2012 (256 bits) into `hash`,
    // which then holds exactly the 32-byte digest.
    virtual std::int32_t GetHash(const std::filesystem::path& file, std::vector<std::uint8_t>& hash) = 0;

    // Has the signature-verifier entity check that the signature file signs
    // the digest `hash`.
    virtual std::int32_t VerifyHash(const std::vector<std::uint8_t>& hash, const std::filesystem::path& signature) = 0;

    // Has the signature-verifier entity check that the signature file signs
    // the whole data file (both read into memory).
    virtual std::int32_t Verify(const std::filesystem::path& file, const std::filesystem::path& signature) = 0;
};

// The implementation over the client library of the signature-verifier
// entity. Stateless: every call opens what it needs (a hash context, or its
// own connection to "nv.SignatureVerifierEntity") and releases it before it
// returns, so one object may serve several threads at once.
//
// Only a negative status of the client library fails a call; its positive
// local refusals (an empty or oversized signature or data file, for one)
// count as success. See docs/signature-verifier.md, "Client status handling".
class UpdateVerifier : public ISignatureVerifier {
public:
    UpdateVerifier() = default;
    ~UpdateVerifier() override {}

    std::int32_t GetHash(const std::filesystem::path& file, std::vector<std::uint8_t>& hash) override;
    std::int32_t VerifyHash(const std::vector<std::uint8_t>& hash, const std::filesystem::path& signature) override;
    std::int32_t Verify(const std::filesystem::path& file, const std::filesystem::path& signature) override;
};

}  // namespace signature_verifier::wrapper
