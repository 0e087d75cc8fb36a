// Client side against a real server process: calls, riid look-up, servers
// that are absent, die or stop answering.
#include "harness.h"
#include "peer_protocol.h"

#include <nos/platform.h>

#include <cstring>
#include <thread>

namespace platform_test {
namespace {

using peer::Request;

struct Connection {
    Handle handle = INVALID_HANDLE;
    NkNosTransport t{};
};

Connection Connect(const std::string& channel)
{
    Connection c;
    c.handle = ServiceLocatorConnect(channel.c_str());
    EXPECT_NE(c.handle, INVALID_HANDLE);
    EXPECT_EQ(NkNosTransport_Init(&c.t, c.handle, nullptr, 0), NK_EOK);
    return c;
}

Request MakeRequest(uint16_t method, uint32_t param = 0, uint32_t tag = 0)
{
    Request r{};
    r.header.mid = method;
    nk_msg_set_size(&r.header, sizeof r);
    r.param = param;
    r.tag = tag;
    return r;
}

// A reply buffer larger than the reply, filled with a marker so that the
// zeroed remainder shows.
struct ReplyBuffer {
    ReplyBuffer(uint32_t messageCapacity, size_t arenaCapacity)
        : message(messageCapacity, 0xCC), arenaBytes(arenaCapacity, 0xEE)
    {
        nk_msg_set_size(Header(), messageCapacity);
        nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
    }
    nk_message* Header() { return reinterpret_cast<nk_message*>(message.data()); }
    const Request& AsRequest() const { return *reinterpret_cast<const Request*>(message.data()); }
    std::vector<uint8_t> message;
    std::vector<uint8_t> arenaBytes;
    nk_arena arena{};
};

class ClientTest : public PlatformTest {};

TEST_F(ClientTest, Call_EchoesArenasFromEmptyToLarge)
{
    auto server = StartServer("echo");
    Connection c = Connect("echo");
    // Around the end of the first packet (65536 - 32 header - 32 message) and beyond.
    for (const size_t size : {0u, 1u, 4096u, 65471u, 65472u, 65473u, 65536u, 300000u}) {
        SCOPED_TRACE(size);
        std::vector<uint8_t> data(size);
        for (size_t i = 0; i < size; ++i)
            data[i] = static_cast<uint8_t>(i * 31 + 5);
        nk_arena requestArena;
        nk_arena_init(&requestArena, data.data(), data.size());
        requestArena.current = requestArena.end;
        Request request = MakeRequest(peer::kEcho, 0, static_cast<uint32_t>(size));
        ReplyBuffer reply(64, peer::kServerArenaCapacity);

        ASSERT_EQ(c.t.ops->call(&c.t, &request.header, &requestArena, reply.Header(), &reply.arena), NK_EOK);
        EXPECT_EQ(reply.AsRequest().header.mid, peer::kEcho);
        EXPECT_EQ(reply.AsRequest().header.size, sizeof(Request));  // the sender's size word
        EXPECT_EQ(reply.AsRequest().tag, size);
        EXPECT_EQ(std::vector<uint8_t>(reply.message.begin() + 32, reply.message.end()), std::vector<uint8_t>(32, 0));
        ASSERT_EQ(nk_arena_used(&reply.arena), size);
        EXPECT_EQ(std::vector<uint8_t>(reply.arena.start, reply.arena.current), data);
    }
}

TEST_F(ClientTest, Call_KeepsErrorBitOfReply)
{
    auto server = StartServer("echo");
    Connection c = Connect("echo");
    Request request = MakeRequest(peer::kErrorReply, 0, 9);
    ReplyBuffer reply(32, 0);
    ASSERT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, reply.Header(), nullptr), NK_EOK);
    EXPECT_EQ(reply.AsRequest().header.size, NK_MSG_ERROR_FLAG | 32u);
    EXPECT_EQ(reply.AsRequest().tag, 9u);
}

TEST_F(ClientTest, Call_ReplyLargerThanOfferedIsE2bigAndConnectionStaysUsable)
{
    auto server = StartServer("echo");
    Connection c = Connect("echo");
    struct Case {
        const char* name;
        uint16_t method;
        uint32_t param;
        uint32_t messageOffered;
        size_t arenaOffered;
    };
    const Case cases[] = {
        {"arena one byte too large", peer::kArenaOf, 1000, 32, 999},
        {"arena spanning packets", peer::kArenaOf, 200000, 32, 100000},
        {"message larger than buffer", peer::kMessageOf, 100, 64, 0},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        Request request = MakeRequest(k.method, k.param);
        ReplyBuffer reply(k.messageOffered, k.arenaOffered);
        const auto before = reply.message;
        ASSERT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, reply.Header(), &reply.arena), NK_E2BIG);
        EXPECT_EQ(reply.message, before);
        EXPECT_EQ(reply.arena.current, reply.arena.start);

        Request again = MakeRequest(peer::kEcho, 0, 77);
        ReplyBuffer fits(32, 0);
        ASSERT_EQ(c.t.ops->call(&c.t, &again.header, nullptr, fits.Header(), nullptr), NK_EOK);
        EXPECT_EQ(fits.AsRequest().tag, 77u);
    }
}

TEST_F(ClientTest, Call_RejectsBadArgumentsWithoutSending)
{
    auto server = StartServer("echo");
    Connection c = Connect("echo");
    Request good = MakeRequest(peer::kEcho);
    Request small = good;
    nk_msg_set_size(&small.header, 23);
    uint8_t bytes[8];
    nk_arena backwards{bytes + 4, bytes + 4, bytes};
    nk_arena beyond{bytes, bytes + 5, bytes + 4};  // current past end
    struct Case {
        const char* name;
        NkNosTransport* t;
        const nk_message* request;
        const nk_arena* requestArena;
        bool smallReply;
        nk_arena* replyArena;
        Retcode expected;
    };
    const Case cases[] = {
        {"no transport", nullptr, &good.header, nullptr, false, nullptr, NK_EINVAL},
        {"no request", &c.t, nullptr, nullptr, false, nullptr, NK_EINVAL},
        {"request under 24 bytes", &c.t, &small.header, nullptr, false, nullptr, NK_EINVAL},
        {"reply under 24 bytes", &c.t, &good.header, nullptr, true, nullptr, NK_EINVAL},
        {"request arena past its end", &c.t, &good.header, &beyond, false, nullptr, NK_EINVAL},
        {"reply arena end before start", &c.t, &good.header, nullptr, false, &backwards, NK_EINVAL},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        Request reply = MakeRequest(0);
        reply.tag = 0x5A5A;
        if (k.smallReply)
            nk_msg_set_size(&reply.header, 16);
        const Request before = reply;
        EXPECT_EQ(c.t.ops->call(k.t, k.request, k.requestArena, &reply.header, k.replyArena), k.expected);
        EXPECT_EQ(std::memcmp(&reply, &before, sizeof reply), 0);
    }
    // Nothing was sent: the next request is answered by the first reply.
    Request tagged = MakeRequest(peer::kEcho, 0, 5);
    Request reply = MakeRequest(0);
    ASSERT_EQ(c.t.ops->call(&c.t, &tagged.header, nullptr, &reply.header, nullptr), NK_EOK);
    EXPECT_EQ(reply.tag, 5u);

    NkNosTransport serverSide{};
    EXPECT_EQ(NkNosTransport_Init(&serverSide, INVALID_HANDLE, nullptr, 0), NK_EBADF);
    EXPECT_EQ(NkNosTransport_Init(nullptr, c.handle, nullptr, 0), NK_EINVAL);
}

TEST_F(ClientTest, GetRiid_KnownAndUnknownEndpoints)
{
    struct Case {
        std::string channel;
        std::vector<std::string> options;
        std::string endpoint;
        uint32_t expected;
    };
    const Case cases[] = {
        {"verifier", {}, "Verifier.product", 0},
        {"verifier", {}, "Verifier.applist", 1},
        {"verifier", {}, "Verifier.other", INVALID_RIID},
        {"update_registry", {}, "UpdateRegistry.UpdateRegistry", 0},
        {"nv.SignatureVerifierEntity", {}, "storage.storage", 0},
        {"nv.NvlogStorageEntity", {}, "nv.NvlogStorage.storage", 0},
        {"nv.NvlogStorageEntity", {}, "storage.storage", INVALID_RIID},
        {"custom", {"--endpoints", "A.a,B.b,C.c"}, "C.c", 2},
        {"custom", {"--endpoints", "A.a,B.b,C.c"}, "A.a", 0},
        {"custom", {"--endpoints", "A.a,B.b,C.c"}, "A.", INVALID_RIID},
        {"verifier", {"--endpoints", "Only.one"}, "Verifier.product", INVALID_RIID},
        {"unlisted", {}, "Verifier.product", INVALID_RIID},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.channel + " " + k.endpoint);
        auto server = StartServer(k.channel, k.options);
        Connection c = Connect(k.channel);
        EXPECT_EQ(ServiceLocatorGetRiid(c.handle, k.endpoint.c_str()), k.expected);
        EXPECT_EQ(KnHandleClose(c.handle), NK_EOK);
    }
    EXPECT_EQ(ServiceLocatorGetRiid(INVALID_HANDLE, "Verifier.product"), INVALID_RIID);
}

TEST_F(ClientTest, Connect_NobodyServesGivesInvalidHandle)
{
    EXPECT_EQ(ServiceLocatorConnect("verifier"), INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorConnect(nullptr), INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorConnect("../escape"), INVALID_HANDLE);
    // A server killed outright leaves its socket file behind.
    auto server = StartServer("verifier");
    server->Kill(SIGKILL);
    ASSERT_EQ(server->Wait(), 128 + SIGKILL);
    EXPECT_EQ(ServiceLocatorConnect("verifier"), INVALID_HANDLE);
}

TEST_F(ClientTest, Call_ServerThatGoesAwayGivesEpipe)
{
    for (const uint16_t method : {peer::kDie, peer::kUnregister}) {
        SCOPED_TRACE(method);
        auto server = StartServer("echo");
        Connection c = Connect("echo");
        Request request = MakeRequest(method);
        Request reply = MakeRequest(0);
        const Request before = reply;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, &reply.header, nullptr), NK_EPIPE);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);  // well before the 10 s call time-out
        EXPECT_EQ(std::memcmp(&reply, &before, sizeof reply), 0);
        EXPECT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, &reply.header, nullptr), NK_EPIPE);
    }
}

TEST_F(ClientTest, Call_TimeOutGivesEtimedoutThenEpipe)
{
    auto server = StartServer("echo");
    ::setenv("NOS_CALL_TIMEOUT_MS", "200", 1);
    Connection c = Connect("echo");
    Request request = MakeRequest(peer::kSleepThenEcho, 2000);
    Request reply = MakeRequest(0);
    EXPECT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, &reply.header, nullptr), NK_ETIMEDOUT);
    Request echo = MakeRequest(peer::kEcho);
    EXPECT_EQ(c.t.ops->call(&c.t, &echo.header, nullptr, &reply.header, nullptr), NK_EPIPE);
}

TEST_F(ClientTest, Call_ThreadsSharingOneHandleGetTheirOwnReplies)
{
    auto server = StartServer("echo");
    Connection c = Connect("echo");
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (uint32_t thread = 0; thread < 4; ++thread) {
        threads.emplace_back([&, thread] {
            for (uint32_t i = 0; i < 50; ++i) {
                const uint32_t tag = thread * 1000 + i;
                Request request = MakeRequest(peer::kEcho, 0, tag);
                Request reply = MakeRequest(0);
                if (c.t.ops->call(&c.t, &request.header, nullptr, &reply.header, nullptr) != NK_EOK || reply.tag != tag)
                    ++mismatches;
            }
        });
    }
    for (auto& t : threads)
        t.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(ClientTest, Connect_SameNameSharesOneConnectionUntilItBreaks)
{
    auto server = StartServer("echo");
    Connection first = Connect("echo");
    Connection second = Connect("echo");
    EXPECT_EQ(second.handle, first.handle);
    Request request = MakeRequest(peer::kEcho, 0, 7);
    Request reply = MakeRequest(0);

    // Each connect counts one user: the first close leaves the connection open.
    EXPECT_EQ(KnHandleClose(second.handle), NK_EOK);
    EXPECT_EQ(first.t.ops->call(&first.t, &request.header, nullptr, &reply.header, nullptr), NK_EOK);
    EXPECT_EQ(reply.tag, 7u);
    EXPECT_EQ(KnHandleClose(first.handle), NK_EOK);
    EXPECT_EQ(KnHandleClose(first.handle), NK_EBADF);
    EXPECT_EQ(first.t.ops->call(&first.t, &request.header, nullptr, &reply.header, nullptr), NK_EBADF);

    // A connection whose server went away is replaced by a new one.
    Connection held = Connect("echo");
    EXPECT_NE(held.handle, first.handle);
    server->Kill(SIGKILL);
    ASSERT_EQ(server->Wait(), 128 + SIGKILL);
    server = StartServer("echo");
    Connection fresh = Connect("echo");
    EXPECT_NE(fresh.handle, held.handle);
    EXPECT_EQ(fresh.t.ops->call(&fresh.t, &request.header, nullptr, &reply.header, nullptr), NK_EOK);
    EXPECT_EQ(held.t.ops->call(&held.t, &request.header, nullptr, &reply.header, nullptr), NK_EPIPE);
    EXPECT_EQ(KnHandleClose(held.handle), NK_EOK);
    EXPECT_EQ(KnHandleClose(fresh.handle), NK_EOK);
}

TEST_F(ClientTest, Call_LogStorageThatStopsAnsweringTimesOutWithoutEnvironmentLimit)
{
    auto server = StartServer("nv.NvlogStorageEntity");
    ::unsetenv("NOS_CALL_TIMEOUT_MS");
    Connection c = Connect("nv.NvlogStorageEntity");
    Request request = MakeRequest(peer::kSleepThenEcho, 6000);
    Request reply = MakeRequest(0);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(c.t.ops->call(&c.t, &request.header, nullptr, &reply.header, nullptr), NK_ETIMEDOUT);
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, 1900ms);
    EXPECT_LT(took, 5s);
}

}  // namespace
}  // namespace platform_test
