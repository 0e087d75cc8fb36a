// Server side in the test process against real client processes: arrival
// order, misbehaving clients, shared channels, closing.
#include "harness.h"
#include "peer_protocol.h"

#include <nos/platform.h>
#include <nos_host/frame.h>

#include <cstring>
#include <future>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

namespace platform_test {
namespace {

using peer::Request;

// A registered channel with one server transport, whose receives are
// bounded: a receive that does not return in time closes the channel.
class TestServer {
public:
    explicit TestServer(const std::string& channel)
    {
        handle_ = ServiceLocatorRegister(channel.c_str(), nullptr, 0, nullptr);
        EXPECT_NE(handle_, INVALID_HANDLE);
        EXPECT_EQ(NkNosTransportSync_Init(&t_, handle_, INVALID_HANDLE, INVALID_HANDLE), NK_EOK);
    }
    ~TestServer() { ServiceLocatorUnregister(handle_); }

    Handle ChannelHandle() const { return handle_; }
    NkNosTransport& Transport() { return t_; }

    Retcode Receive(Request& request, nk_arena* arena = nullptr, NkNosTransport* t = nullptr)
    {
        NkNosTransport* transport = t != nullptr ? t : &t_;
        nk_msg_set_size(&request.header, sizeof request);
        auto pending = std::async(std::launch::async, [&] { return transport->ops->recv(transport, &request.header, arena); });
        if (pending.wait_for(10s) != std::future_status::ready) {
            ADD_FAILURE() << "receive did not return";
            ServiceLocatorUnregister(handle_);
        }
        return pending.get();
    }

    Retcode ReplyEcho(const Request& request)
    {
        Request reply = request;
        nk_msg_set_size(&reply.header, sizeof reply);
        return t_.ops->reply(&t_, &reply.header, nullptr);
    }

private:
    Handle handle_ = INVALID_HANDLE;
    NkNosTransport t_{};
};

// The peer's answer line "rc=<code> tag=<tag>".
std::string Answer(uint32_t tag) { return "rc=0 tag=" + std::to_string(tag); }

class ServerTest : public PlatformTest {};

TEST_F(ServerTest, Recv_DropsMisbehavingClientAndServesTheNext)
{
    TestServer server("srv");
    for (const char* garbage : {"bad-magic", "bad-version", "bad-kind", "short-message", "huge-arena",
                                "wrong-packet-length", "reply-kind", "tiny-packet", "truncated", "oversized"}) {
        SCOPED_TRACE(garbage);
        PeerProcess bad({"raw", "srv", garbage});
        ASSERT_EQ(bad.Wait(), 0);
        PeerProcess good({"call", "srv", "42"});
        ASSERT_EQ(good.ReadLine(), "calling");
        std::vector<uint8_t> arenaBuffer(peer::kServerArenaCapacity);
        nk_arena arena;
        nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
        Request request{};
        ASSERT_EQ(server.Receive(request, &arena), NK_EOK);
        EXPECT_EQ(request.tag, 42u);
        EXPECT_EQ(nk_arena_used(&arena), 0u);
        ASSERT_EQ(server.ReplyEcho(request), NK_EOK);
        EXPECT_EQ(good.ReadLine(), Answer(42));
        EXPECT_EQ(good.Wait(), 0);
    }
}

TEST_F(ServerTest, Reply_ToClientThatLeftGivesEagainAndServingGoesOn)
{
    TestServer server("srv");
    PeerProcess leaving({"raw", "srv", "leave-before-reply"});
    ASSERT_EQ(leaving.Wait(), 0);
    Request request{};
    ASSERT_EQ(server.Receive(request), NK_EOK);
    EXPECT_EQ(server.ReplyEcho(request), NK_EAGAIN);
    EXPECT_EQ(server.ReplyEcho(request), NK_EINVAL);  // nothing received since

    PeerProcess good({"call", "srv", "7"});
    ASSERT_EQ(server.Receive(request), NK_EOK);
    EXPECT_EQ(request.tag, 7u);
    ASSERT_EQ(server.ReplyEcho(request), NK_EOK);
    EXPECT_EQ(good.Wait(), 0);
}

TEST_F(ServerTest, Recv_ServesWaitingClientsInArrivalOrder)
{
    TestServer server("srv");
    std::vector<std::unique_ptr<PeerProcess>> clients;
    // Each client is waiting in its call before the next one starts; nobody
    // is served until all wait.
    for (uint32_t tag = 1; tag <= 5; ++tag) {
        clients.push_back(std::make_unique<PeerProcess>(std::vector<std::string>{"call", "srv", std::to_string(tag)}));
        ASSERT_EQ(clients.back()->ReadLine(), "calling");
        std::this_thread::sleep_for(100ms);
    }
    for (uint32_t tag = 1; tag <= 5; ++tag) {
        Request request{};
        ASSERT_EQ(server.Receive(request), NK_EOK);
        EXPECT_EQ(request.tag, tag);
        ASSERT_EQ(server.ReplyEcho(request), NK_EOK);
        EXPECT_EQ(clients[tag - 1]->ReadLine(), Answer(tag));
    }
}

// Sends one well-formed request frame stamped with `sentNs` on a raw connection.
int SendStampedRequest(const std::string& dir, const std::string& channel, uint64_t sentNs, uint32_t tag)
{
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = dir + "/" + channel + ".sock";
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    nos_host::FrameHeader header;
    header.messageLength = sizeof(Request);
    header.sentNs = sentNs;
    header.sequence = 1;
    std::vector<uint8_t> packet(nos_host::kFrameHeaderSize + sizeof(Request));
    nos_host::EncodeFrameHeader(header, std::span<uint8_t, nos_host::kFrameHeaderSize>(packet.data(), nos_host::kFrameHeaderSize));
    Request body{};
    nk_msg_set_size(&body.header, sizeof body);
    body.tag = tag;
    std::memcpy(packet.data() + nos_host::kFrameHeaderSize, &body, sizeof body);
    EXPECT_EQ(::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL), static_cast<ssize_t>(packet.size()));
    return fd;
}

TEST_F(ServerTest, Recv_OrdersWaitingRequestsBySendTime)
{
    TestServer server("srv");
    // Connected and sent in the order 3, 1, 2; stamped 1, 2, 3.
    const int third = SendStampedRequest(runtimeDir_, "srv", 3000, 3);
    const int first = SendStampedRequest(runtimeDir_, "srv", 1000, 1);
    const int second = SendStampedRequest(runtimeDir_, "srv", 2000, 2);
    for (uint32_t tag = 1; tag <= 3; ++tag) {
        Request request{};
        ASSERT_EQ(server.Receive(request), NK_EOK);
        EXPECT_EQ(request.tag, tag);
        ASSERT_EQ(server.ReplyEcho(request), NK_EOK);
    }
    for (const int fd : {first, second, third})
        ::close(fd);
}

TEST_F(ServerTest, Recv_StoresWholeMessageAndZeroesTheRest)
{
    TestServer server("srv");
    PeerProcess client({"call", "srv", "9", "1", "1234"});
    std::vector<uint8_t> buffer(100, 0xCC);
    auto* header = reinterpret_cast<nk_message*>(buffer.data());
    nk_msg_set_size(header, 100);
    nk_arena none{};
    auto pending = std::async(std::launch::async, [&] { return server.Transport().ops->recv(&server.Transport(), header, &none); });
    ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
    ASSERT_EQ(pending.get(), NK_EOK);
    Request received;
    std::memcpy(&received, buffer.data(), sizeof received);
    EXPECT_EQ(received.header.size, sizeof(Request));
    EXPECT_EQ(received.param, 1234u);
    EXPECT_EQ(received.tag, 9u);
    EXPECT_EQ(std::vector<uint8_t>(buffer.begin() + 32, buffer.end()), std::vector<uint8_t>(68, 0));
    ASSERT_EQ(server.ReplyEcho(received), NK_EOK);
    EXPECT_EQ(client.Wait(), 0);
}

TEST_F(ServerTest, Recv_TwoThreadsOnOneChannelAnswerEveryClient)
{
    TestServer server("srv");
    constexpr int kClients = 6;
    std::atomic<int> served{0};
    std::atomic<int> failures{0};
    auto serve = [&] {
        NkNosTransport t{};
        if (NkNosTransportSync_Init(&t, server.ChannelHandle(), INVALID_HANDLE, INVALID_HANDLE) != NK_EOK) {
            ++failures;
            return;
        }
        for (;;) {
            Request request{};
            nk_msg_set_size(&request.header, sizeof request);
            const Retcode rc = t.ops->recv(&t, &request.header, nullptr);
            if (rc == NK_EBADF)
                return;  // the channel was closed: the test is over
            if (rc != NK_EOK || t.ops->reply(&t, &request.header, nullptr) != NK_EOK)
                ++failures;
            else
                ++served;
        }
    };
    std::thread a(serve);
    std::thread b(serve);
    std::vector<std::unique_ptr<PeerProcess>> clients;
    for (int i = 0; i < kClients; ++i)
        clients.push_back(std::make_unique<PeerProcess>(std::vector<std::string>{"call", "srv", std::to_string(100 + i)}));
    for (int i = 0; i < kClients; ++i) {
        EXPECT_EQ(clients[i]->ReadLine(), "calling");
        EXPECT_EQ(clients[i]->ReadLine(), Answer(100 + i));
    }
    EXPECT_EQ(ServiceLocatorUnregister(server.ChannelHandle()), NK_EOK);
    a.join();
    b.join();
    EXPECT_EQ(served.load(), kClients);
    EXPECT_EQ(failures.load(), 0);
}

TEST_F(ServerTest, Recv_ClosedChannelIsFatalAndFreesTheName)
{
    TestServer server("srv");
    Request request{};
    nk_msg_set_size(&request.header, sizeof request);
    NkNosTransport& t = server.Transport();
    auto pending = std::async(std::launch::async, [&] { return t.ops->recv(&t, &request.header, nullptr); });
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(KnHandleClose(server.ChannelHandle()), NK_EOK);
    ASSERT_EQ(pending.wait_for(5s), std::future_status::ready);
    EXPECT_EQ(pending.get(), NK_EBADF);
    EXPECT_EQ(t.ops->recv(&t, &request.header, nullptr), NK_EBADF);
    EXPECT_EQ(t.ops->reply(&t, &request.header, nullptr), NK_EBADF);
    EXPECT_EQ(ServiceLocatorUnregister(server.ChannelHandle()), NK_EBADF);
    EXPECT_EQ(ServiceLocatorConnect("srv"), INVALID_HANDLE);

    TestServer again("srv");
    EXPECT_NE(again.ChannelHandle(), INVALID_HANDLE);
}

TEST_F(ServerTest, Register_ChannelServedElsewhereIsRefused)
{
    auto other = StartServer("taken");
    EXPECT_EQ(ServiceLocatorRegister("taken", nullptr, 0, nullptr), INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorRegister("bad/name", nullptr, 0, nullptr), INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorRegister("", nullptr, 0, nullptr), INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorRegister(nullptr, nullptr, 0, nullptr), INVALID_HANDLE);
}

TEST_F(ServerTest, Recv_RejectsBadArguments)
{
    TestServer server("srv");
    NkNosTransport& t = server.Transport();
    Request request{};
    nk_msg_set_size(&request.header, 23);
    EXPECT_EQ(t.ops->recv(&t, &request.header, nullptr), NK_EINVAL);
    EXPECT_EQ(t.ops->recv(&t, nullptr, nullptr), NK_EINVAL);
    EXPECT_EQ(t.ops->recv(nullptr, &request.header, nullptr), NK_EINVAL);
    nk_msg_set_size(&request.header, sizeof request);
    EXPECT_EQ(t.ops->reply(&t, &request.header, nullptr), NK_EINVAL);  // nothing received
    NkNosTransport client{};
    EXPECT_EQ(NkNosTransportSync_Init(&client, INVALID_HANDLE, INVALID_HANDLE, INVALID_HANDLE), NK_EBADF);
    EXPECT_EQ(NkNosTransportSync_Init(&client, server.ChannelHandle(), INVALID_HANDLE, server.ChannelHandle()), NK_EBADF);
}

}  // namespace
}  // namespace platform_test
