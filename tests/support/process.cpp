#include "support/process.h"

#include <nos/kernel.h>
#include <nos/service_locator.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace test_support {

namespace program {
const char* const kVerifier = TEST_SUPPORT_VERIFIER;
const char* const kUpdateRegistry = TEST_SUPPORT_UPDATE_REGISTRY;
const char* const kSignatureVerifier = TEST_SUPPORT_SIGNATURE_VERIFIER;
const char* const kLogStorage = TEST_SUPPORT_LOG_STORAGE;
const char* const kRegistryCli = TEST_SUPPORT_REGISTRY_CLI;
const char* const kVerifierCli = TEST_SUPPORT_VERIFIER_CLI;
}  // namespace program

namespace {

std::vector<char*> Pointers(std::vector<std::string>& strings)
{
    std::vector<char*> pointers;
    for (auto& s : strings)
        pointers.push_back(s.data());
    pointers.push_back(nullptr);
    return pointers;
}

}  // namespace

Process::Process(const std::vector<std::string>& argv, const std::vector<std::string>& env)
{
    // Everything the child needs is made before fork: after it, the child
    // may only duplicate descriptors and exec.
    std::vector<std::string> args = argv;
    std::vector<std::string> environment = env;  // getenv takes the first of a name
    for (char** e = environ; *e != nullptr; ++e)
        environment.emplace_back(*e);
    const auto rawArgs = Pointers(args);
    const auto rawEnvironment = Pointers(environment);
    std::string logName = (std::filesystem::temp_directory_path() / "test-process-log-XXXXXX").string();
    m_log = ::mkostemp(logName.data(), O_CLOEXEC);
    const int input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    int output[2];
    if (m_log < 0 || input < 0 || ::pipe2(output, O_CLOEXEC) != 0)
        throw std::runtime_error("cannot make the log or the pipe of " + argv.at(0));
    ::unlink(logName.c_str());  // the descriptors keep it
    const pid_t parent = ::getpid();
    m_pid = ::fork();
    if (m_pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (::getppid() != parent)
            ::_exit(127);
        ::dup2(input, STDIN_FILENO);
        ::dup2(output[1], STDOUT_FILENO);
        ::dup2(m_log, STDERR_FILENO);
        ::execve(rawArgs[0], rawArgs.data(), rawEnvironment.data());
        ::_exit(127);
    }
    ::close(input);
    ::close(output[1]);
    m_output = output[0];
    if (m_pid < 0) {
        m_status = 127;
        throw std::runtime_error("cannot fork for " + argv.at(0));
    }
}

Process::~Process()
{
    if (!m_status) {
        Signal(SIGKILL);
        (void)Wait(10s);
    }
    ::close(m_output);
    ::close(m_log);
}

bool Process::WaitServing(const std::string& channel, std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (const Handle probe = ServiceLocatorConnect(channel.c_str()); probe != INVALID_HANDLE) {
            (void)KnHandleClose(probe);
            return true;
        }
        if (Wait(10ms))
            return false;
    }
    return false;
}

std::optional<std::string> Process::ReadLine(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const size_t eol = m_buffered.find('\n'); eol != std::string::npos) {
            std::string line = m_buffered.substr(0, eol);
            m_buffered.erase(0, eol + 1);
            return line;
        }
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        pollfd p{m_output, POLLIN, 0};
        if (left <= 0 || ::poll(&p, 1, static_cast<int>(left)) == 0)
            return std::nullopt;
        char chunk[512];
        const ssize_t n = ::read(m_output, chunk, sizeof chunk);
        if (n == 0 || (n < 0 && errno != EINTR))
            return std::nullopt;
        if (n > 0)
            m_buffered.append(chunk, static_cast<size_t>(n));
    }
}

void Process::Signal(int signal)
{
    if (!m_status)
        ::kill(m_pid, signal);
}

std::optional<int> Process::Wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_status) {
        int status = 0;
        const pid_t done = ::waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else if (done < 0 || std::chrono::steady_clock::now() >= deadline)
            break;
        else
            std::this_thread::sleep_for(2ms);
    }
    return m_status;
}

int Process::Stop(std::chrono::milliseconds timeout)
{
    Signal(SIGTERM);
    if (const auto status = Wait(timeout))
        return *status;
    Signal(SIGKILL);
    return Wait(10s).value_or(-1);
}

std::string Process::Log() const
{
    std::string text;
    char chunk[4096];
    for (off_t at = 0;;) {
        const ssize_t n = ::pread(m_log, chunk, sizeof chunk, at);
        if (n <= 0)
            return text;
        text.append(chunk, static_cast<size_t>(n));
        at += n;
    }
}

std::string ReadFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace test_support
