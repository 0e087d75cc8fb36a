// A transport for the IPC server's request loop without sockets. Each
// receive hands the server the next step of a script: a request, or an
// error code; each reply is recorded and returns the code of its step. Once
// the script is used up, receive returns kEndOfScript. Give Ops() to the
// server's constructor; read the records once its threads are joined. One
// scripted transport at a time per process.
#pragma once

#include <nos/transport.h>

#include <cstdint>
#include <cstring>
#include <utility>
#include <vector>

namespace test_support {

using Bytes = std::vector<std::uint8_t>;

template <typename Message>
Bytes BytesOf(const Message& message)
{
    Bytes bytes(sizeof message);
    std::memcpy(bytes.data(), &message, sizeof message);
    return bytes;
}

struct ScriptStep {
    Retcode receive;  // what receive returns
    Bytes request;    // with receive 0: copied over the server's request buffer
    Bytes arena;      // with receive 0: appended to the server's request arena
    Retcode reply;    // what the reply to this step's request returns
};

// A request for the server, whose reply returns `reply`.
inline ScriptStep Deliver(Bytes request, Retcode reply = NK_EOK, Bytes arena = {})
{
    return {NK_EOK, std::move(request), std::move(arena), reply};
}

// A receive that fails with `code`.
inline ScriptStep Fail(Retcode code) { return {code, {}, {}, NK_EOK}; }

class ScriptedTransport {
public:
    // Outside every ignored set: it ends the thread that receives it.
    static constexpr Retcode kEndOfScript = -5;

    // What the server offered to one receive.
    struct Offer {
        std::uint32_t sizeWord;  // of the request buffer
        nk_arena arena;
    };
    // What the server sent with one reply.
    struct Reply {
        Bytes message;  // as many bytes as its size word says
        nk_arena arena;
    };

    explicit ScriptedTransport(std::vector<ScriptStep> script);
    ~ScriptedTransport();
    ScriptedTransport(const ScriptedTransport&) = delete;
    ScriptedTransport& operator=(const ScriptedTransport&) = delete;

    static const NkNosTransportOps* Ops();

    std::vector<Offer> offers;
    std::vector<Reply> replies;
    Handle channel = INVALID_HANDLE;  // the handle the server's transport is bound to
    Handle sync = INVALID_HANDLE;     // its synchronisation object

private:
    static Retcode Receive(NkNosTransport* t, nk_message* request, nk_arena* arena);
    static Retcode Reply(NkNosTransport* t, const nk_message* response, const nk_arena* arena);

    std::vector<ScriptStep> m_script;
    size_t m_next = 0;
};

}  // namespace test_support
