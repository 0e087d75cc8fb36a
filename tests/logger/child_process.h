// A child process for the end-to-end tests, with its output in files and
// every wait bounded.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace logger_test {

class ChildProcess {
public:
    // Runs argv[0] with the given arguments; standard output and error go to
    // the files (created or truncated).
    ChildProcess(const std::vector<std::string>& argv, const std::string& stdoutPath, const std::string& stderrPath);
    // Kills and reaps the child if it still runs.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Exit code, or 128 + signal when killed; none when it still runs after `timeout`.
    std::optional<int> Wait(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    void Signal(int signal);
    pid_t pid() const noexcept { return m_pid; }

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

std::string ReadFile(const std::string& path);

}  // namespace logger_test
