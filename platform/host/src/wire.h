// Frames over SOCK_SEQPACKET sockets: sending, peeking and reading them with
// deadlines. All sockets of the host platform are non-blocking; waiting is
// done with poll so that every wait has a bound or a wake-up.
#ifndef NOS_HOST_WIRE_H
#define NOS_HOST_WIRE_H

#include "nos_host/frame.h"

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace nos_host {

using Clock = std::chrono::steady_clock;
// No value: wait without limit.
using Deadline = std::optional<Clock::time_point>;

// Longest pause a client allows its server inside one reply frame, between
// two of its packets. A server slower than this is treated as broken.
inline constexpr std::chrono::seconds kStallLimit{10};
// Time a server gives a client for one whole frame: to send a request, from
// its first packet on, and to take a reply. A client slower than this is
// dropped.
inline constexpr std::chrono::seconds kFrameDeadline{10};

enum class IoResult {
    Ok,
    Closed,     // the peer closed or reset the connection
    TimedOut,   // the caller's deadline passed
    Stalled,    // the peer stopped in the middle of a frame
    Malformed,  // the peer sent bytes that are not a valid frame
    Failed,     // a local error
};

Deadline DeadlineAfter(std::optional<std::chrono::milliseconds> timeout);
Deadline EarlierOf(Deadline a, Deadline b);

// Sets generous buffer sizes, so that large arenas move in few wake-ups.
void TuneSocket(int fd);

// Waits until `fd` reports `events`, an error or a hang-up.
IoResult WaitFd(int fd, short events, Deadline deadline);

// Sends one frame. The header's lengths and send time are filled here from
// the spans; its kind and sequence are the caller's. With `stallBounded`
// the peer must take each packet within kStallLimit (Stalled otherwise).
IoResult SendFrame(int fd, FrameHeader header, std::span<const uint8_t> message, std::span<const uint8_t> arena,
                   Deadline deadline, bool stallBounded);

// Has the kernel stamp each packet that arrives on `fd` from now on with the
// time it was queued, for ReceiveStamped.
void StampArrivals(int fd);

// Takes the next packet without waiting: at most into.size() bytes of it go
// to `into`, `length` is its whole length, and `stampNs` the kernel's
// CLOCK_REALTIME stamp of its arrival (the time now for a packet that came
// before StampArrivals). TimedOut when no packet is waiting.
IoResult ReceiveStamped(int fd, std::span<uint8_t> into, size_t& length, uint64_t& stampNs);

// Takes the next packet, which must be exactly into.size() bytes long
// (Malformed otherwise); TimedOut when none came by `deadline`.
IoResult ReceiveExact(int fd, std::span<uint8_t> into, Deadline deadline);

// Takes the first packet of the next frame into `buffer` (grown to
// kPacketMax bytes and kept so, to be reused without refilling) and validates
// its header. `packet` is set to the packet's bytes inside `buffer`.
IoResult ReadFirstPacket(int fd, std::vector<uint8_t>& buffer, std::span<const uint8_t>& packet, FrameHeader& header,
                         Deadline deadline);

// Takes the rest of the frame whose first packet is `packet`. Payload bytes
// [0, messageLength) go to `message` and the following arenaLength bytes to
// `arena`; both spans must be exactly that long. With `discard` the payload
// is read and thrown away, and the spans are not used.
IoResult ReadRestOfFrame(int fd, const FrameHeader& header, std::span<const uint8_t> packet, std::span<uint8_t> message,
                         std::span<uint8_t> arena, bool discard, Deadline deadline);

}  // namespace nos_host

#endif

namespace nos_host {

// Whether `path` fits a Unix socket address.
bool FitsSocketAddress(const std::string& path);
// A non-blocking SOCK_SEQPACKET socket connected to `path`; -1 with errno set
// on failure. Connecting waits at most kStallLimit for room in the backlog.
int ConnectSeqpacket(const std::string& path);
// A non-blocking SOCK_SEQPACKET socket bound to `path` with mode 0600, not
// yet listening; -1 with errno set on failure. A stale socket file is
// replaced, a live one (somebody accepts connections on it) is not:
// EADDRINUSE.
int BindSeqpacket(const std::string& path);

}  // namespace nos_host
