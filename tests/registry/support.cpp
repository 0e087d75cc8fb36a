#include "support.h"

#include <nos_host/host.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace registry_test {

namespace {
std::filesystem::path MakeTempDir(const char* prefix)
{
    std::string pattern = (std::filesystem::temp_directory_path() / (std::string(prefix) + ".XXXXXX")).string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("cannot make a temporary directory from " + pattern);
    return pattern;
}
}  // namespace

RuntimeDir::RuntimeDir() : m_path(MakeTempDir("registry-test"))
{
    setenv("NOS_RUNTIME_DIR", m_path.c_str(), 1);
    setenv("NOS_CALL_TIMEOUT_MS", "10000", 1);
}

RuntimeDir::~RuntimeDir()
{
    unsetenv("NOS_RUNTIME_DIR");
    unsetenv("NOS_CALL_TIMEOUT_MS");
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

ScriptedServer::ScriptedServer(const std::string& channel, const std::vector<std::string>& endpoints)
{
    std::vector<const char*> names;
    for (const std::string& name : endpoints)
        names.push_back(name.c_str());
    if (NosHostSetEndpoints(channel.c_str(), names.data(), names.size()) != NK_EOK)
        throw std::runtime_error("cannot set the endpoints of " + channel);
    std::uint32_t riid = 0;
    m_channel = ServiceLocatorRegister(channel.c_str(), nullptr, 0, &riid);
    if (m_channel == INVALID_HANDLE)
        throw std::runtime_error("cannot register " + channel);
    m_thread = std::thread(&ScriptedServer::Serve, this);
}

ScriptedServer::~ScriptedServer()
{
    // Closing the channel ends the receive the thread is blocked in.
    (void)ServiceLocatorUnregister(m_channel);
    m_thread.join();
}

void ScriptedServer::Push(ScriptedReply reply)
{
    std::lock_guard lock(m_mutex);
    m_replies.push_back(std::move(reply));
}

std::vector<Bytes> ScriptedServer::TakeRequests()
{
    std::lock_guard lock(m_mutex);
    return std::exchange(m_requests, {});
}

void ScriptedServer::Serve()
{
    Handle sync = INVALID_HANDLE;
    (void)KnIpcCreateSyncObject(&sync);
    NkNosTransport transport{};
    if (NkNosTransportSync_Init(&transport, m_channel, INVALID_HANDLE, sync) != NK_EOK)
        return;
    for (;;) {
        alignas(8) std::array<std::uint8_t, 256> request{};
        std::array<std::uint8_t, 64> requestArenaBuffer{};
        auto* message = reinterpret_cast<nk_message*>(request.data());
        message->size = static_cast<std::uint32_t>(request.size());
        nk_arena requestArena;
        nk_arena_init(&requestArena, requestArenaBuffer.data(), requestArenaBuffer.size());
        if (transport.ops->recv(&transport, message, &requestArena) != NK_EOK)
            break;

        ScriptedReply reply;
        {
            std::lock_guard lock(m_mutex);
            m_requests.emplace_back(request.begin(), request.begin() + nk_msg_size(message));
            if (m_replies.empty()) {
                reply.drop = true;
            } else {
                reply = std::move(m_replies.front());
                m_replies.pop_front();
            }
        }
        if (reply.drop)
            continue;  // the next receive drops the caller that got no answer
        reply.message.resize(std::max<std::size_t>(reply.message.size(), sizeof(nk_message)));
        nk_arena replyArena;
        nk_arena_init(&replyArena, reply.arena.data(), reply.arena.size());
        replyArena.current = replyArena.end;
        (void)transport.ops->reply(&transport, reinterpret_cast<const nk_message*>(reply.message.data()),
                                   reply.arena.empty() ? nullptr : &replyArena);
    }
    (void)KnHandleClose(sync);
}

RegistryProcess::RegistryProcess(const std::filesystem::path& dir, const std::vector<std::string>& extraArgs)
    : m_storage(dir / "storage"), m_state(dir / "state.json"), m_stderr(dir / "registry.err")
{
    std::vector<std::string> argv{UPDATE_REGISTRY_PATH, "--storage", m_storage.string(), "--state", m_state.string()};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    m_process = std::make_unique<logger_test::ChildProcess>(argv, (dir / "registry.out").string(), m_stderr.string());
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    for (;;) {
        const Handle probe = ServiceLocatorConnect("update_registry");
        if (probe != INVALID_HANDLE) {
            (void)KnHandleClose(probe);
            return;
        }
        if (m_process->Wait(std::chrono::milliseconds(10)) || std::chrono::steady_clock::now() >= deadline)
            throw std::runtime_error("update-registry did not come up: " + Stderr());
    }
}

std::optional<int> RegistryProcess::Stop()
{
    m_process->Signal(SIGTERM);
    return m_process->Wait();
}

std::string RegistryProcess::Stderr() const { return logger_test::ReadFile(m_stderr.string()); }

RunResult Run(const std::vector<std::string>& argv, const std::filesystem::path& scratch)
{
    const std::string out = (scratch / "run.out").string();
    const std::string err = (scratch / "run.err").string();
    RunResult result;
    {
        logger_test::ChildProcess child(argv, out, err);
        result.exitCode = child.Wait().value_or(-1);
    }
    result.out = logger_test::ReadFile(out);
    result.err = logger_test::ReadFile(err);
    return result;
}

}  // namespace registry_test
