// A program run as a child process of a test, with every wait bounded.
// The child gets this process's environment (NOS_RUNTIME_DIR included) with
// `env` ("NAME=value") on top; its standard output is a pipe to the test
// (ReadLine), its standard error goes to a file (Log), its input is empty.
// It is killed when the thread that started it ends, and killed and reaped
// when the object goes. A log-storage process writes its records to the file
// given with --out: read it with ReadFile.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

using namespace std::chrono_literals;

// The programs of the build, as the test targets were built with them. A
// test that starts one must depend on its target (add_dependencies).
namespace program {
extern const char* const kVerifier;
extern const char* const kUpdateRegistry;
extern const char* const kSignatureVerifier;
extern const char* const kLogStorage;
extern const char* const kRegistryCli;
extern const char* const kVerifierCli;
}  // namespace program

class Process {
public:
    // Throws std::runtime_error when the program cannot be started.
    explicit Process(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    // Waits until somebody serves the service-locator channel `channel`;
    // false when the child ends first or `timeout` passes.
    bool WaitServing(const std::string& channel, std::chrono::milliseconds timeout = 10s);
    // The next line of its standard output, without the newline; none on
    // time-out or at the end of the output.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = 10s);
    // Sends `signal` unless the child has already been reaped.
    void Signal(int signal);
    // The exit status, 128 + the signal number when a signal ended it; none
    // when it still runs after `timeout`.
    std::optional<int> Wait(std::chrono::milliseconds timeout = 10s);
    // SIGTERM, then SIGKILL when it still runs after `timeout`; the exit status.
    int Stop(std::chrono::milliseconds timeout = 10s);
    // What it has written to standard error so far.
    std::string Log() const;
    pid_t Pid() const noexcept { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_output = -1;
    int m_log = -1;
    std::string m_buffered;
    std::optional<int> m_status;
};

// The whole content of a file; empty when it cannot be read.
std::string ReadFile(const std::filesystem::path& path);

}  // namespace test_support
