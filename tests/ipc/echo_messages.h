// The messages of the echo interface that the IPC tests serve: the reply
// carries twice the request's value.
#pragma once

#include <nos/message.h>

#include <cstdint>

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

static_assert(sizeof(EchoRequest) == 32 && sizeof(EchoResponse) == 32);

}  // namespace ipc_test
