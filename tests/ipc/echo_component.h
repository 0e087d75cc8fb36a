// The component the IPC server tests serve: each request is answered with
// twice its value and the entity's return code.
#pragma once

#include <nos/ipc/server.h>

#include <atomic>
#include <functional>

namespace ipc_test {

struct EchoRequest {
    nk_message header;
    std::uint32_t value;
    std::uint32_t reserved;
};

struct EchoResponse {
    nk_message header;
    std::int32_t result;
    std::uint32_t value;
};

struct EchoEntity {
    std::atomic<int> dispatched{0};
    int returnCode = 0;
    std::function<void(std::uint32_t value)> onRequest;  // runs before the response is written
};

inline int EchoDispatch(EchoEntity* entity, const nk_message* request, const nk_arena*, nk_message* response, nk_arena*)
{
    const auto& in = *reinterpret_cast<const EchoRequest*>(request);
    auto& out = *reinterpret_cast<EchoResponse*>(response);
    if (entity->onRequest)
        entity->onRequest(in.value);
    nk_msg_set_size(&out.header, sizeof out);
    out.value = in.value * 2;
    out.result = entity->returnCode;
    ++entity->dispatched;
    return entity->returnCode;
}

using EchoServer = nos::ipc::Server<EchoEntity, EchoRequest, 0, EchoResponse, 0>;

}  // namespace ipc_test
