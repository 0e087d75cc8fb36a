// Shared pieces of the registry tests: a private runtime directory, a
// scripted in-process registry server, and the real update-registry process.
#pragma once

#include <nos/platform.h>

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "child_process.h"
#include "update/registry/ipc/registry_types.h"

namespace registry_test {

using Bytes = std::vector<std::uint8_t>;

template <typename T>
Bytes BytesOf(const T& value)
{
    const auto* p = reinterpret_cast<const std::uint8_t*>(&value);
    return Bytes(p, p + sizeof(value));
}

// A message of the registry interface with its header filled in.
template <typename Message>
Message WithHeader(std::uint16_t riid, update::registry::ipc::Method method, std::uint32_t sizeWord)
{
    Message message{};
    message.base_.riid = riid;
    message.base_.mid = static_cast<std::uint16_t>(method);
    message.base_.size = sizeWord;
    return message;
}

// A fresh directory used as NOS_RUNTIME_DIR (and a bounded call time, so a
// broken test fails instead of hanging) for as long as the object lives.
class RuntimeDir {
public:
    RuntimeDir();
    ~RuntimeDir();
    RuntimeDir(const RuntimeDir&) = delete;
    RuntimeDir& operator=(const RuntimeDir&) = delete;

    const std::filesystem::path& path() const noexcept { return m_path; }

private:
    std::filesystem::path m_path;
};

// Gives a test suite one runtime directory of its own.
template <typename Base>
class InRuntimeDir : public Base {
protected:
    static void SetUpTestSuite() { s_runtime = std::make_unique<RuntimeDir>(); }
    static void TearDownTestSuite() { s_runtime.reset(); }
    static const RuntimeDir& Runtime() { return *s_runtime; }

private:
    static inline std::unique_ptr<RuntimeDir> s_runtime;
};

// What the scripted server answers to the next request.
struct ScriptedReply {
    Bytes message;  // header included; its size word says how much is sent
    Bytes arena;
    bool drop = false;  // no answer: the client's call sees the connection closed
};

// A registry stand-in on `channel` that answers each request with the next
// scripted reply (and drops the caller when none is left), keeping every
// request it received.
class ScriptedServer {
public:
    ScriptedServer(const std::string& channel, const std::vector<std::string>& endpoints);
    ~ScriptedServer();
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    void Push(ScriptedReply reply);
    std::vector<Bytes> TakeRequests();

private:
    void Serve();

    Handle m_channel = INVALID_HANDLE;
    std::mutex m_mutex;
    std::deque<ScriptedReply> m_replies;
    std::vector<Bytes> m_requests;
    std::thread m_thread;
};

// The update-registry executable, started with --storage and --state in
// `dir`, and ready (its channel answers) when the constructor returns.
class RegistryProcess {
public:
    RegistryProcess(const std::filesystem::path& dir, const std::vector<std::string>& extraArgs = {});
    ~RegistryProcess() = default;

    // SIGTERM, then the exit code.
    std::optional<int> Stop();
    std::string Stderr() const;
    logger_test::ChildProcess& Process() { return *m_process; }

    const std::filesystem::path& storage() const noexcept { return m_storage; }
    const std::filesystem::path& stateFile() const noexcept { return m_state; }

private:
    std::filesystem::path m_storage;
    std::filesystem::path m_state;
    std::filesystem::path m_stderr;
    std::unique_ptr<logger_test::ChildProcess> m_process;
};

// Runs a program to its end (bounded) and returns its exit code and output.
struct RunResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};
RunResult Run(const std::vector<std::string>& argv, const std::filesystem::path& scratch);

}  // namespace registry_test
