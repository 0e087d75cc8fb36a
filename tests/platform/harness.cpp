#include "harness.h"

#include <cerrno>
#include <fcntl.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace platform_test {

PeerProcess::PeerProcess(const std::vector<std::string>& args, const std::vector<std::string>& extraEnv)
{
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0 || ::pipe2(fromChild, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    // Everything exec needs is built before fork: the child may only exec.
    std::vector<std::string> argv{PLATFORM_PEER};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> rawArgv;
    for (auto& arg : argv)
        rawArgv.push_back(arg.data());
    rawArgv.push_back(nullptr);
    std::vector<std::string> env(extraEnv);
    for (char** e = environ; *e != nullptr; ++e)
        env.emplace_back(*e);  // later entries lose to the extra ones: getenv takes the first
    std::vector<char*> rawEnv;
    for (auto& assignment : env)
        rawEnv.push_back(assignment.data());
    rawEnv.push_back(nullptr);
    pid_ = ::fork();
    if (pid_ < 0)
        throw std::runtime_error("fork failed");
    if (pid_ == 0) {
        // A test process that crashes must not leave peers behind.
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::dup2(toChild[0], STDIN_FILENO);
        ::dup2(fromChild[1], STDOUT_FILENO);
        ::execve(rawArgv[0], rawArgv.data(), rawEnv.data());
        std::_Exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    in_ = toChild[1];
    out_ = fromChild[0];
}

PeerProcess::~PeerProcess()
{
    if (!status_) {
        Kill(SIGKILL);
        Wait(10s);
    }
    ::close(in_);
    ::close(out_);
}

std::optional<std::string> PeerProcess::ReadLine(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const size_t eol = buffered_.find('\n');
        if (eol != std::string::npos) {
            std::string line = buffered_.substr(0, eol);
            buffered_.erase(0, eol + 1);
            return line;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd p{out_, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char chunk[512];
        const ssize_t n = ::read(out_, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        buffered_.append(chunk, static_cast<size_t>(n));
    }
}

void PeerProcess::WriteLine(const std::string& line)
{
    const std::string text = line + "\n";
    ASSERT_EQ(::write(in_, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::optional<int> PeerProcess::Wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!status_) {
        int status = 0;
        const pid_t done = ::waitpid(pid_, &status, WNOHANG);
        if (done == pid_)
            status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        else
            std::this_thread::sleep_for(5ms);
    }
    return status_;
}

void PeerProcess::Kill(int signal)
{
    if (!status_)
        ::kill(pid_, signal);
}

std::unique_ptr<PeerProcess> StartServer(const std::string& channel, const std::vector<std::string>& options)
{
    std::vector<std::string> args{"serve", channel};
    args.insert(args.end(), options.begin(), options.end());
    auto server = std::make_unique<PeerProcess>(args);
    const auto line = server->ReadLine();
    EXPECT_EQ(line.value_or("<nothing>"), "ready");
    return server;
}

void PlatformTest::SetUp()
{
    char pattern[] = "/tmp/nos-platform-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    runtimeDir_ = pattern;
    ::setenv("NOS_RUNTIME_DIR", runtimeDir_.c_str(), 1);
    ::setenv("NOS_CALL_TIMEOUT_MS", "10000", 1);
}

void PlatformTest::TearDown()
{
    ::unsetenv("NOS_RUNTIME_DIR");
    ::unsetenv("NOS_CALL_TIMEOUT_MS");
    std::error_code ignored;
    std::filesystem::remove_all(runtimeDir_, ignored);
}

}  // namespace platform_test
