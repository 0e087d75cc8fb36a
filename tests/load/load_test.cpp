// Many client processes, each sending many Verify requests of mixed kinds to
// one verifier: every reply must come and be the one its request must give,
// and the verifier's memory must stay flat. The size is small by default
// (every preset runs it); VERIFIER_LOAD_CLIENTS and VERIFIER_LOAD_REQUESTS
// make it larger by hand. Figures are printed and recorded as properties.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace verifier_load {
namespace {

using namespace std::chrono_literals;
using update::registry::ipc::PackageType;
using verifier_e2e::Bytes;
using verifier_e2e::Package;
namespace fs = std::filesystem;
using signature_verifier::host::testing::TempDir;
using signature_verifier::host::testing::TestPki;
using signature_verifier::host::testing::ToBytes;
using signature_verifier::host::testing::WriteBytes;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

int FromEnvironment(const char* name, int fallback)
{
    const char* text = std::getenv(name);
    if (text == nullptr || *text == '\0')
        return fallback;
    char* end = nullptr;
    const long value = std::strtol(text, &end, 10);
    return *end == '\0' && value > 0 && value <= 100000 ? static_cast<int>(value) : fallback;
}

// A field of /proc/<pid>/status in KiB ("VmHWM", "VmRSS"); -1 when absent.
long StatusKiB(pid_t pid, const std::string& field)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind(field + ":", 0) == 0)
            return std::strtol(line.c_str() + field.size() + 1, nullptr, 10);
    return -1;
}

struct Round {
    int clients = 0;
    int requests = 0;
    int failedClients = 0;
    double seconds = 0;
};

class LoadTest : public ::testing::Test {
protected:
    TempDir dir{"verifier-load"};
    TestPki pki{dir.Path() / "pki"};
    std::unique_ptr<verifier_e2e::Entities> entities;
    std::vector<std::string> kinds;

    void SetUp() override
    {
        entities = std::make_unique<verifier_e2e::Entities>(dir.Path() / "e");
        entities->StartRegistry();
        entities->StartSignatureVerifier(pki.File("roots"));
        entities->StartVerifier();
        auto& registry = entities->Registry();
        const auto make = [&](PackageType type, const char* name, const Bytes& bytes) {
            const Package package = verifier_e2e::OpenPackage(registry, type);
            WriteBytes(package.folder / name, bytes);
            verifier_e2e::SignPackage(pki, package.folder);
            return package;
        };
        const Bytes list = ToBytes("{\"applications\": [\"launcher\", \"settings\"]}\n");
        Bytes archive(256 * 1024);
        for (std::size_t i = 0; i < archive.size(); ++i)
            archive[i] = static_cast<std::uint8_t>(i * 13 + 5);
        const Package goodList = make(PackageType::AppList, verifier_e2e::kList, list);
        const Package goodArchive = make(PackageType::Product, verifier_e2e::kArchive, archive);
        const Package tamperedList = make(PackageType::AppList, verifier_e2e::kList, list);
        Bytes changed = list;
        changed[3] ^= 0x01;
        WriteBytes(tamperedList.folder / verifier_e2e::kList, changed);
        const Package tamperedArchive = make(PackageType::Product, verifier_e2e::kArchive, archive);
        archive[100] ^= 0x01;
        WriteBytes(tamperedArchive.folder / verifier_e2e::kArchive, archive);
        const auto kind = [](int riid, std::uint32_t handle, std::uint32_t code) {
            return std::to_string(riid) + ":" + std::to_string(handle) + ":" + std::to_string(code);
        };
        kinds = {
            kind(1, goodList.handle, 0),
            kind(0, goodArchive.handle, 0),
            kind(1, 0x00FFFFFF, 0x80000046u),              // bad handle
            kind(0, 0x00ABCDEF, 0x8000004Cu),              // handle the registry does not know
            kind(1, tamperedList.handle, 0xFFFF4000u),     // tampered
            kind(0, tamperedArchive.handle, 0xFFFF4000u),  // tampered
        };
    }

    // `clients` load-client processes at once, `requests` requests each.
    Round Run(int clients, int requests)
    {
        Round round{clients, requests, 0, 0};
        const auto start = std::chrono::steady_clock::now();
        std::vector<std::unique_ptr<logger_test::ChildProcess>> processes;
        for (int c = 0; c < clients; ++c) {
            std::vector<std::string> argv{LOAD_CLIENT_PATH, std::to_string(requests), std::to_string(c)};
            argv.insert(argv.end(), kinds.begin(), kinds.end());
            const std::string base = (dir.Path() / ("client" + std::to_string(c))).string();
            processes.push_back(std::make_unique<logger_test::ChildProcess>(argv, base + ".out", base + ".err"));
        }
        for (int c = 0; c < clients; ++c) {
            const auto code = processes[static_cast<std::size_t>(c)]->Wait(std::chrono::seconds(240));
            if (code != 0) {
                ++round.failedClients;
                ADD_FAILURE() << "client " << c << " ended with " << (code ? std::to_string(*code) : "no exit")
                              << ": " << logger_test::ReadFile((dir.Path() / ("client" + std::to_string(c) + ".err")).string());
            }
        }
        round.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return round;
    }
};

TEST_F(LoadTest, Verify_ManyClientsMixedKindsEveryReplyRight)
{
    const int clients = FromEnvironment("VERIFIER_LOAD_CLIENTS", 4);
    const int requests = FromEnvironment("VERIFIER_LOAD_REQUESTS", 60);
    const pid_t verifier = entities->Verifier().pid();

    // A warm-up round, so that what the first requests allocate once is in
    // place before memory is compared.
    ASSERT_EQ(Run(2, 12).failedClients, 0);
    const long hwmBefore = StatusKiB(verifier, "VmHWM");
    const long rssBefore = StatusKiB(verifier, "VmRSS");
    const Round first = Run(clients, requests);
    const long rssFirst = StatusKiB(verifier, "VmRSS");
    const Round second = Run(clients, requests);
    const long rssSecond = StatusKiB(verifier, "VmRSS");
    const long hwmAfter = StatusKiB(verifier, "VmHWM");
    EXPECT_EQ(first.failedClients + second.failedClients, 0);

    const int total = first.clients * first.requests;
    const double rate = 2.0 * total / (first.seconds + second.seconds);
    std::printf("load: %d clients x %d requests, twice: %.2f s and %.2f s, %.0f requests/s; verifier VmHWM %ld KiB "
                "before, %ld KiB after; VmRSS %ld, %ld, %ld KiB\n",
                clients, requests, first.seconds, second.seconds, rate, hwmBefore, hwmAfter, rssBefore, rssFirst,
                rssSecond);
    RecordProperty("requests_per_second", static_cast<int>(rate));
    RecordProperty("vm_hwm_kib_before", static_cast<int>(hwmBefore));
    RecordProperty("vm_hwm_kib_after", static_cast<int>(hwmAfter));
    // Flat: a second round of the same load adds no resident memory beyond
    // noise. Sanitizer runtimes hold freed memory in quarantine on purpose, so
    // there only their own reports count.
    if (!kSanitized) {
        EXPECT_LE(rssSecond, rssFirst + 2048);
    }

    // The verifier ends cleanly; a sanitizer that found a leak or a race
    // would have changed its exit code and written to its error output.
    entities->Verifier().Signal(SIGTERM);
    EXPECT_EQ(entities->Verifier().Wait(20s), 0);
    const std::string err = entities->VerifierStderr();
    EXPECT_EQ(err.find("Sanitizer"), std::string::npos) << err;
}

}  // namespace
}  // namespace verifier_load
