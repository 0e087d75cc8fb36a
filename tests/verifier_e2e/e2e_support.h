// The end-to-end setting of the Verifier: the real log-storage,
// update-registry, signature-verifier and verifier processes in one runtime
// directory, update packages in the session folders the registry makes,
// and a raw client of the verifier's channel.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nos/platform.h>

#include "child_process.h"
#include "support.h"
#include "test_support.h"
#include "update/registry/ipc/registry.h"
#include "verifier_api/messages.h"

namespace verifier_e2e {

using Bytes = std::vector<std::uint8_t>;
namespace fs = std::filesystem;

inline constexpr const char* kList = "appcollectioninfo.nos.vantor.json";
inline constexpr const char* kListSign = "appcollectioninfo.nos.vantor.json.sign";
inline constexpr const char* kArchive = "update_vantor3.tar.gz";
inline constexpr const char* kArchiveSign = "update_vantor3.sign";

// One line of the log storage's output, "<time> [name][level][file:line][pid:tid] message".
struct LogLine {
    std::string name;
    std::string level;
    std::string where;  // source file base name and line
    std::string ids;    // process and thread id
    std::string message;
};

// The processes of one runtime directory, `root`/rt, which is this
// process's (and so its children's) NOS_RUNTIME_DIR while the object lives.
// The log storage starts at once, writing to `root`/log.txt; the others
// start on demand. Each start waits until the entity serves its channel and
// throws std::runtime_error, with the entity's output, when it does not.
class Entities {
public:
    explicit Entities(fs::path root, bool withLogStorage = true);
    // Stops the verifier, then the peers, then the log storage.
    ~Entities();
    Entities(const Entities&) = delete;
    Entities& operator=(const Entities&) = delete;

    void StartRegistry();
    void StartSignatureVerifier(const fs::path& roots);
    // Also waits until the verifier's IPC thread has logged its start.
    void StartVerifier();
    // Any program in place of the signature-verifier entity.
    void StartSignatureVerifierProgram(const std::vector<std::string>& argv);

    logger_test::ChildProcess& Verifier() { return *m_verifier; }
    logger_test::ChildProcess& SignatureVerifier() { return *m_signatureVerifier; }
    logger_test::ChildProcess& LogStorage() { return *m_logStorage; }
    logger_test::ChildProcess& RegistryProcess() { return m_registry->Process(); }
    std::string VerifierStderr() const;

    // A registry client, connected on first use.
    update::registry::ipc::IRegistry& Registry();

    // The log storage's lines so far; a mark of where it stands now; and the
    // lines written after a mark.
    std::vector<LogLine> Log() const;
    std::size_t LogMark() const;
    std::vector<LogLine> LogSince(std::size_t mark) const;

    const fs::path& root() const noexcept { return m_root; }

private:
    fs::path m_root;
    std::optional<std::string> m_previousRuntimeDir;
    std::unique_ptr<logger_test::ChildProcess> m_logStorage;
    std::unique_ptr<registry_test::RegistryProcess> m_registry;
    std::unique_ptr<logger_test::ChildProcess> m_signatureVerifier;
    std::unique_ptr<logger_test::ChildProcess> m_verifier;
    std::unique_ptr<update::registry::ipc::IRegistry> m_registryClient;
};

// An opened session and its package folder.
struct Package {
    unsigned int handle;
    fs::path folder;
};

Package OpenPackage(update::registry::ipc::IRegistry& registry, update::registry::ipc::PackageType type);

// Signs the files of `folder` with scripts/sign-package as `signer` of the PKI
// ("signer", "wrong-signer"), the intermediate embedded.
void SignPackage(const signature_verifier::host::testing::TestPki& pki, const fs::path& folder,
                 const std::string& signer = "signer");

// What the verifier answered to one request.
struct Answer {
    Retcode rc = NK_EOK;
    nv_IVerifier_Verify_res reply{};
    // The result carried by an error reply; 0 for a normal one.
    std::int32_t Result() const { return nk_msg_is_error(&reply.base_) ? reply.result : 0; }
};

// A connection of its own to the verifier's channel.
class VerifierClient {
public:
    // Throws std::runtime_error when nobody serves "verifier".
    VerifierClient();
    ~VerifierClient();
    VerifierClient(const VerifierClient&) = delete;
    VerifierClient& operator=(const VerifierClient&) = delete;

    std::uint32_t Riid(const char* endpoint) const;

    // Sends a Verify request with these header fields and waits for the reply.
    Answer Call(std::uint16_t riid, std::uint32_t handle, std::uint16_t method = nv_IVerifier_Verify_mid);

private:
    Handle m_channel;
    NkNosTransport m_transport{};
};

// The runs of the shared setting: every entity up, trusting the PKI's roots.
struct SharedSetting {
    signature_verifier::host::testing::TempDir dir{"verifier-e2e"};
    signature_verifier::host::testing::TestPki pki{dir.Path() / "pki"};
    Entities entities{dir.Path()};

    SharedSetting();
};

// Made by the first test of the process that needs it, so that a failure to
// make it fails that test.
SharedSetting& Shared();

// The verifier's lines among `lines`.
std::vector<LogLine> VerifierLines(const std::vector<LogLine>& lines);

// A failure table's code for a package file that is a directory: whichever
// of its codes the signature checker gives. Whether a directory opens for
// reading depends on the file system (ext4 opens it and the read fails with
// a standard exception, 0x8000004B; tmpfs does not, 0x80000151).
inline constexpr std::uint32_t kCheckerDirectoryFailure = 0;
inline bool IsCheckerDirectoryFailure(std::uint32_t code) { return code == 0x8000004Bu || code == 0x80000151u; }

}  // namespace verifier_e2e
