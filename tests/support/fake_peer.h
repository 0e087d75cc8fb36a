// In-process stand-ins of the Verifier's peers. Each serves its
// service-locator channel on the host platform from a thread of its own, so
// that in-process clients and a real verifier process alike can call it;
// each keeps every request it received and answers as its mode says:
//   Answer   the peer's answer (see the three peers below);
//   Garbage  that answer spoiled by `spoil`, by default cut to the bare
//            24-byte header (a reply of the wrong size);
//   Close    no answer: the caller's connection is closed;
//   Never    no answer, until the fake is destroyed.
// Make a fake inside a RuntimeDir and destroy it first. A request larger
// than 64 KiB of message or 8 MiB of arena is refused by the platform.
#pragma once

#include <nos/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/scripted_transport.h"
#include "update/registry/ipc/registry_types.h"

namespace test_support {

using namespace std::chrono_literals;

enum class FakeMode { Answer, Garbage, Close, Never };

// A request or a reply: the message (as many bytes as its size word says)
// and the arena's bytes.
struct Exchanged {
    Bytes message;
    Bytes arena;
};

class FakePeer {
public:
    using AnswerFn = std::function<Exchanged(const Exchanged& request)>;
    using SpoilFn = std::function<void(Exchanged& reply)>;

    // Serves `channel`, whose endpoint i is `endpoints`[i] with riid i.
    // Throws std::runtime_error when it cannot be registered.
    FakePeer(const std::string& channel, const std::vector<std::string>& endpoints, AnswerFn answer);
    virtual ~FakePeer();
    FakePeer(const FakePeer&) = delete;
    FakePeer& operator=(const FakePeer&) = delete;

    // For the requests that come from now on.
    void SetMode(FakeMode mode, SpoilFn spoil = CutToHeader);
    std::vector<Exchanged> Requests() const;
    // Waits until `count` requests have come in all.
    bool WaitRequests(size_t count, std::chrono::milliseconds timeout = 10s) const;

    static void CutToHeader(Exchanged& reply);

private:
    void Serve();

    const AnswerFn m_answer;
    Handle m_channel = INVALID_HANDLE;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    FakeMode m_mode = FakeMode::Answer;
    SpoilFn m_spoil;
    bool m_stopping = false;
    std::vector<Exchanged> m_requests;
    std::thread m_thread;
};

// "update_registry", endpoint "UpdateRegistry.UpdateRegistry": the registry
// interface over `sessions` (handle to session). GetInfo of another handle
// answers 0x8000004C (not found); the other methods 0x80000043 (not
// implemented).
class FakeRegistry : public FakePeer {
public:
    explicit FakeRegistry(std::map<unsigned int, update::registry::ipc::SessionInfo> sessions);
};

// "nv.SignatureVerifierEntity", endpoint "storage.storage": a plain 32-byte
// reply (the check passed) when `completionCode` is 0; otherwise an error
// reply with that completion code.
class FakeSignatureVerifier : public FakePeer {
public:
    explicit FakeSignatureVerifier(std::uint32_t completionCode = 0);
};

// "nv.NvlogStorageEntity", endpoint "nv.NvlogStorage.storage": answers each
// record with a 32-byte reply and keeps its text.
class FakeLogStorage : public FakePeer {
public:
    FakeLogStorage();
    // The text of every record received, in order.
    std::vector<std::string> Lines() const;
};

}  // namespace test_support
