// Failing peers: the update registry and the signature verifier killed,
// stopped, absent or answering only errors, and a log storage that is absent
// or stops answering. Each case checks the code the client gets and that the
// verifier goes on serving.
#include <signal.h>

#include <chrono>
#include <future>
#include <string>

#include "fault_setting.h"

namespace verifier_faults {
namespace {

using namespace std::chrono_literals;

// A registry call that failed in the transport (ManageException's code for an
// exception without one).
constexpr std::uint32_t kTransportFailed = 0x80000151u;
// A completion code of the signature verifier as the client library encodes
// it: -((code << 15) | 0x4000), in 32 bits.
constexpr std::uint32_t EncodedCompletion(std::uint32_t code) { return 0u - ((code << 15) | 0x4000u); }
// The client library's status for a call whose connection broke (NK_EPIPE).
constexpr std::uint32_t kPeerGone = 0xFFFFFFE0u;
// No signature verifier to connect to: the library's status 13 leaves no
// context ("invalid context", a check without a code); the strict build fails
// on the status, mapped from EACCES.
constexpr std::uint32_t kNoSignatureVerifier = VERIFIER_STRICT_SIGNATURE_STATUS ? 0x80000045u : 0x80000151u;

class PeerFaultTest : public FaultTest {
protected:
    // Sends Verify for `handle` on another thread; the future holds the code.
    static std::future<std::uint32_t> VerifyLater(std::uint16_t riid, std::uint32_t handle)
    {
        return std::async(std::launch::async, [riid, handle] { return Verify(riid, handle); });
    }
};

TEST_F(PeerFaultTest, Registry_KilledBetweenRequests)
{
    StartEntities();
    StartAll();
    const Package list = SignedList();
    ASSERT_EQ(Verify(kApplist, list.handle), 0u);

    entities().RegistryProcess().Signal(SIGKILL);
    ASSERT_TRUE(entities().RegistryProcess().Wait(5s).has_value());
    const std::size_t mark = entities().LogMark();
    // The registry client connects once, at start-up, and never again: every
    // look-up now fails in the transport.
    EXPECT_EQ(Verify(kApplist, list.handle), kTransportFailed);
    EXPECT_EQ(Verify(kProduct, list.handle), kTransportFailed);
    const auto messages = VerifierMessages(entities(), mark);
    ASSERT_EQ(messages.size(), 4u);
    EXPECT_EQ(messages[0], ": transport fail: -32 ; detailed: exception during: GetInfo");
    EXPECT_EQ(messages[1], ": Expression failedfailed get info from session registry: 0x80000151 (Exception has no "
                           "result code) ; detailed: exception during: Verify");
    ExpectServing(false);
}

TEST_F(PeerFaultTest, Registry_KilledDuringRequest)
{
    StartEntities();
    StartAll();
    const Package list = SignedList();
    entities().RegistryProcess().Signal(SIGSTOP);
    auto answer = VerifyLater(kApplist, list.handle);
    // The verifier waits on the stopped registry: no answer yet.
    EXPECT_EQ(answer.wait_for(500ms), std::future_status::timeout);
    entities().RegistryProcess().Signal(SIGKILL);
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), kTransportFailed);
    ExpectServing(false);
}

TEST_F(PeerFaultTest, SignatureVerifier_AbsentThenStarted)
{
    StartEntities();
    entities().StartRegistry();
    entities().StartVerifier();
    const Package list = SignedList();
    const Package archive = MakePackage(PackageType::Product, {{verifier_e2e::kArchive, PseudoRandom(4096, 1)}});
    EXPECT_EQ(Verify(kApplist, list.handle), kNoSignatureVerifier);
    EXPECT_EQ(Verify(kProduct, archive.handle), kNoSignatureVerifier);
    // Each check connects anew, so a signature verifier that comes later serves.
    entities().StartSignatureVerifier(Pki().File("roots"));
    EXPECT_EQ(Verify(kApplist, list.handle), 0u);
    EXPECT_EQ(Verify(kProduct, archive.handle), 0u);
    ExpectServing();
}

TEST_F(PeerFaultTest, SignatureVerifier_KilledBetweenAndDuringRequests)
{
    StartEntities();
    StartAll();
    const Package list = SignedList();
    ASSERT_EQ(Verify(kApplist, list.handle), 0u);

    entities().SignatureVerifier().Signal(SIGKILL);
    ASSERT_TRUE(entities().SignatureVerifier().Wait(5s).has_value());
    EXPECT_EQ(Verify(kApplist, list.handle), kNoSignatureVerifier);

    entities().StartSignatureVerifier(Pki().File("roots"));
    EXPECT_EQ(Verify(kApplist, list.handle), 0u);
    entities().SignatureVerifier().Signal(SIGSTOP);
    auto answer = VerifyLater(kApplist, list.handle);
    EXPECT_EQ(answer.wait_for(500ms), std::future_status::timeout);
    entities().SignatureVerifier().Signal(SIGKILL);
    ASSERT_EQ(answer.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(answer.get(), kPeerGone);

    entities().StartSignatureVerifier(Pki().File("roots"));
    ExpectServing();
}

TEST_F(PeerFaultTest, SignatureVerifier_AnsweringOnlyErrors)
{
    struct Case {
        const char* name;
        std::uint32_t completion;
        std::uint32_t code;  // what the client gets, for both kinds of package
    };
    const Case cases[] = {
        {"internal error", 10, EncodedCompletion(10)},
        {"malformed request", 7, EncodedCompletion(7)},
        {"a code the entity never sends", 0xFFFF, EncodedCompletion(0xFFFF)},
        // Bit 16 makes the encoded status positive: a local refusal, which
        // the default build counts as success (the strict build maps the
        // value, too large for an errno, to "Unspecified platform error").
        {"a code with bit 16 set", 0x10001, VERIFIER_STRICT_SIGNATURE_STATUS ? 0x80010100u : 0u},
    };
    StartEntities();
    entities().StartRegistry();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        entities().StartSignatureVerifierProgram({ERROR_ENTITY_PATH, std::to_string(c.completion)});
        if (&c == &cases[0])
            entities().StartVerifier();
        const Package list = SignedList();
        const Package archive = MakePackage(PackageType::Product, {{verifier_e2e::kArchive, PseudoRandom(4096, 2)}});
        EXPECT_EQ(Verify(kApplist, list.handle), c.code);
        EXPECT_EQ(Verify(kProduct, archive.handle), c.code);
        entities().SignatureVerifier().Signal(SIGKILL);
        ASSERT_TRUE(entities().SignatureVerifier().Wait(5s).has_value());
    }
    entities().StartSignatureVerifier(Pki().File("roots"));
    ExpectServing();
}

TEST_F(PeerFaultTest, SignatureVerifier_ConnectionsDoNotAccumulate)
{
    StartEntities();
    StartAll();
    const Package list = SignedList();
    const pid_t verifier = entities().Verifier().pid();
    ASSERT_EQ(Verify(kApplist, list.handle), 0u);
    const std::size_t before = OpenDescriptors(verifier);
    // Each check connects to the signature verifier and never closes the
    // handle; the platform keeps one connection per channel.
    constexpr int kChecks = 1200;
    int failed = 0;
    for (int i = 0; i < kChecks; ++i)
        failed += Verify(kApplist, list.handle) != 0;
    EXPECT_EQ(failed, 0);
    EXPECT_LE(OpenDescriptors(verifier), before + 2);
    ExpectServing();
}

// The log storage is a peer the verifier trusts but must not wait for.
TEST_F(PeerFaultTest, LogStorage_AbsentOrStoppedNeverBlocksServing)
{
    {
        SCOPED_TRACE("absent from the start");
        StartEntities(false);
        StartAll();
        ExpectServing();
    }
    StartEntities();
    // Without the tests' call limit, as a device process runs.
    ::unsetenv("NOS_CALL_TIMEOUT_MS");
    StartAll();
    ::setenv("NOS_CALL_TIMEOUT_MS", "10000", 1);
    const Package list = SignedList();
    ASSERT_EQ(Verify(kApplist, list.handle), 0u);
    entities().LogStorage().Signal(SIGSTOP);
    // The first record waits for the bound of a log-storage call (2 s); the
    // connection is then broken and later records are dropped at once.
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Verify(kApplist, list.handle), 0u);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
    start = std::chrono::steady_clock::now();
    for (int i = 0; i < 20; ++i)
        EXPECT_EQ(Verify(kApplist, kNoHandle), kInvalidArgument);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    ExpectServing();
    entities().LogStorage().Signal(SIGCONT);
}

}  // namespace
}  // namespace verifier_faults
