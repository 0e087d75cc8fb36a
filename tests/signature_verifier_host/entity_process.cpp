#include "entity_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

extern char** environ;

namespace signature_verifier::host::testing {
namespace {

using Clock = std::chrono::steady_clock;

pid_t Spawn(const std::vector<std::string>& argv, const std::filesystem::path& output)
{
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    pid_t pid = -1;
    const int error = posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0)
        throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
    return pid;
}

// Waits up to `limit` for the child; its exit status, -1 after a signal, or
// nothing while it runs on.
std::optional<int> WaitFor(pid_t pid, std::chrono::milliseconds limit)
{
    const auto deadline = Clock::now() + limit;
    for (;;) {
        int status = 0;
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (done < 0)
            return -1;
        if (Clock::now() >= deadline)
            return std::nullopt;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

int KillAndReap(pid_t pid)
{
    kill(pid, SIGKILL);
    WaitFor(pid, std::chrono::seconds(5));
    return -1;
}

std::string ReadText(const std::filesystem::path& file)
{
    try {
        const ByteVector bytes = ReadBytes(file);
        return std::string(bytes.begin(), bytes.end());
    } catch (const std::runtime_error& error) {
        return error.what();
    }
}

}  // namespace

std::filesystem::path EntityBinary()
{
    return SIGNATURE_VERIFIER_BINARY;
}

int RunToEnd(const std::vector<std::string>& argv, std::string& output, std::chrono::milliseconds limit)
{
    TempDir dir("signature-verifier-run");
    const auto file = dir.Path() / "output";
    const pid_t pid = Spawn(argv, file);
    const std::optional<int> status = WaitFor(pid, limit);
    const int result = status ? *status : KillAndReap(pid);
    output = ReadText(file);
    return result;
}

EntityProcess::EntityProcess(const std::vector<std::string>& args, std::filesystem::path log) : m_log(std::move(log))
{
    std::vector<std::string> argv{EntityBinary().string()};
    argv.insert(argv.end(), args.begin(), args.end());
    m_pid = Spawn(argv, m_log);
}

EntityProcess::~EntityProcess()
{
    if (m_pid > 0)
        Stop();
}

Handle EntityProcess::WaitServing()
{
    const auto deadline = Clock::now() + std::chrono::seconds(20);
    for (;;) {
        const Handle handle = ServiceLocatorConnect(NV_SIGNATURE_VERIFIER_CONNECTION);
        if (handle != INVALID_HANDLE)
            return handle;
        if (const std::optional<int> status = WaitFor(m_pid, std::chrono::milliseconds(0))) {
            m_pid = -1;
            throw std::runtime_error("signature-verifier exited with " + std::to_string(*status) + ":\n" + Log());
        }
        if (Clock::now() >= deadline)
            throw std::runtime_error("signature-verifier does not serve after 20 s:\n" + Log());
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

int EntityProcess::Stop()
{
    if (m_pid <= 0)
        return -1;
    const pid_t pid = m_pid;
    m_pid = -1;
    kill(pid, SIGTERM);
    const std::optional<int> status = WaitFor(pid, std::chrono::seconds(10));
    return status ? *status : KillAndReap(pid);
}

std::string EntityProcess::Log() const
{
    return ReadText(m_log);
}

RawClient::RawClient(Handle channel) : m_channel(channel)
{
    m_riid = ServiceLocatorGetRiid(channel, NV_SIGNATURE_VERIFIER_ENDPOINT);
    EXPECT_LT(m_riid, INVALID_RIID);
    EXPECT_EQ(NkNosTransport_Init(&m_transport, channel, nullptr, 0), NK_EOK);
}

RawClient::~RawClient()
{
    KnHandleClose(m_channel);
}

RawClient::Answer RawClient::Call(const WireRequest& request)
{
    Answer answer;
    answer.reply.base.riid = request.message.base.riid;
    answer.reply.base.mid = request.message.base.mid;
    nk_msg_set_size(&answer.reply.base, sizeof answer.reply);
    answer.rc = m_transport.ops->call(&m_transport, &request.message.base, &request.arena, &answer.reply.base, nullptr);
    return answer;
}

std::uint32_t RawClient::Code(const WireRequest& request)
{
    const Answer answer = Call(request);
    if (answer.rc != NK_EOK) {
        ADD_FAILURE() << "the call failed with transport code " << answer.rc;
        return 0xFFFFFFFFu;
    }
    const nk_message& header = answer.reply.base;
    if (header.mid != request.message.base.mid || nk_msg_size(&header) != NV_SIGNATURE_VERIFIER_REPLY_SIZE) {
        ADD_FAILURE() << "reply of method " << header.mid << " with size " << nk_msg_size(&header);
        return 0xFFFFFFFFu;
    }
    if (!nk_msg_is_error(&header)) {
        EXPECT_EQ(answer.reply.completion_code, 0u) << "a plain reply carries no code";
        return NV_SIGNATURE_VERIFIER_CC_OK;
    }
    return answer.reply.completion_code;
}

}  // namespace signature_verifier::host::testing
