// Wire frame of the host transport: the header codec and the packet layout.
//
// Every exchange on a host channel socket is a frame: a 32-byte header
// followed by a payload (the message bytes, then the arena bytes). A frame is
// cut into SOCK_SEQPACKET packets of at most kPacketMax bytes: the first packet
// holds the header and the start of the payload, each further packet the next
// kPacketMax payload bytes (fewer only in the last one). The functions here
// are pure (bytes in, verdict out) so that they can be fuzzed and tested
// without sockets.
#ifndef NOS_HOST_FRAME_H
#define NOS_HOST_FRAME_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace nos_host {

inline constexpr uint32_t kFrameMagic = 0x46534F4Eu;  // the bytes "NOSF"
inline constexpr uint8_t kFrameVersion = 1;
inline constexpr size_t kFrameHeaderSize = 32;
inline constexpr size_t kPacketMax = 65536;
inline constexpr uint32_t kMessageMin = 24;          // sizeof(nk_message)
inline constexpr uint32_t kMessageMax = 0x007FFFFFu;  // the 23 size bits of the size word
inline constexpr uint32_t kArenaMax = 0x08100000u;    // 129 MiB: two 64 MiB blobs and slack
inline constexpr uint32_t kCmNameMax = 256;           // a connection-manager name, NUL included

enum class FrameKind : uint8_t {
    Request = 1,    // client -> server: message + arena
    Reply = 2,      // server -> client: message + arena
    CmConnect = 3,  // client -> connection manager: "client\0service\0"
    CmAccept = 4,   // connection manager -> client: riid, u32
    CmRefuse = 5,   // connection manager -> client: no payload
};

struct FrameHeader {
    FrameKind kind = FrameKind::Request;
    uint32_t messageLength = 0;
    uint32_t arenaLength = 0;
    uint64_t sentNs = 0;    // sender's CLOCK_MONOTONIC at sending; for the record only, it orders nothing
    uint32_t sequence = 0;  // request number; a reply repeats its request's
};

enum class FrameVerdict {
    Ok,
    Short,             // fewer than kFrameHeaderSize bytes
    BadMagic,
    BadVersion,
    BadKind,
    BadFlags,          // the flags word is not zero
    BadReserved,       // the reserved word is not zero
    BadMessageLength,  // outside the range allowed for the kind
    BadArenaLength,    // outside the range allowed for the kind
    BadPacketLength,   // the first packet is not exactly as long as the header says
};

const char* FrameVerdictName(FrameVerdict verdict);

inline uint64_t FramePayloadLength(const FrameHeader& h) { return uint64_t{h.messageLength} + h.arenaLength; }

// Length of the first packet of a frame whose payload is `payload` bytes.
size_t FirstPacketLength(uint64_t payload);

// Validates a frame's first packet. `bytes` are its leading bytes (at least
// the header when it is whole); `packetLength` is the packet's real length,
// which may exceed bytes.size() when only the header was read. `out` is
// written only when the verdict is Ok.
FrameVerdict ParseFrameHeader(std::span<const uint8_t> bytes, size_t packetLength, FrameHeader& out);

// Writes the 32 header bytes, little-endian, flags and reserved words zero.
void EncodeFrameHeader(const FrameHeader& header, std::span<uint8_t, kFrameHeaderSize> out);

// Payload of a CmConnect frame: the client name, NUL, the service name, NUL;
// each name 1 to kCmNameMax - 1 bytes without NUL inside. The views point
// into `payload`. Returns false (and leaves `client`, `service` alone) otherwise.
bool ParseCmConnectPayload(std::span<const uint8_t> payload, std::string_view& client, std::string_view& service);

}  // namespace nos_host

#endif
