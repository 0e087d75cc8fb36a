// The verifiers' two peers in one in-process fake: a registry whose GetInfo
// answers `session` with `getInfo`, and a signature checker whose calls
// answer `verify`, `getHash` and `verifyHash`. Every call is recorded as a
// line of text; kThrows in an answer makes that call throw instead.
#pragma once

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <signature_verifier/update_verifier.h>

#include <cstdint>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "update/registry/ipc/registry.h"

namespace verifier_test {

namespace reg = update::registry::ipc;
namespace fs = std::filesystem;

inline constexpr std::int32_t kThrows = 0x7EEEEEEE;

class FakePeers final : public reg::IRegistry, public signature_verifier::wrapper::ISignatureVerifier {
public:
    reg::SessionInfo session;
    int getInfo = 0, verify = 0, getHash = 0, verifyHash = 0;  // a hash that GetHash gives is a5 01 ff
    mutable std::vector<std::string> calls;

    int GetInfo(unsigned int handle, reg::SessionInfo& info) const override
    {
        calls.push_back("GetInfo " + std::to_string(handle));
        info = session;
        return Answer(getInfo);
    }
    std::int32_t Verify(const fs::path& data, const fs::path& signature) override
    {
        calls.push_back("Verify " + data.string() + " " + signature.string());
        return Answer(verify);
    }
    std::int32_t GetHash(const fs::path& file, std::vector<std::uint8_t>& hash) override
    {
        calls.push_back("GetHash " + file.string() + " " + std::to_string(hash.size()));
        if (getHash >= 0)
            hash = {0xA5, 0x01, 0xFF};
        return Answer(getHash);
    }
    std::int32_t VerifyHash(const std::vector<std::uint8_t>& hash, const fs::path& signature) override
    {
        calls.push_back(fmt::format("VerifyHash {:02x} {}", fmt::join(hash, ""), signature.string()));
        return Answer(verifyHash);
    }

    // Not called by the verifiers.
    int Open(reg::PackageType, unsigned int&) override { return Answer(kThrows); }
    int Close(unsigned int) override { return Answer(kThrows); }
    int GetSessions(std::vector<reg::SessionInfo>&) const override { return Answer(kThrows); }
    int GetHandle(const eka::guid_t&, unsigned int&) const override { return Answer(kThrows); }
    int SetState(unsigned int, reg::UpdateState) override { return Answer(kThrows); }

private:
    static std::int32_t Answer(std::int32_t answer)
    {
        if (answer == kThrows)
            throw std::runtime_error("peer broke");
        return answer;
    }
};

}  // namespace verifier_test
