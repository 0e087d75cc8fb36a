#include "e2e_support.h"

#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "update/registry/ipc/proxy.h"

namespace verifier_e2e {
namespace {

using namespace std::chrono_literals;
using signature_verifier::host::testing::RunOrThrow;
using signature_verifier::host::testing::ShellQuote;
using signature_verifier::host::testing::SourceDir;

// Waits until somebody serves `channel`; false when `process` ended first or
// 20 s passed.
bool WaitServing(const char* channel, logger_test::ChildProcess& process)
{
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (std::chrono::steady_clock::now() < deadline) {
        const Handle probe = ServiceLocatorConnect(channel);
        if (probe != INVALID_HANDLE) {
            (void)KnHandleClose(probe);
            return true;
        }
        if (process.Wait(10ms))
            return false;
    }
    return false;
}

std::unique_ptr<logger_test::ChildProcess> Start(const std::vector<std::string>& argv, const fs::path& root,
                                                 const std::string& name, const char* channel)
{
    auto process = std::make_unique<logger_test::ChildProcess>(argv, (root / (name + ".out")).string(),
                                                               (root / (name + ".err")).string());
    if (!WaitServing(channel, *process))
        throw std::runtime_error(name + " does not serve \"" + channel +
                                 "\": " + logger_test::ReadFile((root / (name + ".err")).string()));
    return process;
}

void Stop(std::unique_ptr<logger_test::ChildProcess>& process)
{
    if (!process)
        return;
    process->Signal(SIGTERM);
    (void)process->Wait(5s);
    process.reset();
}

// "[a][b][c][d] rest" after the time stamp; nothing for another shape.
std::optional<LogLine> ParseLine(const std::string& line)
{
    std::size_t at = line.find(' ');
    if (at == std::string::npos)
        return std::nullopt;
    ++at;
    std::string fields[4];
    for (std::string& field : fields) {
        if (at >= line.size() || line[at] != '[')
            return std::nullopt;
        const std::size_t close = line.find(']', at);
        if (close == std::string::npos)
            return std::nullopt;
        field = line.substr(at + 1, close - at - 1);
        at = close + 1;
    }
    if (at >= line.size() || line[at] != ' ')
        return std::nullopt;
    return LogLine{fields[0], fields[1], fields[2], fields[3], line.substr(at + 1)};
}

}  // namespace

Entities::Entities(fs::path root, bool withLogStorage) : m_root(std::move(root))
{
    if (const char* previous = std::getenv("NOS_RUNTIME_DIR"))
        m_previousRuntimeDir = previous;
    fs::create_directories(m_root / "rt");
    setenv("NOS_RUNTIME_DIR", (m_root / "rt").c_str(), 1);
    // A broken entity fails the call instead of hanging the test.
    setenv("NOS_CALL_TIMEOUT_MS", "10000", 1);
    if (withLogStorage)
        m_logStorage = Start({LOG_STORAGE_PATH, "--out", (m_root / "log.txt").string()}, m_root, "log-storage",
                         "nv.NvlogStorageEntity");
}

Entities::~Entities()
{
    Stop(m_verifier);
    m_registryClient.reset();
    Stop(m_signatureVerifier);
    if (m_registry)
        (void)m_registry->Stop();
    m_registry.reset();
    Stop(m_logStorage);
    if (m_previousRuntimeDir)
        setenv("NOS_RUNTIME_DIR", m_previousRuntimeDir->c_str(), 1);
    else
        unsetenv("NOS_RUNTIME_DIR");
}

void Entities::StartRegistry() { m_registry = std::make_unique<registry_test::RegistryProcess>(m_root); }

void Entities::StartSignatureVerifier(const fs::path& roots)
{
    StartSignatureVerifierProgram({SIGNATURE_VERIFIER_PATH, "--roots", roots.string()});
}

void Entities::StartSignatureVerifierProgram(const std::vector<std::string>& argv)
{
    m_signatureVerifier = Start(argv, m_root, "signature-verifier", "nv.SignatureVerifierEntity");
}

void Entities::StartVerifier()
{
    m_verifier = Start({VERIFIER_PATH}, m_root, "verifier", "verifier");
    // The channel answers before the IPC thread has logged that it runs;
    // wait for that line, so that no test counts it among its own.
    if (!m_logStorage)
        return;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    for (;;) {
        for (const LogLine& line : VerifierLines(Log()))
            if (line.message.starts_with("NkNosTransport initialized with handle "))
                return;
        if (std::chrono::steady_clock::now() >= deadline)
            throw std::runtime_error("the verifier's IPC thread did not start: " + VerifierStderr());
        std::this_thread::sleep_for(5ms);
    }
}

std::string Entities::VerifierStderr() const { return logger_test::ReadFile((m_root / "verifier.err").string()); }

update::registry::ipc::IRegistry& Entities::Registry()
{
    if (!m_registryClient)
        m_registryClient = update::registry::ipc::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry");
    return *m_registryClient;
}

std::vector<LogLine> Entities::Log() const { return LogSince(0); }

std::size_t Entities::LogMark() const
{
    const std::string text = logger_test::ReadFile((m_root / "log.txt").string());
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

std::vector<LogLine> Entities::LogSince(std::size_t mark) const
{
    std::istringstream in(logger_test::ReadFile((m_root / "log.txt").string()));
    std::vector<LogLine> lines;
    std::size_t index = 0;
    for (std::string text; std::getline(in, text); ++index) {
        if (index < mark)
            continue;
        if (auto line = ParseLine(text))
            lines.push_back(std::move(*line));
    }
    return lines;
}

Package OpenPackage(update::registry::ipc::IRegistry& registry, update::registry::ipc::PackageType type)
{
    Package package{};
    if (const int rc = registry.Open(type, package.handle); rc != 0)
        throw std::runtime_error("Open failed with " + std::to_string(rc));
    update::registry::ipc::SessionInfo info;
    if (const int rc = registry.GetInfo(package.handle, info); rc != 0)
        throw std::runtime_error("GetInfo failed with " + std::to_string(rc));
    package.folder = info.path;
    return package;
}

void SignPackage(const signature_verifier::host::testing::TestPki& pki, const fs::path& folder,
                 const std::string& signer)
{
    RunOrThrow(ShellQuote((SourceDir() / "scripts" / "sign-package").string()) + " " + ShellQuote(folder.string()) +
                   " --cert " + ShellQuote(pki.File(signer + ".pem").string()) + " --key " +
                   ShellQuote(pki.File(signer + ".key").string()) + " --chain " +
                   ShellQuote(pki.File("chain.pem").string()),
               folder.parent_path() / "sign.log");
}

VerifierClient::VerifierClient() : m_channel(ServiceLocatorConnect("verifier"))
{
    if (m_channel == INVALID_HANDLE)
        throw std::runtime_error("nobody serves \"verifier\"");
    if (NkNosTransport_Init(&m_transport, m_channel, nullptr, 0) != NK_EOK) {
        (void)KnHandleClose(m_channel);
        throw std::runtime_error("cannot bind a transport to the verifier's channel");
    }
}

VerifierClient::~VerifierClient() { (void)KnHandleClose(m_channel); }

std::uint32_t VerifierClient::Riid(const char* endpoint) const { return ServiceLocatorGetRiid(m_channel, endpoint); }

Answer VerifierClient::Call(std::uint16_t riid, std::uint32_t handle, std::uint16_t method)
{
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    request.base_.mid = method;
    nk_msg_set_size(&request.base_, sizeof(request));
    request.handle = handle;
    Answer answer;
    nk_msg_set_size(&answer.reply.base_, sizeof(answer.reply));
    answer.rc = m_transport.ops->call(&m_transport, &request.base_, nullptr, &answer.reply.base_, nullptr);
    return answer;
}

SharedSetting::SharedSetting()
{
    entities.StartRegistry();
    entities.StartSignatureVerifier(pki.File("roots"));
    entities.StartVerifier();
}

SharedSetting& Shared()
{
    static SharedSetting setting;
    return setting;
}

std::vector<LogLine> VerifierLines(const std::vector<LogLine>& lines)
{
    std::vector<LogLine> mine;
    for (const LogLine& line : lines)
        if (line.name == "verifier")
            mine.push_back(line);
    return mine;
}

}  // namespace verifier_e2e
