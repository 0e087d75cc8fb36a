// The host transport: the frame header codec and the connect payload of its
// wire; then over real sockets, both ends in this process, calls against a
// fake peer and a served channel against raw frame clients.
#include "runtime.h"
#include "support/fake_peer.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"
#include "wire.h"

#include <nos_host/frame.h>

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <array>
#include <future>
#include <thread>
#include <tuple>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace test_support;
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

struct Echo {
    nk_message header;
    uint32_t param;
    uint32_t tag;
};

Echo MakeEcho(uint32_t tag, uint32_t param = 0)
{
    Echo echo{{}, param, tag};
    nk_msg_set_size(&echo.header, sizeof echo);
    return echo;
}

// One packet: a frame header with these fields, then `payload`.
Bytes Frame(FrameKind kind, const Bytes& payload, uint32_t sequence = 1, uint64_t sentNs = 1, uint32_t arena = 0)
{
    Bytes packet(kFrameHeaderSize);
    EncodeFrameHeader({kind, static_cast<uint32_t>(payload.size()), arena, sentNs, sequence},
                      std::span<uint8_t, kFrameHeaderSize>(packet.data(), kFrameHeaderSize));
    packet.insert(packet.end(), payload.begin(), payload.end());
    return packet;
}

// The Echo of the next frame on `fd`; a tag of 0 when none came in 10 s.
Echo ReadEcho(int fd, FrameHeader& header)
{
    Bytes buffer;
    std::span<const uint8_t> packet;
    Echo echo{};
    if (ReadFirstPacket(fd, buffer, packet, header, Clock::now() + 10s) == IoResult::Ok &&
        packet.size() == kFrameHeaderSize + sizeof echo)
        std::memcpy(&echo, packet.data() + kFrameHeaderSize, sizeof echo);
    return echo;
}

// A client connection of its own to the channel "srv", speaking frames.
struct RawClient {
    explicit RawClient(int connected) : fd(connected) {}
    explicit RawClient(const RuntimeDir& runtime) : fd(ConnectSeqpacket((runtime.Path() / "srv.sock").string())) {}
    ~RawClient() { ::close(fd); }
    void Send(const Bytes& packet) const { ASSERT_EQ(::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL), ssize_t(packet.size())); }
    void Request(uint32_t tag, uint64_t sentNs = MonotonicNs()) const { Send(Frame(FrameKind::Request, BytesOf(MakeEcho(tag)), 1, sentNs)); }
    uint32_t ReplyTag() const
    {
        FrameHeader header;
        return ReadEcho(fd, header).tag;
    }
    // Whether the server closes the connection, unanswered, within 10 s.
    bool Closed() const
    {
        Bytes buffer;
        std::span<const uint8_t> packet;
        FrameHeader header;
        return ReadFirstPacket(fd, buffer, packet, header, Clock::now() + 10s) == IoResult::Closed;
    }
    const int fd;
};

// The request back; param 1 sets the error bit, param 2 makes the reply
// arena `tag` bytes long, param 3 the reply message.
Exchanged EchoBack(const Exchanged& request)
{
    Exchanged reply = request;
    auto& echo = *reinterpret_cast<Echo*>(reply.message.data());
    if (echo.param == 1)
        echo.header.size |= NK_MSG_ERROR_FLAG;
    if (echo.param == 2)
        reply.arena.assign(echo.tag, 0x5A);
    if (echo.param == 3) {
        nk_msg_set_size(&echo.header, echo.tag);
        reply.message.resize(echo.tag);
    }
    return reply;
}

class HostClientTest : public RuntimeDirTest {
protected:
    struct Connection {
        Connection() { EXPECT_EQ(NkNosTransport_Init(&t, handle, nullptr, 0), NK_EOK); }
        Retcode Call(const Echo& request, Echo& reply, nk_arena* arena = nullptr, const nk_arena* sent = nullptr)
        {
            return t.ops->call(&t, &request.header, sent, &reply.header, arena);
        }
        Handle handle = ServiceLocatorConnect("echo");
        NkNosTransport t{};
    };
};

TEST_F(HostClientTest, Call_CarriesMessageArenaAndErrorBitAcrossPacketSizes)
{
    FakePeer echo("echo", {}, EchoBack);
    Connection c;
    // Around the end of the first packet (65536 - 32 header - 32 message) and beyond.
    const std::pair<size_t, uint32_t> cases[] = {{0, 0}, {1, NK_MSG_ERROR_FLAG}, {65471, 0}, {65472, 0},
                                                 {65473, 0}, {65536, 0}, {300000, 0}};
    for (const auto& [size, errorBit] : cases) {
        SCOPED_TRACE(size);
        Bytes data(size);
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<uint8_t>(i * 31 + 5);
        nk_arena sent{data.data(), data.data() + size, data.data() + size};
        Bytes replyBytes(64, 0xCC);  // larger than the reply: the rest must be zeroed
        auto& reply = *reinterpret_cast<Echo*>(replyBytes.data());
        nk_msg_set_size(&reply.header, 64);
        Bytes arenaBytes(400000, 0xEE);
        nk_arena arena;
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());

        ASSERT_EQ(c.Call(MakeEcho(7, errorBit ? 1 : 0), reply, &arena, &sent), NK_EOK);
        EXPECT_EQ(reply.header.size, errorBit | sizeof(Echo));
        EXPECT_EQ(reply.tag, 7u);
        EXPECT_EQ(Bytes(replyBytes.begin() + sizeof(Echo), replyBytes.end()), Bytes(64 - sizeof(Echo), 0));
        EXPECT_EQ(Bytes(arena.start, arena.current), data);
    }
}

TEST_F(HostClientTest, Call_FailureLeavesTheReplyAndTellsWhetherTheConnectionGoesOn)
{
    const struct {
        const char* name;
        FakeMode mode;
        Echo request;
        size_t arenaOffered;
        const char* timeout;  // NOS_CALL_TIMEOUT_MS
        Retcode rc;
        Retcode next;  // of the next call on the same connection
    } cases[] = {
        {"arena one byte too large", FakeMode::Answer, MakeEcho(1000, 2), 999, "10000", NK_E2BIG, NK_EOK},
        {"arena spanning packets", FakeMode::Answer, MakeEcho(200000, 2), 100000, "10000", NK_E2BIG, NK_EOK},
        {"message larger than offered", FakeMode::Answer, MakeEcho(33, 3), 0, "10000", NK_E2BIG, NK_EOK},
        {"connection closed", FakeMode::Close, MakeEcho(1), 0, "10000", NK_EPIPE, NK_EPIPE},
        {"no answer in time", FakeMode::Never, MakeEcho(1), 0, "200", NK_ETIMEDOUT, NK_EPIPE},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        ::setenv("NOS_CALL_TIMEOUT_MS", k.timeout, 1);
        FakePeer echo("echo", {}, EchoBack);
        echo.SetMode(k.mode);
        Connection c;
        Bytes arenaBytes(k.arenaOffered);
        nk_arena arena;
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
        Echo reply = MakeEcho(0xDEAD);
        EXPECT_EQ(c.Call(k.request, reply, &arena), k.rc);
        EXPECT_EQ(reply.tag, 0xDEADu);
        EXPECT_EQ(reply.header.size, sizeof reply);
        EXPECT_EQ(arena.current, arena.start);
        echo.SetMode(FakeMode::Answer);
        EXPECT_EQ(c.Call(MakeEcho(77), reply), k.next);
        EXPECT_EQ(KnHandleClose(c.handle), NK_EOK);
    }
}

TEST_F(HostClientTest, Call_ReplyWithAnotherSequenceNumberIsEprotoAndBreaksTheConnection)
{
    const int listener = BindSeqpacket((runtime.Path() / "echo.sock").string());
    ASSERT_EQ(::listen(listener, 1), 0);
    Connection c;
    Echo reply = MakeEcho(0xDEAD);
    auto call = std::async(std::launch::async, [&] { return c.Call(MakeEcho(1), reply); });
    ASSERT_EQ(WaitFd(listener, POLLIN, Clock::now() + 10s), IoResult::Ok);
    const RawClient server(::accept(listener, nullptr, nullptr));
    FrameHeader request;
    EXPECT_EQ(ReadEcho(server.fd, request).tag, 1u);
    server.Send(Frame(FrameKind::Reply, BytesOf(MakeEcho(2)), request.sequence + 1));
    EXPECT_EQ(call.get(), NK_EPROTO);
    EXPECT_EQ(reply.tag, 0xDEADu);
    EXPECT_EQ(c.Call(MakeEcho(3), reply), NK_EPIPE);
    ::close(listener);
}

TEST_F(HostClientTest, Call_RefusesBadArgumentsWithoutSending)
{
    FakePeer echo("echo", {}, EchoBack);
    Connection c;
    const Echo good = MakeEcho(1);
    Echo small = good;
    nk_msg_set_size(&small.header, 23);
    uint8_t bytes[8];
    nk_arena backwards{bytes + 4, bytes + 4, bytes};
    const nk_arena beyond{bytes, bytes + 5, bytes + 4};
    Echo reply = MakeEcho(0xDEAD);
    Echo smallReply = reply;
    nk_msg_set_size(&smallReply.header, 16);
    NkNosTransport* t = &c.t;
    EXPECT_EQ(t->ops->call(nullptr, &good.header, nullptr, &reply.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t->ops->call(t, nullptr, nullptr, &reply.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t->ops->call(t, &small.header, nullptr, &reply.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t->ops->call(t, &good.header, nullptr, &smallReply.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t->ops->call(t, &good.header, &beyond, &reply.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t->ops->call(t, &good.header, nullptr, &reply.header, &backwards), NK_EINVAL);
    EXPECT_EQ(reply.tag, 0xDEADu);
    ASSERT_EQ(c.Call(MakeEcho(5), reply), NK_EOK);
    EXPECT_EQ(echo.Requests().size(), 1u);  // only this one was sent
    EXPECT_EQ(NkNosTransport_Init(t, INVALID_HANDLE, nullptr, 0), NK_EBADF);
    EXPECT_EQ(NkNosTransport_Init(nullptr, c.handle, nullptr, 0), NK_EINVAL);
}

TEST_F(HostClientTest, Call_ThreadsSharingOneHandleGetTheirOwnReplies)
{
    FakePeer echo("echo", {}, EchoBack);
    Connection c;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (uint32_t tag = thread * 1000; tag < thread * 1000 + 50; ++tag) {
                Echo reply = MakeEcho(0);
                if (c.Call(MakeEcho(tag), reply) != NK_EOK || reply.tag != tag)
                    ++mismatches;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(HostClientTest, ConnectAndGetRiid_FindTheChannelAndItsEndpoints)
{
    const struct {
        const char* channel;
        std::vector<std::string> endpoints;  // empty: the built-in table
        const char* endpoint;
        uint32_t riid;
    } cases[] = {
        {"verifier", {}, "Verifier.product", 0},       {"verifier", {}, "Verifier.applist", 1},
        {"verifier", {}, "Verifier.other", INVALID_RIID}, {"nv.NvlogStorageEntity", {}, "nv.NvlogStorage.storage", 0},
        {"echo", {"A.a", "B.b", "C.c"}, "C.c", 2},    {"echo", {"A.a", "B.b", "C.c"}, "A.", INVALID_RIID},
        {"unlisted", {}, "Verifier.product", INVALID_RIID},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(std::string(k.channel) + " " + k.endpoint);
        std::optional<FakePeer> peer;
        const Handle server = k.endpoints.empty() ? ServiceLocatorRegister(k.channel, nullptr, 0, nullptr) : INVALID_HANDLE;
        if (!k.endpoints.empty())
            peer.emplace(k.channel, k.endpoints, EchoBack);
        const Handle handle = ServiceLocatorConnect(k.channel);
        EXPECT_EQ(ServiceLocatorGetRiid(handle, k.endpoint), k.riid);
        EXPECT_EQ(KnHandleClose(handle), NK_EOK);
        (void)ServiceLocatorUnregister(server);
    }
    EXPECT_EQ(ServiceLocatorGetRiid(INVALID_HANDLE, "Verifier.product"), INVALID_RIID);
    ::close(BindSeqpacket((runtime.Path() / "stale.sock").string()));  // as a server killed outright leaves it
    for (const char* name : {"nobody", "stale", "../escape", ""})
        EXPECT_EQ(ServiceLocatorConnect(name), INVALID_HANDLE) << name;
    EXPECT_EQ(ServiceLocatorConnect(nullptr), INVALID_HANDLE);
}

class HostServerTest : public RuntimeDirTest {
protected:
    HostServerTest() { EXPECT_EQ(NkNosTransportSync_Init(&t, channel, INVALID_HANDLE, INVALID_HANDLE), NK_EOK); }
    ~HostServerTest() override { (void)ServiceLocatorUnregister(channel); }

    // A receive into a buffer of exactly one Echo; one that does not return
    // in 10 s has the channel closed under it.
    Retcode Receive(Echo& request, nk_arena* arena = nullptr)
    {
        nk_msg_set_size(&request.header, sizeof request);
        auto pending = std::async(std::launch::async, [&] { return t.ops->recv(&t, &request.header, arena); });
        if (pending.wait_for(10s) != std::future_status::ready)
            (void)ServiceLocatorUnregister(channel);
        return pending.get();
    }
    Retcode Reply(const Echo& request) { return t.ops->reply(&t, &request.header, nullptr); }
    // Receives a request and answers it: its tag; 0 when that failed.
    uint32_t Serve()
    {
        Echo request{};
        return Receive(request) == NK_EOK && Reply(request) == NK_EOK ? request.tag : 0;
    }

    Handle channel = ServiceLocatorRegister("srv", nullptr, 0, nullptr);
    NkNosTransport t{};
};

TEST_F(HostServerTest, Recv_DropsMisbehavingClientsAndServesTheNext)
{
    const Bytes echo = BytesOf(MakeEcho(0));
    const auto firstPacket = [&](uint32_t arena) {  // of a frame longer than one packet
        Bytes packet = Frame(FrameKind::Request, echo, 1, 1, arena);
        packet.resize(kPacketMax);
        return packet;
    };
    const struct {
        const char* name;
        Bytes packet;
        const char* reason;
    } cases[] = {
        {"bytes that are no frame", {'h', 'e', 'l', 'l', 'o'}, "malformed frame"},
        {"reply instead of request", Frame(FrameKind::Reply, echo), "frame of a kind other than request"},
        {"more arena than offered", firstPacket(70001), "request larger than the buffers offered"},
        {"client gone in mid-frame", firstPacket(70000), "broken request frame"},
    };
    LogCapture log;
    StderrCapture platformLog(log);
    Bytes arenaBytes(70000);
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        RawClient(runtime).Send(k.packet);
        RawClient good(runtime);
        good.Request(42);
        nk_arena arena;
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
        Echo request{};
        ASSERT_EQ(Receive(request, &arena), NK_EOK);
        EXPECT_EQ(request.tag, 42u);
        EXPECT_EQ(nk_arena_used(&arena), 0u);
        ASSERT_EQ(Reply(request), NK_EOK);
        EXPECT_EQ(good.ReplyTag(), 42u);
        EXPECT_TRUE(log.WaitFor(std::string("dropped: ") + k.reason));
        log.Clear();
    }
}

TEST_F(HostServerTest, Recv_ServesInOrderOfArrivalWhateverTheClientsStampOrSendAhead)
{
    // Each client stamps its own "sent at"; the pushy one stamps 0, and once
    // both are connected sends four requests without waiting for replies.
    RawClient honest(runtime), pushy(runtime);
    honest.Request(1);
    pushy.Request(11, 0);
    EXPECT_EQ(Serve(), 1u);
    EXPECT_EQ(Serve(), 11u);
    for (uint32_t tag = 12; tag <= 15; ++tag)
        pushy.Request(tag, 0);
    honest.Request(2);  // after 13 reached the server, before the reply to 12
    EXPECT_EQ(Serve(), 12u);
    EXPECT_EQ(Serve(), 2u);
}

TEST_F(HostServerTest, Recv_AHalfSentFrameHoldsNobodyUpAndIsDroppedTenSecondsAfterItsFirstPacket)
{
    LogCapture log;
    StderrCapture platformLog(log);
    RawClient slow(runtime);
    Bytes first = Frame(FrameKind::Request, BytesOf(MakeEcho(1)), 1, MonotonicNs(), 2 * kPacketMax);
    first.resize(kPacketMax);  // the first of three packets
    slow.Send(first);
    const auto start = Clock::now();
    RawClient honest(runtime);
    honest.Request(2);
    Bytes arenaBytes(2 * kPacketMax);
    nk_arena arena;
    nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
    Echo request{};
    ASSERT_EQ(Receive(request, &arena), NK_EOK);
    ASSERT_EQ(Reply(request), NK_EOK);
    EXPECT_EQ(honest.ReplyTag(), 2u);
    EXPECT_LT(Clock::now() - start, 100ms);

    nk_msg_set_size(&request.header, sizeof request);
    auto pending = std::async(std::launch::async, [&] { return t.ops->recv(&t, &request.header, &arena); });
    std::this_thread::sleep_until(start + 9s);
    slow.Send(Bytes(kPacketMax, 0));  // the second packet, 9 s after the first
    EXPECT_TRUE(slow.Closed());
    EXPECT_GE(Clock::now() - start, 10s);
    EXPECT_LT(Clock::now() - start, 12s);
    EXPECT_TRUE(log.WaitFor("dropped: frame not whole 10 s after its first packet"));
    EXPECT_EQ(ServiceLocatorUnregister(channel), NK_EOK);
    EXPECT_EQ(pending.get(), NK_EBADF);
}

TEST_F(HostServerTest, Accept_AFullChannelReplacesItsOldestSilentClientOrRefusesTheNewOne)
{
    LogCapture log;
    StderrCapture platformLog(log);
    std::vector<std::unique_ptr<RawClient>> clients;  // as many as a channel takes; all but the first send
    for (uint32_t tag = 0; tag < 64; ++tag) {
        clients.push_back(std::make_unique<RawClient>(runtime));
        if (tag > 0)
            clients.back()->Request(tag);
    }
    EXPECT_EQ(Serve(), 1u);
    RawClient late(runtime);
    late.Request(100);
    EXPECT_EQ(Serve(), 2u);
    EXPECT_TRUE(clients[0]->Closed());  // its place went to the late client
    RawClient refused(runtime);
    refused.Request(200);
    EXPECT_EQ(Serve(), 3u);
    EXPECT_TRUE(refused.Closed());  // every client has sent: no place to take
    EXPECT_TRUE(log.WaitFor("as many clients as it takes"));
    EXPECT_FALSE(log.WaitFor("as many clients as it takes", 2, 0ms));  // one line for the burst
}

TEST_F(HostServerTest, Recv_TakesAClientsNextRequestOnlyOnceItsLastIsAnswered)
{
    RawClient client(runtime);
    client.Request(1);
    client.Send(Frame(FrameKind::Request, BytesOf(MakeEcho(2)), 2, MonotonicNs()));
    Echo first{};
    ASSERT_EQ(Receive(first), NK_EOK);
    NkNosTransport other{};
    ASSERT_EQ(NkNosTransportSync_Init(&other, channel, INVALID_HANDLE, INVALID_HANDLE), NK_EOK);
    Echo second = MakeEcho(0);
    auto pending = std::async(std::launch::async, [&] { return other.ops->recv(&other, &second.header, nullptr); });
    EXPECT_EQ(pending.wait_for(100ms), std::future_status::timeout);  // its client is being served
    ASSERT_EQ(Reply(first), NK_EOK);
    if (pending.wait_for(10s) != std::future_status::ready)
        (void)ServiceLocatorUnregister(channel);
    EXPECT_EQ(pending.get(), NK_EOK);
    EXPECT_EQ(second.tag, 2u);
    FrameHeader header;
    EXPECT_EQ(ReadEcho(client.fd, header).tag, 1u);
    EXPECT_EQ(header.sequence, 1u);
}

TEST_F(HostServerTest, Reply_ToAClientGoneSinceItsRequestIsEagain)
{
    Echo request{};
    {
        RawClient client(runtime);
        client.Request(1);
        ASSERT_EQ(Receive(request), NK_EOK);
    }
    EXPECT_EQ(Reply(request), NK_EAGAIN);
    EXPECT_EQ(Reply(request), NK_EINVAL);  // nothing received since
}

}  // namespace
