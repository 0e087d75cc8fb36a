// Fuzz target: the host transport's frame header check and the payload
// check of a connect frame, the first things a peer's bytes meet.
//
// Input: a signed 32-bit slack, then the leading bytes of a packet; the
// packet's real length is their count plus the slack (at least 0), so that
// packets longer and shorter than the bytes at hand are both tried.
//
// Checks the verdict against the frame rules, that an accepted header
// encodes back to exactly the bytes it came from and names a packet of the
// length the packet layout gives, and that a refused input leaves the
// caller's header and names as they were.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "nos_host/frame.h"

namespace {

using nos_host::FrameHeader;
using nos_host::FrameKind;
using nos_host::FrameVerdict;

struct Limits {
    std::uint32_t messageMin, messageMax, arenaMax;
};

// The lengths each kind allows.
Limits LimitsOf(std::uint8_t kind)
{
    switch (kind) {
    case 1:
    case 2: return {24, 0x7FFFFF, 0x08100000};
    case 3: return {4, 512, 0};
    case 4: return {4, 4, 0};
    default: return {0, 0, 0};
    }
}

FrameVerdict Expected(std::span<const std::uint8_t> b, std::size_t packetLength)
{
    if (b.size() < 32 || packetLength < 32)
        return FrameVerdict::Short;
    if (fuzz::LoadU32(b.data()) != 0x46534F4Eu)
        return FrameVerdict::BadMagic;
    if (b[4] != 1)
        return FrameVerdict::BadVersion;
    if (b[5] < 1 || b[5] > 5)
        return FrameVerdict::BadKind;
    if (b[6] != 0 || b[7] != 0)
        return FrameVerdict::BadFlags;
    if (fuzz::LoadU32(b.data() + 28) != 0)
        return FrameVerdict::BadReserved;
    const Limits limits = LimitsOf(b[5]);
    const std::uint32_t message = fuzz::LoadU32(b.data() + 8);
    const std::uint32_t arena = fuzz::LoadU32(b.data() + 12);
    if (message < limits.messageMin || message > limits.messageMax)
        return FrameVerdict::BadMessageLength;
    if (arena > limits.arenaMax)
        return FrameVerdict::BadArenaLength;
    const std::uint64_t payload = std::uint64_t{message} + arena;
    if (packetLength != 32 + (payload < 65504 ? payload : 65504))
        return FrameVerdict::BadPacketLength;
    return FrameVerdict::Ok;
}

bool SameHeader(const FrameHeader& a, const FrameHeader& b)
{
    return a.kind == b.kind && a.messageLength == b.messageLength && a.arenaLength == b.arenaLength &&
           a.sentNs == b.sentNs && a.sequence == b.sequence;
}

void CheckConnectPayload(std::span<const std::uint8_t> payload)
{
    const std::string_view untouched = "untouched";
    std::string_view client = untouched;
    std::string_view service = untouched;
    const bool ok = nos_host::ParseCmConnectPayload(payload, client, service);
    if (!ok) {
        FUZZ_CHECK(client.data() == untouched.data() && service.data() == untouched.data());
        return;
    }
    FUZZ_CHECK(!client.empty() && client.size() < 256 && client.find('\0') == std::string_view::npos);
    FUZZ_CHECK(!service.empty() && service.size() < 256 && service.find('\0') == std::string_view::npos);
    std::string joined(client);
    joined.push_back('\0');
    joined.append(service);
    joined.push_back('\0');
    FUZZ_CHECK(joined.size() == payload.size() && std::memcmp(joined.data(), payload.data(), joined.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Reader in(data, size);
    const auto slack = static_cast<std::int32_t>(in.U32());
    const std::vector<std::uint8_t> bytes = in.Rest();
    const std::int64_t length = static_cast<std::int64_t>(bytes.size()) + slack;
    const std::size_t packetLength = length < 0 ? 0 : static_cast<std::size_t>(length);

    FrameHeader header;
    header.kind = FrameKind::CmRefuse;
    header.messageLength = 0xDEAD;
    header.arenaLength = 0xBEEF;
    header.sentNs = 0x0123456789ABCDEFull;
    header.sequence = 0xFEEDu;
    const FrameHeader before = header;

    const FrameVerdict verdict = nos_host::ParseFrameHeader(bytes, packetLength, header);
    FUZZ_CHECK(verdict == Expected(bytes, packetLength));
    FUZZ_CHECK(std::string(nos_host::FrameVerdictName(verdict)) != "unknown verdict");
    if (verdict != FrameVerdict::Ok) {
        FUZZ_CHECK(SameHeader(header, before));
    } else {
        std::uint8_t encoded[nos_host::kFrameHeaderSize];
        nos_host::EncodeFrameHeader(header, std::span<std::uint8_t, nos_host::kFrameHeaderSize>(encoded));
        FUZZ_CHECK(std::memcmp(encoded, bytes.data(), sizeof encoded) == 0);
        FUZZ_CHECK(packetLength == nos_host::FirstPacketLength(nos_host::FramePayloadLength(header)));
    }
    const std::span<const std::uint8_t> payload =
        bytes.size() > nos_host::kFrameHeaderSize ? std::span<const std::uint8_t>(bytes).subspan(nos_host::kFrameHeaderSize)
                                                   : std::span<const std::uint8_t>();
    CheckConnectPayload(payload);
    return 0;
}
