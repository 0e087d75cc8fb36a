// What the test peer and the tests agree on: method numbers and the request
// body of the peer's echo server.
#ifndef TESTS_PLATFORM_PEER_PROTOCOL_H
#define TESTS_PLATFORM_PEER_PROTOCOL_H

#include <nos/message.h>

#include <cstdint>

namespace peer {

// Methods of the echo server (nk_message::mid).
enum Method : uint16_t {
    kEcho = 1,        // reply = the request message and arena
    kErrorReply = 2,  // the same, with the error bit set
    kArenaOf = 3,     // reply arena of `param` bytes, byte i = i * 7
    kDie = 4,         // the server exits without replying
    kSleepThenEcho = 5, // waits `param` ms, then echoes
    kUnregister = 6,  // the server unregisters its channel without replying, then idles
    kMessageOf = 7,   // reply message of `param` bytes
};

// Request and reply body used by the tests.
struct Request {
    nk_message header;
    uint32_t param;
    uint32_t tag;
};
static_assert(sizeof(Request) == 32);

// Buffers the echo server offers for a request.
inline constexpr uint32_t kServerMessageCapacity = 64 * 1024;
inline constexpr size_t kServerArenaCapacity = 2 * 1024 * 1024;

}  // namespace peer

#endif
