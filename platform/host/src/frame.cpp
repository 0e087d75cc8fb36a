#include "nos_host/frame.h"

#include <algorithm>
#include <cstring>

namespace nos_host {
namespace {

uint32_t LoadU32(const uint8_t* p) { return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24; }
uint64_t LoadU64(const uint8_t* p) { return uint64_t{LoadU32(p)} | uint64_t{LoadU32(p + 4)} << 32; }

void StoreU32(uint8_t* p, uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        p[i] = static_cast<uint8_t>(v >> (8 * i));
}

void StoreU64(uint8_t* p, uint64_t v)
{
    StoreU32(p, static_cast<uint32_t>(v));
    StoreU32(p + 4, static_cast<uint32_t>(v >> 32));
}

struct LengthRule {
    uint32_t messageMin, messageMax, arenaMax;
};

// Allowed lengths per kind, indexed by the kind's value.
constexpr LengthRule kRules[] = {
    {0, 0, 0},                            // 0: no such kind
    {kMessageMin, kMessageMax, kArenaMax}, // Request
    {kMessageMin, kMessageMax, kArenaMax}, // Reply
    {4, 2 * kCmNameMax, 0},               // CmConnect
    {4, 4, 0},                            // CmAccept
    {0, 0, 0},                            // CmRefuse
};

}  // namespace

const char* FrameVerdictName(FrameVerdict verdict)
{
    switch (verdict) {
    case FrameVerdict::Ok: return "ok";
    case FrameVerdict::Short: return "short header";
    case FrameVerdict::BadMagic: return "bad magic";
    case FrameVerdict::BadVersion: return "bad version";
    case FrameVerdict::BadKind: return "bad kind";
    case FrameVerdict::BadFlags: return "non-zero flags";
    case FrameVerdict::BadReserved: return "non-zero reserved word";
    case FrameVerdict::BadMessageLength: return "bad message length";
    case FrameVerdict::BadArenaLength: return "bad arena length";
    case FrameVerdict::BadPacketLength: return "bad packet length";
    }
    return "unknown verdict";
}

size_t FirstPacketLength(uint64_t payload)
{
    return kFrameHeaderSize + static_cast<size_t>(std::min<uint64_t>(payload, kPacketMax - kFrameHeaderSize));
}

FrameVerdict ParseFrameHeader(std::span<const uint8_t> bytes, size_t packetLength, FrameHeader& out)
{
    if (bytes.size() < kFrameHeaderSize || packetLength < kFrameHeaderSize)
        return FrameVerdict::Short;
    const uint8_t* p = bytes.data();
    if (LoadU32(p) != kFrameMagic)
        return FrameVerdict::BadMagic;
    if (p[4] != kFrameVersion)
        return FrameVerdict::BadVersion;
    const uint8_t kind = p[5];
    if (kind < static_cast<uint8_t>(FrameKind::Request) || kind > static_cast<uint8_t>(FrameKind::CmRefuse))
        return FrameVerdict::BadKind;
    if (p[6] != 0 || p[7] != 0)
        return FrameVerdict::BadFlags;
    if (LoadU32(p + 28) != 0)
        return FrameVerdict::BadReserved;
    FrameHeader h;
    h.kind = static_cast<FrameKind>(kind);
    h.messageLength = LoadU32(p + 8);
    h.arenaLength = LoadU32(p + 12);
    h.sentNs = LoadU64(p + 16);
    h.sequence = LoadU32(p + 24);
    const LengthRule& rule = kRules[kind];
    if (h.messageLength < rule.messageMin || h.messageLength > rule.messageMax)
        return FrameVerdict::BadMessageLength;
    if (h.arenaLength > rule.arenaMax)
        return FrameVerdict::BadArenaLength;
    if (packetLength != FirstPacketLength(FramePayloadLength(h)))
        return FrameVerdict::BadPacketLength;
    out = h;
    return FrameVerdict::Ok;
}

void EncodeFrameHeader(const FrameHeader& header, std::span<uint8_t, kFrameHeaderSize> out)
{
    uint8_t* p = out.data();
    std::memset(p, 0, kFrameHeaderSize);
    StoreU32(p, kFrameMagic);
    p[4] = kFrameVersion;
    p[5] = static_cast<uint8_t>(header.kind);
    StoreU32(p + 8, header.messageLength);
    StoreU32(p + 12, header.arenaLength);
    StoreU64(p + 16, header.sentNs);
    StoreU32(p + 24, header.sequence);
}

bool ParseCmConnectPayload(std::span<const uint8_t> payload, std::string_view& client, std::string_view& service)
{
    const auto* begin = reinterpret_cast<const char*>(payload.data());
    const std::string_view all(begin, payload.size());
    const size_t firstNul = all.find('\0');
    if (firstNul == std::string_view::npos || firstNul == 0 || firstNul >= kCmNameMax)
        return false;
    const std::string_view rest = all.substr(firstNul + 1);
    const size_t secondNul = rest.find('\0');
    if (secondNul == std::string_view::npos || secondNul == 0 || secondNul >= kCmNameMax ||
        secondNul + 1 != rest.size())
        return false;
    client = all.substr(0, firstNul);
    service = rest.substr(0, secondNul);
    return true;
}

}  // namespace nos_host
