#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>
#include <thread>

extern char** environ;

namespace logger_test {

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& stdoutPath,
                           const std::string& stderrPath)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const std::string& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    const int error = posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::system_error(error, std::generic_category(), "cannot start " + argv[0]);
}

ChildProcess::~ChildProcess()
{
    if (!m_status) {
        Signal(SIGKILL);
        Wait(std::chrono::seconds(5));
    }
}

std::optional<int> ChildProcess::Wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_status) {
        int status = 0;
        const pid_t done = waitpid(m_pid, &status, WNOHANG);
        if (done == m_pid)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else if (done < 0 || std::chrono::steady_clock::now() >= deadline)
            break;
        else
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return m_status;
}

void ChildProcess::Signal(int signal)
{
    if (!m_status)
        ::kill(m_pid, signal);
}

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace logger_test
