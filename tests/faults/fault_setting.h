// The setting of the fault tests: the real entities of verifier_e2e, started
// afresh for each test in a directory of its own (so that a test may kill,
// stop or replace any of them), with one test PKI for the whole suite.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace verifier_faults {

using verifier_e2e::Bytes;
using verifier_e2e::Entities;
using verifier_e2e::Package;
using update::registry::ipc::PackageType;
namespace fs = std::filesystem;

inline constexpr std::uint16_t kProduct = 0;
inline constexpr std::uint16_t kApplist = 1;
inline constexpr std::uint32_t kNoHandle = 0x00FFFFFFu;
inline constexpr std::uint32_t kInvalidArgument = 0x80000046u;

class FaultTest : public ::testing::Test {
protected:
    static void SetUpTestSuite();
    static void TearDownTestSuite();
    void TearDown() override;

    // The entities of this test, in `Root()`; the log storage starts with them
    // when `withLogStorage`.
    Entities& StartEntities(bool withLogStorage = true);
    // The registry, the real signature verifier and the verifier.
    void StartAll();
    Entities& entities() { return *m_entities; }
    fs::path Root() const;

    // A session of `type` whose folder holds the files, signed when `sign`.
    Package MakePackage(PackageType type, const std::vector<std::pair<std::string, Bytes>>& files, bool sign = true);
    Package SignedList() { return MakePackage(PackageType::AppList, {{verifier_e2e::kList, ListBytes()}}); }
    static Bytes ListBytes();
    static const signature_verifier::host::testing::TestPki& Pki();

    // The verifier's answer to one Verify; a transport failure fails the test
    // and gives 0xFFFFFFFF. Every call is bounded by NOS_CALL_TIMEOUT_MS.
    static std::uint32_t Verify(std::uint16_t riid, std::uint32_t handle);
    // The verifier still runs and answers: a request that needs no peer gets
    // its code, and a signed list passes when `withPeers`.
    void ExpectServing(bool withPeers = true);

private:
    std::unique_ptr<Entities> m_entities;
    fs::path m_root;
};

// Bytes of `count` pseudo-random values from `seed`.
Bytes PseudoRandom(std::size_t count, std::uint32_t seed);

// The number of open descriptors of process `pid`.
std::size_t OpenDescriptors(pid_t pid);

// Polls `done` every millisecond until it holds or `limit` passes.
bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit);

// The verifier's log lines (message texts) since `mark`.
std::vector<std::string> VerifierMessages(const Entities& entities, std::size_t mark);

}  // namespace verifier_faults
