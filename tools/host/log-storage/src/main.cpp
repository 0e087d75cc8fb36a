// log-storage: the host log-storage entity. Serves "nv.NvlogStorageEntity"
// (endpoint "nv.NvlogStorage.storage") and writes one line per record.
//
// Exit status: 0 stopped by SIGTERM or SIGINT; 1 serving or writing failed;
// 2 bad command line.

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <nos/platform.h>
#include <nos_host/host.h>

#include "record_decoder.h"
#include "vantor_logger/nvlog_record.h"

namespace {

namespace nvlog = nos::logger::nvlog;

constexpr int kExitStopped = 0;
constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;

// Receive buffers: larger than a well-formed request, so that requests of a
// wrong size still arrive and can be reported.
constexpr std::size_t kMessageBuffer = 4096;
constexpr std::size_t kArenaBuffer = 64 * 1024;
constexpr std::size_t kConnectionLimit = 256;

constexpr const char* kUsage = R"(Usage: log-storage [--out FILE] [--raw FILE]

Serves the log-storage interface on the channel "nv.NvlogStorageEntity",
endpoint "nv.NvlogStorage.storage", over the host platform (runtime
directory: NOS_RUNTIME_DIR). Each record becomes one line: its time (UTC),
a blank and its text, control characters kept. Each line is written at once.

  --out FILE       append the lines to FILE instead of standard output
  --raw FILE       also append the 4,120 bytes of each well-formed record to FILE
  --allow-uid UID  also take connections of processes of user id UID (by
                   default only this process's user may connect); may be
                   given more than once
  -h, --help       this text
  --version        the version

A malformed record is answered with the error flag and reported on standard
error; serving goes on. SIGTERM or SIGINT stops it. Exit status: 0 stopped
by a signal, 1 serving or writing failed, 2 bad command line.
)";

struct Options {
    std::optional<std::string> out;
    std::optional<std::string> raw;
    bool help = false;
};

// Throws std::invalid_argument with the reason.
Options ParseOptions(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const auto value = [&]() -> std::string {
            if (i + 1 >= argc || argv[i + 1][0] == '\0')
                throw std::invalid_argument(std::string(arg) + " needs a file name");
            return argv[++i];
        };
        if (arg == "-h" || arg == "--help")
            options.help = true;
        else if (arg == "--out")
            options.out = value();
        else if (arg == "--raw")
            options.raw = value();
        else if (arg == "--allow-uid") {
            if (i + 1 >= argc || NosHostAllowUid(argv[++i]) != NK_EOK)
                throw std::invalid_argument("--allow-uid needs a user id, a decimal number");
        }
        else
            throw std::invalid_argument("unknown argument '" + std::string(arg) + "'");
    }
    return options;
}

// An output opened for appending, written with one call per piece so that a
// line is never left half in a buffer.
class Output {
public:
    Output(int fd, std::string name) : m_fd(fd), m_name(std::move(name)) {}

    static Output Open(const std::string& path)
    {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (fd < 0)
            throw std::system_error(errno, std::generic_category(), "cannot open '" + path + "'");
        return Output(fd, path);
    }

    Output(Output&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)), m_name(std::move(other.m_name)) {}
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;
    Output& operator=(Output&&) = delete;

    ~Output()
    {
        if (m_fd > STDERR_FILENO)
            ::close(m_fd);
    }

    void Write(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const ssize_t n = ::write(m_fd, bytes.data(), bytes.size());
            if (n < 0 && errno == EINTR)
                continue;
            if (n <= 0)
                throw std::system_error(n < 0 ? errno : EIO, std::generic_category(),
                                        "cannot write to '" + m_name + "'");
            bytes.remove_prefix(static_cast<std::size_t>(n));
        }
    }

private:
    int m_fd;
    std::string m_name;
};

// SIGTERM and SIGINT are taken by a thread of their own: it closes the
// channel, which ends the receive of the request loop. SIGUSR1 only ends the
// thread.
class StopSignals {
public:
    StopSignals()
    {
        sigemptyset(&m_signals);
        sigaddset(&m_signals, SIGTERM);
        sigaddset(&m_signals, SIGINT);
        sigaddset(&m_signals, SIGUSR1);
        // Before any other thread exists, so that every thread inherits it.
        if (const int error = pthread_sigmask(SIG_BLOCK, &m_signals, nullptr); error != 0)
            throw std::system_error(error, std::generic_category(), "cannot block the stop signals");
    }

    ~StopSignals() { Finish(); }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    void Watch(Handle channel)
    {
        m_thread = std::thread([this, channel] {
            int signal = 0;
            if (sigwait(&m_signals, &signal) != 0 || signal == SIGUSR1)
                return;
            m_stop = true;
            ServiceLocatorUnregister(channel);
        });
    }

    void Finish()
    {
        if (m_thread.joinable()) {
            pthread_kill(m_thread.native_handle(), SIGUSR1);
            m_thread.join();
        }
    }

    bool Stopping() const { return m_stop; }

private:
    sigset_t m_signals{};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

int Serve(NkNosTransport& transport, Output& out, Output* raw, const StopSignals& stop)
{
    alignas(nk_message) std::array<std::uint8_t, kMessageBuffer> message{};
    std::vector<std::uint8_t> arenaBuffer(kArenaBuffer);
    auto* request = reinterpret_cast<nk_message*>(message.data());
    for (;;) {
        message.fill(0);
        nk_msg_set_size(request, static_cast<std::uint32_t>(message.size()));
        nk_arena arena;
        nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
        Retcode rc = transport.ops->recv(&transport, request, &arena);
        if (stop.Stopping())
            return kExitStopped;
        if (rc == NK_EAGAIN)
            continue;
        if (rc != NK_EOK) {
            std::fprintf(stderr, "log-storage: receiving a request failed with %d\n", rc);
            return kExitFailed;
        }

        const std::size_t messageSize = std::min<std::size_t>(nk_msg_size(request), message.size());
        const log_storage::Decoded decoded =
            log_storage::DecodeRequest({message.data(), messageSize}, {arena.start, nk_arena_used(&arena)});

        nvlog::StoreResponse response{};
        response.header.riid = request->riid;
        response.header.mid = request->mid;
        nk_msg_set_size(&response.header, sizeof(response));
        if (decoded.record) {
            out.Write(log_storage::FormatLine(*decoded.record));
            if (raw != nullptr) {
                const nvlog::StoreRequest* store = reinterpret_cast<const nvlog::StoreRequest*>(request);
                raw->Write({reinterpret_cast<const char*>(arena.start) + store->record.offset, nvlog::kRecordSize});
            }
        } else {
            std::fprintf(stderr, "log-storage: malformed record: %s\n", decoded.error.c_str());
            response.header.size |= NK_MSG_ERROR_FLAG;
        }

        rc = transport.ops->reply(&transport, &response.header, nullptr);
        if (stop.Stopping())
            return kExitStopped;
        if (rc != NK_EOK && rc != NK_EAGAIN) {
            std::fprintf(stderr, "log-storage: sending a reply failed with %d\n", rc);
            return kExitFailed;
        }
    }
}

int Run(const Options& options)
{
    StopSignals stop;
    Output out = options.out ? Output::Open(*options.out) : Output(STDOUT_FILENO, "standard output");
    std::optional<Output> raw;
    if (options.raw)
        raw.emplace(Output::Open(*options.raw));

    // Every process of the system keeps a connection to the log storage.
    if (NosHostSetConnectionLimit(nvlog::kEntityName, kConnectionLimit) != NK_EOK)
        throw std::runtime_error("cannot set the connection limit");
    std::uint32_t riid = 0;
    const Handle channel = ServiceLocatorRegister(nvlog::kEntityName, nullptr, 0, &riid);
    if (channel == INVALID_HANDLE) {
        std::fprintf(stderr, "log-storage: cannot register the channel \"%s\"\n", nvlog::kEntityName);
        return kExitFailed;
    }
    Handle sync = INVALID_HANDLE;
    NkNosTransport transport{};
    if (KnIpcCreateSyncObject(&sync) != NK_EOK ||
        NkNosTransportSync_Init(&transport, channel, INVALID_HANDLE, sync) != NK_EOK) {
        std::fprintf(stderr, "log-storage: cannot set up the transport of the channel\n");
        ServiceLocatorUnregister(channel);
        return kExitFailed;
    }
    stop.Watch(channel);

    int status = kExitFailed;
    try {
        status = Serve(transport, out, raw ? &*raw : nullptr, stop);
    } catch (const std::system_error& error) {
        std::fprintf(stderr, "log-storage: %s\n", error.what());
    }
    stop.Finish();
    if (!stop.Stopping())
        ServiceLocatorUnregister(channel);
    KnHandleClose(sync);
    return status;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "--version") {
        std::puts("log-storage " VERIFIER_VERSION);
        return 0;
    }
    Options options;
    try {
        options = ParseOptions(argc, argv);
    } catch (const std::invalid_argument& error) {
        std::fprintf(stderr, "log-storage: %s (see --help)\n", error.what());
        return kExitUsage;
    }
    if (options.help) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    std::signal(SIGPIPE, SIG_IGN);  // a closed output is reported as a write error
    try {
        return Run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "log-storage: %s\n", error.what());
        return kExitFailed;
    }
}
