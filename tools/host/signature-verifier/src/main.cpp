// signature-verifier: the host peer that serves "nv.SignatureVerifierEntity"
// (endpoint "storage.storage") and checks GOST CMS signatures for real.
//
// Exit status: 0 stopped by SIGTERM or SIGINT; 1 the channel could not be
// served; 2 bad command line; 3 the GOST engine is unavailable; 4 the roots
// could not be loaded.

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <vector>

#include <pthread.h>

#include <nos/platform.h>
#include <nos_host/host.h>
#include <signature_verifier/signature_verifier_idl.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "gost_engine.h"
#include "request_arena.h"
#include "request_handler.h"
#include "signature_checker.h"

namespace {

using namespace signature_verifier::host;

constexpr int kExitStopped = 0;
constexpr int kExitServing = 1;
constexpr int kExitUsage = 2;
constexpr int kExitEngine = 3;
constexpr int kExitRoots = 4;

constexpr const char* kUsage = R"(Usage: signature-verifier [--roots DIR]... [--allow-trust-changes] [--engine PATH]
                          [--log-level LEVEL]

Serves the signature-verifier interface on the channel "nv.SignatureVerifierEntity",
endpoint "storage.storage", over the host platform (runtime directory:
NOS_RUNTIME_DIR). Signatures are detached DER CMS SignedData made with a
GOST R 34.10-2012 256-bit key and the Streebog-256 digest, with signed
attributes; they are checked with OpenSSL and its GOST engine.

  --roots DIR        trust every certificate (PEM or DER) in the files of DIR;
                     may be given more than once
  --allow-trust-changes
                     let clients change the trust store (AddRootCertificate,
                     RevokeRootCertificate, SetCRLBlob); without it these
                     are refused with completion code 13
  --engine PATH      load the GOST engine from this shared object instead of
                     OpenSSL's engine directory
  --log-level LEVEL  trace, debug, info (default), warn, error, critical or off
  --allow-uid UID    also take connections of processes of user id UID (by
                     default only this process's user may connect); may be
                     given more than once
  -h, --help         this text
  --version          the version

SIGTERM or SIGINT stops it. Exit status: 0 stopped by a signal, 1 serving
failed, 2 bad command line, 3 GOST engine unavailable, 4 roots not loaded.
)";

struct Options {
    std::vector<std::filesystem::path> roots;
    std::optional<std::filesystem::path> engine;
    spdlog::level::level_enum level = spdlog::level::info;
    TrustChanges trustChanges = TrustChanges::Refused;
    bool help = false;
};

// Parses the command line; throws std::invalid_argument with the reason.
Options ParseOptions(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc || argv[i + 1][0] == '\0')
                throw std::invalid_argument(std::string(arg) + " needs a value");
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help") {
            options.help = true;
        } else if (arg == "--roots") {
            options.roots.emplace_back(value());
        } else if (arg == "--allow-trust-changes") {
            options.trustChanges = TrustChanges::Allowed;
        } else if (arg == "--engine") {
            options.engine = value();
        } else if (arg == "--allow-uid") {
            if (NosHostAllowUid(value().c_str()) != NK_EOK)
                throw std::invalid_argument("--allow-uid needs a user id, a decimal number");
        } else if (arg == "--log-level") {
            const std::string name = value();
            options.level = spdlog::level::from_str(name);
            if (options.level == spdlog::level::off && name != "off")
                throw std::invalid_argument("unknown log level '" + name + "'");
        } else {
            throw std::invalid_argument("unknown argument '" + std::string(arg) + "'");
        }
    }
    return options;
}

std::shared_ptr<spdlog::logger> MakeLogger(spdlog::level::level_enum level)
{
    auto logger = std::make_shared<spdlog::logger>("signature-verifier", std::make_shared<spdlog::sinks::stderr_sink_mt>());
    logger->set_pattern("[%Y-%m-%d %H:%M:%S.%e] [%n] [%l] %v");
    logger->set_level(level);
    logger->flush_on(spdlog::level::trace);
    return logger;
}

// SIGTERM and SIGINT are taken by a thread of their own: it closes the
// channel, which wakes the receive of the request loop with an error that the
// loop, seeing the stop flag, takes as the end. SIGUSR1 only ends the thread.
class StopSignals {
public:
    StopSignals()
    {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGINT);
        sigaddset(&m_signals, SIGUSR1);
        // Blocked before any other thread exists, so that all of them inherit it.
        if (const int error = pthread_sigmask(SIG_BLOCK, &m_signals, nullptr); error != 0)
            throw std::system_error(error, std::generic_category(), "cannot block the stop signals");
    }

    ~StopSignals() { Finish(); }

    // Ends the watching thread; after it, Stopping() no longer changes.
    void Finish()
    {
        if (m_thread.joinable()) {
            pthread_kill(m_thread.native_handle(), SIGUSR1);
            m_thread.join();
        }
    }

    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    // Closes `channel` on the first stop signal.
    void Watch(Handle channel, std::shared_ptr<spdlog::logger> logger)
    {
        m_thread = std::thread([this, channel, logger = std::move(logger)] {
            int signal = 0;
            if (sigwait(&m_signals, &signal) != 0 || signal == SIGUSR1)
                return;
            m_stop = true;
            logger->info("{} received, stopping", signal == SIGTERM ? "SIGTERM" : "SIGINT");
            ServiceLocatorUnregister(channel);
        });
    }

    bool Stopping() const { return m_stop; }

private:
    sigset_t m_signals{};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

int Serve(RequestHandler& handler, const RequestArena& arena, NkNosTransport& transport, const StopSignals& stop,
          spdlog::logger& log)
{
    nv_SignatureVerifier_req request;
    nv_SignatureVerifier_res reply;
    for (;;) {
        std::memset(&request, 0, sizeof request);
        nk_msg_set_size(&request.base, sizeof request);
        nk_arena received = arena.Fresh();
        Retcode rc = transport.ops->recv(&transport, &request.base, &received);
        if (stop.Stopping())
            return kExitStopped;
        if (rc == NK_EAGAIN)
            continue;
        if (rc != NK_EOK) {
            log.error("receiving a request failed with {}", rc);
            return kExitServing;
        }
        handler.Handle(request, received, reply);
        rc = transport.ops->reply(&transport, &reply.base, nullptr);
        arena.Trim(nk_arena_used(&received));
        if (stop.Stopping())
            return kExitStopped;
        if (rc == NK_EAGAIN) {
            log.warn("the client left before its reply");
        } else if (rc != NK_EOK) {
            log.error("sending a reply failed with {}", rc);
            return kExitServing;
        }
    }
}

int Run(const Options& options, const std::shared_ptr<spdlog::logger>& log)
{
    StopSignals stop;

    std::optional<GostEngine> engine;
    try {
        engine.emplace(options.engine);
    } catch (const std::runtime_error& error) {
        log->critical("{}; install libengine-gost-openssl or give --engine PATH", error.what());
        return kExitEngine;
    }

    SignatureChecker checker;
    std::size_t roots = 0;
    try {
        for (const auto& dir : options.roots)
            roots += checker.LoadRoots(dir);
    } catch (const std::runtime_error& error) {
        log->critical("{}", error.what());
        return kExitRoots;
    }
    const bool changeable = options.trustChanges == TrustChanges::Allowed;
    if (roots == 0)
        log->warn(changeable ? "no trusted roots: every check fails until AddRootCertificate"
                             : "no trusted roots, and trust changes are not allowed: every check fails");

    const RequestArena arena;
    uint32_t riid = 0;
    const Handle channel = ServiceLocatorRegister(NV_SIGNATURE_VERIFIER_CONNECTION, nullptr, 0, &riid);
    if (channel == INVALID_HANDLE) {
        log->critical("cannot register the channel \"{}\"", NV_SIGNATURE_VERIFIER_CONNECTION);
        return kExitServing;
    }
    Handle sync = INVALID_HANDLE;
    NkNosTransport transport{};
    if (KnIpcCreateSyncObject(&sync) != NK_EOK || NkNosTransportSync_Init(&transport, channel, INVALID_HANDLE, sync) != NK_EOK) {
        log->critical("cannot set up the transport of the channel");
        ServiceLocatorUnregister(channel);
        return kExitServing;
    }
    stop.Watch(channel, log);

    RequestHandler handler(checker, riid, log, options.trustChanges);
    log->info("serving \"{}\" endpoint \"{}\" (riid {}) with {} trusted root(s); trust changes {}",
              NV_SIGNATURE_VERIFIER_CONNECTION, NV_SIGNATURE_VERIFIER_ENDPOINT, riid, roots,
              changeable ? "allowed" : "refused");
    const int status = Serve(handler, arena, transport, stop, *log);
    stop.Finish();
    if (!stop.Stopping())
        ServiceLocatorUnregister(channel);
    KnHandleClose(sync);
    log->info("stopped");
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::puts("signature-verifier " VERIFIER_VERSION);
        return 0;
    }
    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "signature-verifier: %s (see --help)\n", error.what());
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    const auto log = MakeLogger(options.level);
    try {
        return Run(options, log);
    } catch (const std::exception& error) {
        log->critical("{}", error.what());
        return kExitServing;
    }
}
