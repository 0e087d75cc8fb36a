// update-registry: the host update registry entity. Serves "update_registry"
// (endpoint "UpdateRegistry.UpdateRegistry") over the host platform.
//
// Exit status: 0 stopped by SIGTERM or SIGINT; 1 start-up or serving
// failed; 2 bad command line.

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <csignal>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <nos/platform.h>
#include <nos_host/host.h>

#include "command_line.h"
#include "host_registry.h"
#include "nos/logger/nos_logger.h"
#include "update/registry/ipc/dispatcher.h"

namespace {

using nos::logger::LogLevel;

constexpr int kExitStopped = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

constexpr const char* kChannel = "update_registry";
constexpr const char* kEndpoint = "UpdateRegistry.UpdateRegistry";
constexpr const char* kFile = "tools/host/update-registry/src/main";

constexpr const char* kUsage = R"(Usage: update-registry --storage DIR [--state FILE]

Serves the update registry on the channel "update_registry", endpoint
"UpdateRegistry.UpdateRegistry", over the host platform (runtime directory:
NOS_RUNTIME_DIR).

  --storage DIR  where package folders are made: Open creates DIR/<session id>
                 (made absolute; created when missing)
  --state FILE   keep the sessions in FILE (JSON), loaded at start and
                 rewritten atomically on every change; without it they last
                 as long as the process
  --allow-uid UID
                 also take connections of processes of user id UID (by
                 default only this process's user may connect); may be
                 given more than once
  -h, --help     this text
  --version      the version

SIGTERM or SIGINT stops it. Exit status: 0 stopped by a signal, 1 start-up or
serving failed, 2 bad command line.
)";

struct Options {
    std::optional<std::string> storage;
    std::optional<std::string> state;
    bool help = false;
};

Options ParseOptions(int argc, char** argv)
{
    Options options;
    update_registry::ArgumentReader args(argc, argv);
    while (!args.Done()) {
        const std::string arg = args.Next();
        if (arg == "-h" || arg == "--help")
            options.help = true;
        else if (arg == "--storage")
            options.storage = args.Value(arg);
        else if (arg == "--state")
            options.state = args.Value(arg);
        else if (arg == "--allow-uid") {
            if (NosHostAllowUid(args.Value(arg).c_str()) != NK_EOK)
                throw update_registry::UsageError("--allow-uid needs a user id, a decimal number");
        }
        else
            throw update_registry::UsageError("unknown argument '" + arg + "'");
    }
    if (!options.help && !options.storage)
        throw update_registry::UsageError("--storage is required");
    return options;
}

// The request loop blocks in receive; a thread of its own waits for the
// stop signals and closes the channel, which ends that receive.
class SignalStop {
public:
    SignalStop()
    {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGINT);
        // Blocked before any other thread starts, so that all inherit it.
        if (const int error = pthread_sigmask(SIG_BLOCK, &m_signals, nullptr); error != 0)
            throw std::system_error(error, std::generic_category(), "cannot block SIGTERM and SIGINT");
    }
    ~SignalStop() { Release(); }
    SignalStop(const SignalStop&) = delete;
    SignalStop& operator=(const SignalStop&) = delete;

    void Arm(Handle channel)
    {
        m_waiter = std::thread([this, channel] {
            int signal = 0;
            (void)sigwait(&m_signals, &signal);
            if (!m_done.exchange(true)) {
                m_signalled = true;
                (void)ServiceLocatorUnregister(channel);
            }
        });
    }

    // Ends the waiter when the loop ended on its own.
    void Release()
    {
        if (!m_waiter.joinable())
            return;
        if (!m_done.exchange(true))
            (void)pthread_kill(m_waiter.native_handle(), SIGTERM);
        m_waiter.join();
    }

    bool Signalled() const noexcept { return m_signalled; }

private:
    sigset_t m_signals{};
    std::atomic<bool> m_done{false};
    std::atomic<bool> m_signalled{false};
    std::thread m_waiter;
};

// Receive buffers larger than any request of the interface, so that a
// request of a wrong size still arrives and gets its error reply instead of
// the transport dropping its sender.
constexpr std::size_t kRequestBuffer = 4096;
constexpr std::size_t kRequestArenaBuffer = 4096;

// Serves until the channel is closed or fails. A client that leaves before
// its reply is only reported.
void Serve(NkNosTransport& transport, update::registry::ipc::RegistryComponent& component)
{
    alignas(std::max_align_t) std::array<std::uint8_t, kRequestBuffer> requestBuffer{};
    std::vector<std::uint8_t> requestArenaBuffer(kRequestArenaBuffer);
    nv_IUpdateRegistry_res response{};
    std::vector<std::uint8_t> arenaBuffer(update::registry::ipc::kDispatchArenaSize);
    auto* request = reinterpret_cast<nk_message*>(requestBuffer.data());
    for (;;) {
        requestBuffer.fill(0);
        request->size = static_cast<std::uint32_t>(requestBuffer.size());
        nk_arena requestArena;
        nk_arena_init(&requestArena, requestArenaBuffer.data(), requestArenaBuffer.size());
        nk_arena responseArena;
        nk_arena_init(&responseArena, arenaBuffer.data(), arenaBuffer.size());
        Retcode rc = transport.ops->recv(&transport, request, &requestArena);
        if (rc == NK_EBADF)
            return;
        if (rc != NK_EOK) {
            nos::logger::LogIfEnabled(LogLevel::Warning, kFile, __LINE__, "Serve", "receive failed with {}", rc);
            continue;
        }
        (void)update::registry::ipc::DispatchRegistry(&component, request, &requestArena, &response.base_,
                                                      &responseArena);
        if (nk_msg_is_error(&response.base_))
            nos::logger::LogIfEnabled(LogLevel::Warning, kFile, __LINE__, "Serve",
                                      "malformed request (riid {}, method {}, size word 0x{:08x}) refused",
                                      request->riid, request->mid, request->size);
        rc = transport.ops->reply(&transport, &response.base_, &responseArena);
        if (rc == NK_EBADF)
            return;
        if (rc != NK_EOK)
            nos::logger::LogIfEnabled(LogLevel::Warning, kFile, __LINE__, "Serve", "reply failed with {}", rc);
    }
}

int Run(const Options& options, SignalStop& stop)
{
    update_registry::HostRegistry registry(*options.storage,
                                           options.state ? std::optional<std::filesystem::path>(*options.state)
                                                         : std::nullopt);

    const char* const endpoints[] = {kEndpoint};
    std::uint32_t riid = 0;
    if (NosHostSetEndpoints(kChannel, endpoints, 1) != NK_EOK)
        throw std::runtime_error("cannot publish the endpoint table");
    const Handle channel = ServiceLocatorRegister(kChannel, nullptr, 0, &riid);
    if (channel == INVALID_HANDLE)
        throw std::runtime_error(std::string("cannot register the channel \"") + kChannel +
                                 "\" (is another registry serving it?)");
    Handle sync = INVALID_HANDLE;
    NkNosTransport transport{};
    if (KnIpcCreateSyncObject(&sync) != NK_EOK ||
        NkNosTransportSync_Init(&transport, channel, INVALID_HANDLE, sync) != NK_EOK) {
        (void)ServiceLocatorUnregister(channel);
        throw std::runtime_error("cannot set up the transport of the channel");
    }
    stop.Arm(channel);
    nos::logger::LogIfEnabled(LogLevel::Info, kFile, __LINE__, "Run", "serving {} with {} sessions, storage {}",
                              kChannel, registry.size(), registry.storage().string());

    // The endpoint is the table's first: riid 0.
    update::registry::ipc::RegistryComponent component{&registry, 0};
    Serve(transport, component);
    stop.Release();
    (void)KnHandleClose(sync);
    if (!stop.Signalled()) {
        (void)ServiceLocatorUnregister(channel);
        std::fprintf(stderr, "update-registry: the channel failed\n");
        return kExitFailed;
    }
    nos::logger::LogIfEnabled(LogLevel::Info, kFile, __LINE__, "Run", "stopped");
    return kExitStopped;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::puts("update-registry " VERIFIER_VERSION);
        return 0;
    }
    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const update_registry::UsageError& e) {
        std::fprintf(stderr, "update-registry: %s\n%s", e.what(), kUsage);
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return kExitStopped;
    }
    try {
        // Before the logger starts its flush thread.
        SignalStop stop;
        nos::logger::NOSLogger::Setup("update-registry", LogLevel::Info, nullptr);
        return Run(options, stop);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "update-registry: %s\n", e.what());
        return kExitFailed;
    }
}
