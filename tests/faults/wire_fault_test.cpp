// A hostile client on the verifier's socket: raw packets that are no frames,
// frames that break the header rules, frames cut off or stalled half-way, and
// a crowd of idle connections. The verifier drops such clients and goes on
// serving the others.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <future>
#include <memory>
#include <thread>
#include <string>
#include <vector>

#include "fault_setting.h"

namespace verifier_faults {
namespace {

using namespace std::chrono_literals;

constexpr std::uint8_t kRequest = 1;
constexpr std::uint8_t kReply = 2;
constexpr std::size_t kFirstPacketPayload = 65504;

void Put32(Bytes& out, std::size_t at, std::uint32_t value)
{
    for (int i = 0; i < 4; ++i)
        out[at + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(value >> (8 * i));
}

// A frame header as the wire contract lays it out.
Bytes Header(std::uint8_t kind, std::uint32_t messageLength, std::uint32_t arenaLength, std::uint32_t magic = 0x46534F4E)
{
    Bytes header(32, 0);
    Put32(header, 0, magic);
    header[4] = 1;
    header[5] = kind;
    Put32(header, 8, messageLength);
    Put32(header, 12, arenaLength);
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    const std::uint64_t sentAt = static_cast<std::uint64_t>(now.tv_sec) * 1000000000u + static_cast<std::uint64_t>(now.tv_nsec);
    Put32(header, 16, static_cast<std::uint32_t>(sentAt));
    Put32(header, 20, static_cast<std::uint32_t>(sentAt >> 32));
    Put32(header, 24, 1);
    return header;
}

// A Verify request message of `length` bytes for the applist endpoint.
Bytes VerifyMessage(std::uint32_t length)
{
    Bytes message(length, 0);
    message[0] = 1;  // riid: the applist endpoint
    Put32(message, 4, length);
    return message;
}

Bytes Concat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class RawClient {
public:
    explicit RawClient(const fs::path& socketPath) : m_fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, socketPath.c_str(), sizeof address.sun_path - 1);
        m_connected = m_fd >= 0 && ::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~RawClient()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    bool connected() const { return m_connected; }
    bool Send(const Bytes& packet) { return ::send(m_fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size()); }
    void Close()
    {
        ::close(m_fd);
        m_fd = -1;
    }

    // Whether the verifier closed the connection within `limit`, without
    // sending anything first.
    bool DroppedWithin(std::chrono::milliseconds limit)
    {
        pollfd p{m_fd, POLLIN, 0};
        if (::poll(&p, 1, static_cast<int>(limit.count())) != 1)
            return false;
        char byte = 0;
        return ::recv(m_fd, &byte, 1, MSG_DONTWAIT) <= 0;
    }

private:
    int m_fd;
    bool m_connected = false;
};

class WireFaultTest : public FaultTest {
protected:
    void SetUp() override
    {
        StartEntities();
        StartAll();
    }
    fs::path Socket() const { return Root() / "rt" / "verifier.sock"; }
};

TEST_F(WireFaultTest, HostileFrames_ClientDroppedAndServingGoesOn)
{
    struct Case {
        const char* name;
        std::vector<Bytes> packets;
    };
    const Bytes good = VerifyMessage(32);
    const std::vector<Case> cases = {
        {"a packet shorter than a header", {Bytes(10, 0xAB)}},
        {"random bytes", {PseudoRandom(200, 6)}},
        {"wrong magic", {Concat(Header(kRequest, 32, 0, 0x46534F4F), good)}},
        {"a reply instead of a request", {Concat(Header(kReply, 32, 0), good)}},
        {"message under 24 bytes", {Concat(Header(kRequest, 20, 0), Bytes(20, 0))}},
        {"packet longer than the header says", {Concat(Header(kRequest, 32, 0), Concat(good, Bytes(8, 0)))}},
        {"packet shorter than the header says", {Concat(Header(kRequest, 40, 0), good)}},
        {"message larger than the verifier offers", {Concat(Header(kRequest, 4096, 0), VerifyMessage(4096))}},
        {"arena the verifier does not offer",
         {Concat(Header(kRequest, 32, 70000), Concat(good, Bytes(kFirstPacketPayload - 32, 0))),
          Bytes(70000 - (kFirstPacketPayload - 32), 0)}},
        {"a second packet of the wrong length",
         {Concat(Header(kRequest, 32, 70000), Concat(good, Bytes(kFirstPacketPayload - 32, 0))), Bytes(10, 0)}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RawClient hostile(Socket());
        ASSERT_TRUE(hostile.connected());
        ASSERT_TRUE(hostile.Send(c.packets.front()));
        // The verifier may drop the client at its first packet already, so a
        // later packet can find the connection closed.
        for (std::size_t i = 1; i < c.packets.size(); ++i)
            (void)hostile.Send(c.packets[i]);
        EXPECT_TRUE(hostile.DroppedWithin(5s));
        EXPECT_EQ(Verify(kApplist, kNoHandle), kInvalidArgument);
    }
    // A well-formed frame on the raw socket is answered: the frames above
    // were refused for what they broke.
    RawClient honest(Socket());
    ASSERT_TRUE(honest.Send(Concat(Header(kRequest, 32, 0), VerifyMessage(32))));
    EXPECT_FALSE(honest.DroppedWithin(2s));
    ExpectServing();
}

// The verifier offers room for a Verify request and no arena, so any frame
// that needs a second packet is larger than it offers and is refused at its
// first packet: a client that stops half-way never holds the IPC thread.
TEST_F(WireFaultTest, HalfSentFrames_DroppedAtTheFirstPacket)
{
    const Bytes firstPacket =
        Concat(Header(kRequest, 32, 70000), Concat(VerifyMessage(32), Bytes(kFirstPacketPayload - 32, 0)));
    for (const bool leaves : {true, false}) {
        SCOPED_TRACE(leaves ? "the client leaves" : "the client stays silent");
        RawClient hostile(Socket());
        ASSERT_TRUE(hostile.Send(firstPacket));
        if (leaves)
            hostile.Close();
        else
            EXPECT_TRUE(hostile.DroppedWithin(2s));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(Verify(kApplist, kNoHandle), kInvalidArgument);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
    }
    ExpectServing();
}

TEST_F(WireFaultTest, IdleConnections_DoNotStopServing)
{
    std::vector<std::unique_ptr<RawClient>> idle;
    for (int i = 0; i < 200; ++i) {
        idle.push_back(std::make_unique<RawClient>(Socket()));
        ASSERT_TRUE(idle.back()->connected());
    }
    ExpectServing();
    idle.clear();
    ExpectServing();
}

}  // namespace
}  // namespace verifier_faults
