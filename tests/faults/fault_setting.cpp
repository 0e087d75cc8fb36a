#include "fault_setting.h"

#include <dirent.h>

#include <thread>

namespace verifier_faults {
namespace {
using signature_verifier::host::testing::TempDir;
using signature_verifier::host::testing::TestPki;
using signature_verifier::host::testing::WriteBytes;

TempDir* g_dir = nullptr;
TestPki* g_pki = nullptr;
}  // namespace

void FaultTest::SetUpTestSuite()
{
    g_dir = new TempDir("verifier-faults");
    g_pki = new TestPki(g_dir->Path() / "pki");
}

void FaultTest::TearDownTestSuite()
{
    delete g_pki;
    g_pki = nullptr;
    delete g_dir;
    g_dir = nullptr;
}

void FaultTest::TearDown() { m_entities.reset(); }

fs::path FaultTest::Root() const { return m_root; }

Entities& FaultTest::StartEntities(bool withLogStorage)
{
    // Short names: the sockets' paths must fit a Unix socket address.
    static int count = 0;
    m_entities.reset();
    m_root = g_dir->Path() / ("t" + std::to_string(++count));
    m_entities = std::make_unique<Entities>(m_root, withLogStorage);
    return *m_entities;
}

void FaultTest::StartAll()
{
    m_entities->StartRegistry();
    m_entities->StartSignatureVerifier(Pki().File("roots"));
    m_entities->StartVerifier();
}

const TestPki& FaultTest::Pki() { return *g_pki; }

Bytes FaultTest::ListBytes()
{
    return signature_verifier::host::testing::ToBytes("{\"applications\": [\"launcher\"]}\n");
}

Package FaultTest::MakePackage(PackageType type, const std::vector<std::pair<std::string, Bytes>>& files, bool sign)
{
    const Package package = verifier_e2e::OpenPackage(m_entities->Registry(), type);
    for (const auto& [name, bytes] : files)
        WriteBytes(package.folder / name, bytes);
    if (sign)
        verifier_e2e::SignPackage(Pki(), package.folder);
    return package;
}

std::uint32_t FaultTest::Verify(std::uint16_t riid, std::uint32_t handle)
{
    verifier_e2e::VerifierClient client;
    const verifier_e2e::Answer answer = client.Call(riid, handle);
    EXPECT_EQ(answer.rc, NK_EOK);
    return answer.rc == NK_EOK ? static_cast<std::uint32_t>(answer.Result()) : 0xFFFFFFFFu;
}

void FaultTest::ExpectServing(bool withPeers)
{
    EXPECT_FALSE(m_entities->Verifier().Wait(std::chrono::milliseconds(0)).has_value()) << "the verifier ended";
    EXPECT_EQ(Verify(kApplist, kNoHandle), kInvalidArgument);
    EXPECT_EQ(Verify(kProduct, kNoHandle), kInvalidArgument);
    if (withPeers) {
        EXPECT_EQ(Verify(kApplist, SignedList().handle), 0u);
    }
}

Bytes PseudoRandom(std::size_t count, std::uint32_t seed)
{
    Bytes bytes(count);
    std::uint32_t state = seed | 1u;
    for (auto& byte : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        byte = static_cast<std::uint8_t>(state);
    }
    return bytes;
}

std::size_t OpenDescriptors(pid_t pid)
{
    std::size_t count = 0;
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd")) {
        (void)entry;
        ++count;
    }
    return count;
}

bool WaitFor(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::vector<std::string> VerifierMessages(const Entities& entities, std::size_t mark)
{
    std::vector<std::string> messages;
    for (const auto& line : verifier_e2e::VerifierLines(entities.LogSince(mark)))
        messages.push_back(line.message);
    return messages;
}

}  // namespace verifier_faults
