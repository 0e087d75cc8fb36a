// The frame header codec, the connect payload and the handle table: pure
// functions and objects, no sockets.
#include "handle_table.h"

#include <nos_host/frame.h>

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <thread>

namespace {

using namespace nos_host;

std::array<uint8_t, kFrameHeaderSize> Encode(const FrameHeader& h)
{
    std::array<uint8_t, kFrameHeaderSize> bytes{};
    EncodeFrameHeader(h, bytes);
    return bytes;
}

FrameHeader Request(uint32_t message, uint32_t arena)
{
    FrameHeader h;
    h.messageLength = message;
    h.arenaLength = arena;
    h.sentNs = 0x0102030405060708ull;
    h.sequence = 0xA1B2C3D4u;
    return h;
}

TEST(FrameHeader, EncodeParse_RoundTripsAndIsLittleEndian)
{
    const FrameHeader h = Request(40, 100000);
    const auto bytes = Encode(h);
    const std::array<uint8_t, 8> start{0x4E, 0x4F, 0x53, 0x46, 1, 1, 0, 0};  // "NOSF", version 1, request
    EXPECT_TRUE(std::equal(start.begin(), start.end(), bytes.begin()));
    EXPECT_EQ(bytes[8], 40);
    EXPECT_EQ(bytes[12], 0xA0);  // 100000 = 0x000186A0
    EXPECT_EQ(bytes[16], 0x08);
    EXPECT_EQ(bytes[24], 0xD4);

    FrameHeader out;
    ASSERT_EQ(ParseFrameHeader(bytes, FirstPacketLength(100040), out), FrameVerdict::Ok);
    EXPECT_EQ(out.kind, FrameKind::Request);
    EXPECT_EQ(out.messageLength, 40u);
    EXPECT_EQ(out.arenaLength, 100000u);
    EXPECT_EQ(out.sentNs, h.sentNs);
    EXPECT_EQ(out.sequence, h.sequence);
}

TEST(FrameHeader, Parse_RejectsEveryBrokenField)
{
    struct Case {
        const char* name;
        FrameHeader header;
        size_t byte;    // byte to overwrite, or 99 for none
        uint8_t value;
        size_t packet;  // 0: the right first-packet length
        FrameVerdict expected;
    };
    auto kind = [](FrameKind k, uint32_t message, uint32_t arena) {
        FrameHeader h = Request(message, arena);
        h.kind = k;
        return h;
    };
    const Case cases[] = {
        {"magic", Request(24, 0), 0, 0x4F, 0, FrameVerdict::BadMagic},
        {"version", Request(24, 0), 4, 2, 0, FrameVerdict::BadVersion},
        {"kind 0", Request(24, 0), 5, 0, 0, FrameVerdict::BadKind},
        {"kind 6", Request(24, 0), 5, 6, 0, FrameVerdict::BadKind},
        {"flags", Request(24, 0), 7, 1, 0, FrameVerdict::BadFlags},
        {"reserved", Request(24, 0), 31, 1, 0, FrameVerdict::BadReserved},
        {"message under 24", Request(23, 0), 99, 0, 0, FrameVerdict::BadMessageLength},
        {"message over 23 bits", Request(kMessageMax + 1, 0), 99, 0, 0, FrameVerdict::BadMessageLength},
        {"arena over the limit", Request(24, kArenaMax + 1), 99, 0, 0, FrameVerdict::BadArenaLength},
        {"packet one byte short", Request(24, 0), 99, 0, 55, FrameVerdict::BadPacketLength},
        {"packet one byte long", Request(24, 65536), 99, 0, 65537, FrameVerdict::BadPacketLength},
        {"connect without payload", kind(FrameKind::CmConnect, 0, 0), 99, 0, 0, FrameVerdict::BadMessageLength},
        {"connect with arena", kind(FrameKind::CmConnect, 4, 1), 99, 0, 0, FrameVerdict::BadArenaLength},
        {"accept of 5 bytes", kind(FrameKind::CmAccept, 5, 0), 99, 0, 0, FrameVerdict::BadMessageLength},
        {"refuse with payload", kind(FrameKind::CmRefuse, 1, 0), 99, 0, 0, FrameVerdict::BadMessageLength},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        auto bytes = Encode(k.header);
        if (k.byte < bytes.size())
            bytes[k.byte] = k.value;
        const size_t packet = k.packet != 0 ? k.packet : FirstPacketLength(FramePayloadLength(k.header));
        FrameHeader out;
        out.sequence = 77;
        EXPECT_EQ(ParseFrameHeader(bytes, packet, out), k.expected);
        EXPECT_EQ(out.sequence, 77u);  // untouched
    }
    FrameHeader out;
    const auto bytes = Encode(Request(24, 0));
    EXPECT_EQ(ParseFrameHeader(std::span(bytes).first(31), 56, out), FrameVerdict::Short);
    EXPECT_EQ(FirstPacketLength(0), 32u);
    EXPECT_EQ(FirstPacketLength(65504), 65536u);
    EXPECT_EQ(FirstPacketLength(1u << 30), 65536u);
}

TEST(CmConnectPayload, Parse_AcceptsTwoNamesOnly)
{
    auto parse = [](std::string_view text, std::string* client = nullptr, std::string* service = nullptr) {
        std::string_view c = "unset";
        std::string_view s = "unset";
        const bool ok = ParseCmConnectPayload({reinterpret_cast<const uint8_t*>(text.data()), text.size()}, c, s);
        if (client)
            *client = c;
        if (service)
            *service = s;
        return ok;
    };
    std::string client;
    std::string service;
    ASSERT_TRUE(parse(std::string_view("app.1\0echo\0", 11), &client, &service));
    EXPECT_EQ(client, "app.1");
    EXPECT_EQ(service, "echo");
    EXPECT_FALSE(parse(std::string_view("\0echo\0", 6), &client));
    EXPECT_EQ(client, "unset");
    EXPECT_FALSE(parse(std::string_view("app\0\0", 5)));
    EXPECT_FALSE(parse(std::string_view("app\0echo", 8)));
    EXPECT_FALSE(parse(std::string_view("app\0echo\0x", 10)));
    EXPECT_FALSE(parse(""));
    const std::string longest(kCmNameMax - 1, 'a');
    EXPECT_TRUE(parse(longest + '\0' + "s" + '\0'));
    EXPECT_FALSE(parse(longest + "a" + '\0' + "s" + '\0'));
}

TEST(HandleTable, Add_GivesDistinctValidHandlesAndRemoveForgetsThem)
{
    HandleTable table;
    EXPECT_EQ(table.Add(nullptr), INVALID_HANDLE);
    const Handle a = table.Add(std::make_shared<SyncObject>());
    const Handle b = table.Add(std::make_shared<SyncObject>());
    EXPECT_NE(a, b);
    EXPECT_NE(a, 0u);
    EXPECT_NE(a, INVALID_HANDLE);
    EXPECT_NE(table.GetAs<SyncObject>(a), nullptr);
    EXPECT_NE(table.Remove(a), nullptr);
    EXPECT_EQ(table.Get(a), nullptr);
    EXPECT_EQ(table.Remove(a), nullptr);
    const Handle c = table.Add(std::make_shared<SyncObject>());
    EXPECT_NE(c, a);  // not reused at once
    EXPECT_EQ(table.Size(), 2u);
}

TEST(HandleTable, Add_FromManyThreadsNeverCollides)
{
    HandleTable table;
    std::vector<std::vector<Handle>> made(4);
    std::vector<std::thread> threads;
    for (auto& mine : made) {
        threads.emplace_back([&table, &mine] {
            for (int i = 0; i < 1000; ++i) {
                mine.push_back(table.Add(std::make_shared<SyncObject>()));
                if (i % 2 == 0)
                    table.Remove(mine.back());
            }
        });
    }
    for (auto& t : threads)
        t.join();
    std::set<Handle> all;
    for (const auto& mine : made)
        all.insert(mine.begin(), mine.end());
    EXPECT_EQ(all.size(), 4000u);
    EXPECT_EQ(all.count(INVALID_HANDLE), 0u);
    EXPECT_EQ(table.Size(), 2000u);
}

}  // namespace
