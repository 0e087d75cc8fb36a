// The frame header codec and the connect payload of the host wire.
#include <nos_host/frame.h>

#include <gtest/gtest.h>

#include <array>
#include <tuple>

namespace {

using namespace nos_host;
using Header = std::array<uint8_t, kFrameHeaderSize>;

Header Encode(FrameKind kind, uint32_t message, uint32_t arena)
{
    Header bytes{};
    EncodeFrameHeader({kind, message, arena, 0x0102030405060708ull, 0xA1B2C3D4u}, bytes);
    return bytes;
}

TEST(HostFrame, EncodeAndParse_LittleEndianHeader)
{
    const Header bytes = Encode(FrameKind::Request, 40, 100000);
    EXPECT_EQ(bytes, (Header{'N', 'O', 'S', 'F', 1, 1, 0, 0, 40, 0, 0, 0, 0xA0, 0x86, 0x01, 0, 8, 7, 6, 5, 4, 3, 2, 1,
                             0xD4, 0xC3, 0xB2, 0xA1, 0, 0, 0, 0}));
    FrameHeader out;
    ASSERT_EQ(ParseFrameHeader(bytes, FirstPacketLength(100040), out), FrameVerdict::Ok);
    EXPECT_EQ(std::tie(out.kind, out.messageLength, out.arenaLength, out.sentNs, out.sequence),
              std::make_tuple(FrameKind::Request, 40u, 100000u, 0x0102030405060708ull, 0xA1B2C3D4u));
    EXPECT_EQ(std::make_tuple(FirstPacketLength(0), FirstPacketLength(65504), FirstPacketLength(1u << 30)),
              std::make_tuple(size_t{32}, size_t{65536}, size_t{65536}));
}

TEST(HostFrame, Parse_ChecksEveryFieldAndLeavesTheOutputOnFailure)
{
    using enum FrameKind;
    using enum FrameVerdict;
    const struct {
        const char* name;
        FrameKind kind;
        uint32_t message, arena;
        size_t at;  // byte to overwrite, or 99 for none
        uint8_t value;
        size_t packet;  // 0: the right first-packet length
        FrameVerdict expected;
    } cases[] = {
        {"request", Request, 24, 0, 99, 0, 0, Ok},
        {"magic", Request, 24, 0, 0, 0x4F, 0, BadMagic},
        {"version", Request, 24, 0, 4, 2, 0, BadVersion},
        {"kind 0", Request, 24, 0, 5, 0, 0, BadKind},
        {"kind 6", Request, 24, 0, 5, 6, 0, BadKind},
        {"flags, first byte", Request, 24, 0, 6, 1, 0, BadFlags},
        {"flags, second byte", Request, 24, 0, 7, 1, 0, BadFlags},
        {"reserved", Request, 24, 0, 31, 1, 0, BadReserved},
        {"message under 24", Reply, 23, 0, 99, 0, 0, BadMessageLength},
        {"message over 23 bits", Request, kMessageMax + 1, 0, 99, 0, 0, BadMessageLength},
        {"arena over the limit", Request, 24, kArenaMax + 1, 99, 0, 0, BadArenaLength},
        {"packet one byte short", Request, 24, 0, 99, 0, 55, BadPacketLength},
        {"packet one byte long", Request, 24, 65536, 99, 0, 65537, BadPacketLength},
        {"short header", Request, 24, 0, 99, 0, 31, Short},
        {"connect without payload", CmConnect, 0, 0, 99, 0, 0, BadMessageLength},
        {"connect with arena", CmConnect, 4, 1, 99, 0, 0, BadArenaLength},
        {"accept of 5 bytes", CmAccept, 5, 0, 99, 0, 0, BadMessageLength},
        {"refuse", CmRefuse, 0, 0, 99, 0, 0, Ok},
        {"refuse with payload", CmRefuse, 1, 0, 99, 0, 0, BadMessageLength},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        Header bytes = Encode(k.kind, k.message, k.arena);
        if (k.at < bytes.size())
            bytes[k.at] = k.value;
        const size_t packet = k.packet != 0 ? k.packet : FirstPacketLength(uint64_t{k.message} + k.arena);
        FrameHeader out;
        out.sequence = 77;
        EXPECT_EQ(ParseFrameHeader(std::span(bytes).first(std::min(packet, bytes.size())), packet, out), k.expected);
        EXPECT_EQ(out.sequence, k.expected == Ok ? 0xA1B2C3D4u : 77u);
    }
}

TEST(HostFrame, ParseCmConnectPayload_TakesTwoNamesOnly)
{
    const std::string longest(kCmNameMax - 1, 'a');
    const std::pair<std::string, bool> cases[] = {
        {std::string("app.1\0echo\0", 11), true},  {std::string("\0echo\0", 6), false},
        {std::string("app\0\0", 5), false},        {std::string("app\0echo", 8), false},
        {std::string("app\0echo\0x", 10), false},  {"", false},
        {longest + '\0' + "s" + '\0', true},       {longest + "a" + '\0' + "s" + '\0', false},
    };
    for (const auto& [text, valid] : cases) {
        std::string_view client = "unset";
        std::string_view service = "unset";
        EXPECT_EQ(ParseCmConnectPayload({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, client, service),
                  valid);
        EXPECT_EQ(client, valid ? std::string_view(text).substr(0, text.find('\0')) : "unset");
        EXPECT_EQ(service, valid ? (text.size() == 11 ? "echo" : "s") : "unset");
    }
}

}  // namespace
