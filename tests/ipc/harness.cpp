#include "harness.h"

#include <nos/transport.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace ipc_test {

nos::ipc::ServerLogger LogCapture::Logger()
{
    return [this](std::string_view message, bool isError) {
        {
            std::lock_guard lock(m_mutex);
            m_lines.push_back({std::string(message), isError});
            m_times.push_back(std::chrono::steady_clock::now());
        }
        m_changed.notify_all();
    };
}

std::vector<LogCapture::Line> LogCapture::Lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

std::optional<LogCapture::Line> LogCapture::WaitFor(std::string_view prefix, size_t count,
                                                    std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    std::optional<Line> found;
    m_changed.wait_for(lock, timeout, [&] {
        size_t seen = 0;
        for (const auto& line : m_lines) {
            if (line.text.starts_with(prefix) && ++seen == count) {
                found = line;
                return true;
            }
        }
        return false;
    });
    return found;
}

size_t LogCapture::Count(std::string_view prefix) const
{
    std::lock_guard lock(m_mutex);
    return static_cast<size_t>(
        std::count_if(m_lines.begin(), m_lines.end(), [&](const Line& l) { return l.text.starts_with(prefix); }));
}

std::optional<std::chrono::steady_clock::time_point> LogCapture::TimeOf(std::string_view part) const
{
    std::lock_guard lock(m_mutex);
    for (size_t i = 0; i < m_lines.size(); ++i) {
        if (m_lines[i].text.find(part) != std::string::npos)
            return m_times[i];
    }
    return std::nullopt;
}

void LogCapture::Clear()
{
    std::lock_guard lock(m_mutex);
    m_lines.clear();
    m_times.clear();
}

std::ostream& operator<<(std::ostream& out, const LogCapture::Line& line)
{
    return out << (line.isError ? "error: " : "info: ") << line.text;
}

ClientProcess::ClientProcess(const std::vector<std::string>& args)
{
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    if (::pipe2(fromChild, O_CLOEXEC) != 0) {
        ::close(toChild[0]);
        ::close(toChild[1]);
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> argv{IPC_TEST_CLIENT};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> rawArgv;
    for (auto& arg : argv)
        rawArgv.push_back(arg.data());
    rawArgv.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
    const int rc = ::posix_spawn(&m_pid, rawArgv[0], &actions, nullptr, rawArgv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(toChild[0]);
    ::close(fromChild[1]);
    m_input = toChild[1];
    m_output = fromChild[0];
    if (rc != 0) {
        m_status = 127;
        ADD_FAILURE() << "cannot start " << rawArgv[0] << ": " << std::strerror(rc);
    }
}

ClientProcess::~ClientProcess()
{
    if (!m_status) {
        Kill();
        Wait();
    }
    ::close(m_input);
    ::close(m_output);
}

std::optional<std::string> ClientProcess::ReadLine(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        if (const size_t eol = m_buffered.find('\n'); eol != std::string::npos) {
            std::string line = m_buffered.substr(0, eol);
            m_buffered.erase(0, eol + 1);
            return line;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return std::nullopt;
        pollfd p{m_output, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(left.count())) <= 0)
            continue;
        char chunk[256];
        const ssize_t n = ::read(m_output, chunk, sizeof chunk);
        if (n <= 0)
            return std::nullopt;
        m_buffered.append(chunk, static_cast<size_t>(n));
    }
}

void ClientProcess::WriteLine(std::string_view line)
{
    const std::string text = std::string(line) + '\n';
    ASSERT_EQ(::write(m_input, text.data(), text.size()), static_cast<ssize_t>(text.size()));
}

std::optional<int> ClientProcess::Wait(std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!m_status) {
        int status = 0;
        if (::waitpid(m_pid, &status, WNOHANG) == m_pid)
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        else if (std::chrono::steady_clock::now() >= deadline)
            return std::nullopt;
        else
            std::this_thread::sleep_for(5ms);
    }
    return m_status;
}

void ClientProcess::Kill()
{
    if (!m_status)
        ::kill(m_pid, SIGKILL);
}

void RuntimeDirTest::SetUp()
{
    char pattern[] = "/tmp/fdn-ipc-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_runtimeDir = pattern;
    ::setenv("NOS_RUNTIME_DIR", m_runtimeDir.c_str(), 1);
    ::setenv("NOS_CALL_TIMEOUT_MS", "10000", 1);
}

void RuntimeDirTest::TearDown()
{
    ::unsetenv("NOS_RUNTIME_DIR");
    ::unsetenv("NOS_CALL_TIMEOUT_MS");
    std::error_code ignored;
    std::filesystem::remove_all(m_runtimeDir, ignored);
}

std::vector<std::string> RuntimeDirTest::RuntimeFiles() const
{
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_runtimeDir))
        names.push_back(entry.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

int EchoDispatch(EchoEntity* entity, const nk_message* request, const nk_arena* /*requestArena*/,
                 nk_message* response, nk_arena* /*responseArena*/)
{
    const auto& in = *reinterpret_cast<const EchoRequest*>(request);
    auto& out = *reinterpret_cast<EchoResponse*>(response);
    if (entity->onRequest)
        entity->onRequest(in);
    out.header.riid = in.header.riid;
    out.header.mid = in.header.mid;
    nk_msg_set_size(&out.header, sizeof out);
    out.value = in.value * 2;
    out.result = entity->returnCode;
    ++entity->dispatched;
    return entity->returnCode;
}

Handle WaitForServedHandle(const LogCapture& log)
{
    static constexpr std::string_view kPrefix = "NkNosTransport initialized with handle ";
    const auto line = log.WaitFor(kPrefix);
    if (!line)
        return INVALID_HANDLE;
    return static_cast<Handle>(std::stoul(line->text.substr(kPrefix.size())));
}

void Gate::Enter()
{
    std::unique_lock lock(m_mutex);
    m_entered = true;
    m_changed.notify_all();
    // Bounded, so that a test that fails before Open still ends.
    m_changed.wait_for(lock, 20s, [this] { return m_open; });
}

bool Gate::WaitEntered(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [this] { return m_entered; });
}

void Gate::Open()
{
    std::lock_guard lock(m_mutex);
    m_open = true;
    m_changed.notify_all();
}

}  // namespace ipc_test
