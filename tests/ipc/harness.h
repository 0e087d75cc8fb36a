// What the IPC tests share: a private runtime directory per test, client
// processes whose every wait is bounded, a capturing server logger and the
// echo component.
#pragma once

#include "echo_messages.h"

#include <nos/ipc/server.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace ipc_test {

using namespace std::chrono_literals;

// The server's lines, in the order they were logged. Thread-safe.
class LogCapture {
public:
    struct Line {
        std::string text;
        bool isError = false;
        bool operator==(const Line&) const = default;
    };

    // A logger that appends here; this object must outlive its users.
    nos::ipc::ServerLogger Logger();
    std::vector<Line> Lines() const;
    // Waits until `count` lines start with `prefix`; returns the last of them.
    std::optional<Line> WaitFor(std::string_view prefix, size_t count = 1, std::chrono::milliseconds timeout = 10s) const;
    size_t Count(std::string_view prefix) const;
    // When the first line that contains `part` was logged.
    std::optional<std::chrono::steady_clock::time_point> TimeOf(std::string_view part) const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<Line> m_lines;
    std::vector<std::chrono::steady_clock::time_point> m_times;  // one per line
};

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line);

// A running ipc_test_client. Killed and reaped on destruction.
class ClientProcess {
public:
    explicit ClientProcess(const std::vector<std::string>& args);
    ~ClientProcess();
    ClientProcess(const ClientProcess&) = delete;
    ClientProcess& operator=(const ClientProcess&) = delete;

    // The next line of its output; none on time-out or end of output.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = 10s);
    void WriteLine(std::string_view line);
    // Its exit code (128 + signal when killed); none on time-out.
    std::optional<int> Wait(std::chrono::milliseconds timeout = 10s);
    void Kill();

private:
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    std::string m_buffered;
    std::optional<int> m_status;
};

// Gives each test its own NOS_RUNTIME_DIR (set before any platform call of
// the test) and a call time-out for its clients.
class RuntimeDirTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    // File names in the runtime directory, sorted.
    std::vector<std::string> RuntimeFiles() const;

    std::string m_runtimeDir;
};

// The component the tests serve. Its dispatch answers every request with
// twice its value and returns `returnCode`.
struct EchoEntity {
    std::atomic<int> dispatched{0};
    int returnCode = 0;
    // Runs inside the dispatch, before the response is written.
    std::function<void(const EchoRequest&)> onRequest;
};

int EchoDispatch(EchoEntity* entity, const nk_message* request, const nk_arena* requestArena, nk_message* response,
                 nk_arena* responseArena);

using EchoServer = nos::ipc::Server<EchoEntity, EchoRequest, 0, EchoResponse, 0>;

// The channel handle of the first "NkNosTransport initialized with handle"
// line; INVALID_HANDLE when none came.
Handle WaitForServedHandle(const LogCapture& log);

// Blocks a dispatch until the test lets it go.
class Gate {
public:
    void Enter();  // called by the dispatch: signals arrival, waits for Open (at most 20 s)
    bool WaitEntered(std::chrono::milliseconds timeout = 10s);
    void Open();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_entered = false;
    bool m_open = false;
};

}  // namespace ipc_test
