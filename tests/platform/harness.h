// Test harness: a private runtime directory per test, and peer processes
// started with fork/exec whose every wait is bounded.
#ifndef TESTS_PLATFORM_HARNESS_H
#define TESTS_PLATFORM_HARNESS_H

#include <gtest/gtest.h>

#include <chrono>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace platform_test {

using namespace std::chrono_literals;

// A child process running the test peer with `args`. Killed and reaped on
// destruction if still running.
class PeerProcess {
public:
    explicit PeerProcess(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv = {});
    ~PeerProcess();
    PeerProcess(const PeerProcess&) = delete;
    PeerProcess& operator=(const PeerProcess&) = delete;

    // The next line of the peer's standard output, without its newline; none
    // on time-out or end of output.
    std::optional<std::string> ReadLine(std::chrono::milliseconds timeout = 10s);
    void WriteLine(const std::string& line);
    // Exit code (128 + signal when killed); none on time-out.
    std::optional<int> Wait(std::chrono::milliseconds timeout = 10s);
    void Kill(int signal);

private:
    pid_t pid_ = -1;
    int in_ = -1;
    int out_ = -1;
    std::string buffered_;
    std::optional<int> status_;
};

// Starts the echo server on `channel` and waits for its "ready".
std::unique_ptr<PeerProcess> StartServer(const std::string& channel, const std::vector<std::string>& options = {});

// Gives each test its own NOS_RUNTIME_DIR and a call time-out, so that a
// failing test ends instead of hanging.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string runtimeDir_;
};

}  // namespace platform_test

#endif
