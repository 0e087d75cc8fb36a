#include "wire.h"

#include "runtime.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace nos_host {
namespace {

constexpr int kSocketBufferBytes = 4 * 1024 * 1024;

// The payload of a frame seen as one byte range over two buffers.
class Payload {
public:
    Payload(std::span<uint8_t> message, std::span<uint8_t> arena) : parts_{message, arena} {}

    // Fills up to two iovecs for payload bytes [offset, offset + length).
    int Iov(uint64_t offset, size_t length, iovec* out) const
    {
        int count = 0;
        for (const auto& part : parts_) {
            if (length == 0)
                break;
            if (offset >= part.size()) {
                offset -= part.size();
                continue;
            }
            const size_t take = std::min<size_t>(length, part.size() - static_cast<size_t>(offset));
            out[count++] = iovec{part.data() + offset, take};
            length -= take;
            offset = 0;
        }
        return count;
    }

private:
    std::span<uint8_t> parts_[2];
};

int PollTimeoutMs(Deadline deadline)
{
    if (!deadline)
        return -1;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 1 << 30));
}

// Runs `io` with the deadline cut to kStallLimit from now; a time-out that
// only the cut caused is the peer's stall.
template <class Io>
IoResult StallBounded(Deadline deadline, Io io)
{
    const IoResult result = io(EarlierOf(deadline, Clock::now() + kStallLimit));
    if (result == IoResult::TimedOut && !(deadline && Clock::now() >= *deadline))
        return IoResult::Stalled;
    return result;
}

IoResult SendPacket(int fd, const iovec* iov, int count, size_t expected, Deadline deadline, bool stallBounded)
{
    if (stallBounded)
        return StallBounded(deadline, [&](Deadline cut) { return SendPacket(fd, iov, count, expected, cut, false); });
    msghdr msg {};
    msg.msg_iov = const_cast<iovec*>(iov);
    msg.msg_iovlen = static_cast<size_t>(count);
    for (;;) {
        const ssize_t n = ::sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0)
            return static_cast<size_t>(n) == expected ? IoResult::Ok : IoResult::Failed;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            const IoResult waited = WaitFd(fd, POLLOUT, deadline);
            if (waited != IoResult::Ok)
                return waited;
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET || errno == ENOTCONN)
            return IoResult::Closed;
        return IoResult::Failed;
    }
}

// Receives one packet that must be exactly `expected` bytes long.
IoResult ReceivePacket(int fd, iovec* iov, int count, size_t expected, Deadline deadline)
{
    for (;;) {
        msghdr msg {};
        msg.msg_iov = iov;
        msg.msg_iovlen = static_cast<size_t>(count);
        const ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT | MSG_TRUNC);
        if (n > 0)
            return static_cast<size_t>(n) == expected ? IoResult::Ok : IoResult::Malformed;
        if (n == 0)
            return IoResult::Closed;
        if (errno == EINTR)
            continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            const IoResult waited = WaitFd(fd, POLLIN, deadline);
            if (waited != IoResult::Ok)
                return waited;
            continue;
        }
        return errno == ECONNRESET || errno == ENOTCONN ? IoResult::Closed : IoResult::Failed;
    }
}

}  // namespace

Deadline DeadlineAfter(std::optional<std::chrono::milliseconds> timeout)
{
    if (!timeout)
        return std::nullopt;
    return Clock::now() + *timeout;
}

Deadline EarlierOf(Deadline a, Deadline b)
{
    if (!a)
        return b;
    if (!b)
        return a;
    return std::min(*a, *b);
}

void TuneSocket(int fd)
{
    // Best effort: the kernel caps the sizes, and the defaults work too.
    const int bytes = kSocketBufferBytes;
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &bytes, sizeof bytes);
    (void)::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
}

IoResult WaitFd(int fd, short events, Deadline deadline)
{
    for (;;) {
        pollfd p {fd, events, 0};
        const int n = ::poll(&p, 1, PollTimeoutMs(deadline));
        if (n > 0)
            return IoResult::Ok;  // the next read or write tells a hang-up from data
        if (n == 0)
            return IoResult::TimedOut;
        if (errno != EINTR)
            return IoResult::Failed;
    }
}

IoResult SendFrame(int fd, FrameHeader header, std::span<const uint8_t> message, std::span<const uint8_t> arena,
                   Deadline deadline, bool stallBounded)
{
    header.messageLength = static_cast<uint32_t>(message.size());
    header.arenaLength = static_cast<uint32_t>(arena.size());
    header.sentNs = MonotonicNs();
    uint8_t head[kFrameHeaderSize];
    EncodeFrameHeader(header, std::span<uint8_t, kFrameHeaderSize>(head));

    // The payload is only read from; the spans are non-const for Payload's sake.
    const Payload payload({const_cast<uint8_t*>(message.data()), message.size()},
                          {const_cast<uint8_t*>(arena.data()), arena.size()});
    const uint64_t total = FramePayloadLength(header);
    iovec iov[3];
    iov[0] = iovec{head, kFrameHeaderSize};
    size_t take = FirstPacketLength(total) - kFrameHeaderSize;
    int count = 1 + payload.Iov(0, take, iov + 1);
    IoResult result = SendPacket(fd, iov, count, kFrameHeaderSize + take, deadline, stallBounded);
    for (uint64_t offset = take; result == IoResult::Ok && offset < total; offset += take) {
        take = static_cast<size_t>(std::min<uint64_t>(total - offset, kPacketMax));
        count = payload.Iov(offset, take, iov);
        result = SendPacket(fd, iov, count, take, deadline, stallBounded);
    }
    return result;
}

void StampArrivals(int fd)
{
    const int on = 1;
    (void)::setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on);
}

IoResult ReceiveStamped(int fd, std::span<uint8_t> into, size_t& length, uint64_t& stampNs)
{
    iovec iov{into.data(), into.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(timespec))];
    for (;;) {
        msghdr msg {};
        msg.msg_iov = &iov;
        msg.msg_iovlen = 1;
        msg.msg_control = control;
        msg.msg_controllen = sizeof control;
        const ssize_t n = ::recvmsg(fd, &msg, MSG_DONTWAIT | MSG_TRUNC);
        if (n == 0)
            return IoResult::Closed;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return IoResult::TimedOut;
            return errno == ECONNRESET || errno == ENOTCONN ? IoResult::Closed : IoResult::Failed;
        }
        length = static_cast<size_t>(n);
        for (cmsghdr* c = CMSG_FIRSTHDR(&msg); c != nullptr; c = CMSG_NXTHDR(&msg, c)) {
            if (c->cmsg_level == SOL_SOCKET && c->cmsg_type == SCM_TIMESTAMPNS) {
                timespec ts {};
                std::memcpy(&ts, CMSG_DATA(c), sizeof ts);
                stampNs = NsOf(ts);
                return IoResult::Ok;
            }
        }
        stampNs = RealtimeNs();
        return IoResult::Ok;
    }
}

IoResult ReceiveExact(int fd, std::span<uint8_t> into, Deadline deadline)
{
    iovec iov{into.data(), into.size()};
    return ReceivePacket(fd, &iov, 1, into.size(), deadline);
}

IoResult ReadFirstPacket(int fd, std::vector<uint8_t>& buffer, std::span<const uint8_t>& packet, FrameHeader& header,
                         Deadline deadline)
{
    if (buffer.size() < kPacketMax)
        buffer.resize(kPacketMax);
    for (;;) {
        const ssize_t n = ::recv(fd, buffer.data(), kPacketMax, MSG_DONTWAIT | MSG_TRUNC);
        if (n == 0)
            return IoResult::Closed;
        if (n > 0) {
            const size_t length = static_cast<size_t>(n);
            packet = std::span<const uint8_t>(buffer.data(), std::min(length, kPacketMax));
            return ParseFrameHeader(packet, length, header) == FrameVerdict::Ok ? IoResult::Ok : IoResult::Malformed;
        }
        if (errno == EINTR)
            continue;
        if (errno != EAGAIN && errno != EWOULDBLOCK)
            return errno == ECONNRESET || errno == ENOTCONN ? IoResult::Closed : IoResult::Failed;
        const IoResult waited = WaitFd(fd, POLLIN, deadline);
        if (waited != IoResult::Ok)
            return waited;
    }
}

IoResult ReadRestOfFrame(int fd, const FrameHeader& header, std::span<const uint8_t> packet, std::span<uint8_t> message,
                         std::span<uint8_t> arena, bool discard, Deadline deadline)
{
    const uint64_t total = FramePayloadLength(header);
    const size_t inFirst = packet.size() - kFrameHeaderSize;
    thread_local std::vector<uint8_t> sink;
    if (discard)
        sink.resize(kPacketMax);
    const Payload payload(message, arena);
    if (!discard) {
        iovec iov[2];
        const int count = payload.Iov(0, inFirst, iov);
        const uint8_t* from = packet.data() + kFrameHeaderSize;
        for (int i = 0; i < count; ++i) {
            std::memcpy(iov[i].iov_base, from, iov[i].iov_len);
            from += iov[i].iov_len;
        }
    }
    for (uint64_t offset = inFirst; offset < total;) {
        const size_t take = static_cast<size_t>(std::min<uint64_t>(total - offset, kPacketMax));
        iovec iov[2];
        int count = 1;
        if (discard)
            iov[0] = iovec{sink.data(), take};
        else
            count = payload.Iov(offset, take, iov);
        const IoResult result =
            StallBounded(deadline, [&](Deadline cut) { return ReceivePacket(fd, iov, count, take, cut); });
        if (result != IoResult::Ok)
            return result;
        offset += take;
    }
    return IoResult::Ok;
}

namespace {

bool MakeAddress(const std::string& path, sockaddr_un& address)
{
    if (!FitsSocketAddress(path)) {
        errno = ENAMETOOLONG;
        return false;
    }
    address = sockaddr_un{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

}  // namespace

bool FitsSocketAddress(const std::string& path) { return !path.empty() && path.size() < sizeof(sockaddr_un::sun_path); }

int ConnectSeqpacket(const std::string& path)
{
    sockaddr_un address;
    if (!MakeAddress(path, address))
        return -1;
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    const timeval limit{static_cast<time_t>(kStallLimit.count()), 0};
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    int rc;
    do {
        rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0 || ::fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        const int saved = errno;
        ::close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int BindSeqpacket(const std::string& path)
{
    sockaddr_un address;
    if (!MakeAddress(path, address))
        return -1;
    const int probe = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe < 0)
        return -1;
    const int rc = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    const int probeErrno = errno;
    ::close(probe);
    if (rc == 0 || probeErrno == EAGAIN) {
        errno = EADDRINUSE;
        return -1;
    }
    ::unlink(path.c_str());
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return -1;
    const auto fail = [&](bool bound) {
        const int saved = errno;
        ::close(fd);
        if (bound)
            ::unlink(path.c_str());
        errno = saved;
        return -1;
    };
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        return fail(false);
    // bind gives the mode the umask leaves; nobody can connect before the
    // caller listens, so setting it now is in time.
    if (::chmod(path.c_str(), 0600) != 0)
        return fail(true);
    return fd;
}

}  // namespace nos_host
