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

#include "eka/result_code.h"
#include "update/registry/ipc/registry.h"

namespace verifier_test {

namespace reg = update::registry::ipc;
namespace fs = std::filesystem;

inline constexpr std::int32_t kThrows = 0x7EEEEEEE;
// What GetHash gives when it succeeds.
inline const std::vector<std::uint8_t> kHash{0xA5, 0x01, 0xFF};

class FakePeers final : public reg::IRegistry, public signature_verifier::wrapper::ISignatureVerifier {
public:
    int getInfo = 0;
    reg::SessionInfo session;
    std::int32_t verify = 0;
    std::int32_t getHash = 0;
    std::int32_t verifyHash = 0;
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
            hash = kHash;
        return Answer(getHash);
    }
    std::int32_t VerifyHash(const std::vector<std::uint8_t>& hash, const fs::path& signature) override
    {
        calls.push_back(fmt::format("VerifyHash {:02x} {}", fmt::join(hash, ""), signature.string()));
        return Answer(verifyHash);
    }

    int Open(reg::PackageType, unsigned int&) override { return eka::result::NotImplemented; }
    int Close(unsigned int) override { return eka::result::NotImplemented; }
    int GetSessions(std::vector<reg::SessionInfo>&) const override { return eka::result::NotImplemented; }
    int GetHandle(const eka::guid_t&, unsigned int&) const override { return eka::result::NotImplemented; }
    int SetState(unsigned int, reg::UpdateState) override { return eka::result::NotImplemented; }

private:
    static std::int32_t Answer(std::int32_t answer)
    {
        if (answer == kThrows)
            throw std::runtime_error("peer broke");
        return answer;
    }
};

}  // namespace verifier_test
