#include "channel.h"

#include "buffers.h"
#include "runtime.h"
#include "wire.h"

#include <nos/log.h>

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nos_host {
namespace {

// After a failed accept (descriptor limit), new connections wait this long.
constexpr std::chrono::milliseconds kAcceptPause{100};

}  // namespace

ServerChannel::Peer::~Peer() { ::close(fd); }

std::shared_ptr<ServerChannel> ServerChannel::Create(std::string name, std::string runtimeDir, int listenFd,
                                                     std::vector<std::string> files)
{
    const int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0)
        return nullptr;
    return std::shared_ptr<ServerChannel>(
        new ServerChannel(std::move(name), std::move(runtimeDir), listenFd, wakeFd, std::move(files)));
}

ServerChannel::ServerChannel(std::string name, std::string runtimeDir, int listenFd, int wakeFd,
                             std::vector<std::string> files)
    : name_(std::move(name)), runtimeDir_(std::move(runtimeDir)), listenFd_(listenFd), wakeFd_(wakeFd),
      files_(std::move(files))
{
}

ServerChannel::~ServerChannel()
{
    Close();
    if (listenFd_ >= 0)
        ::close(listenFd_);
    ::close(wakeFd_);
}

void ServerChannel::Close()
{
    std::map<uint32_t, std::shared_ptr<Peer>> peers;
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return;
        closed_ = true;
        for (const auto& file : files_)
            ::unlink(file.c_str());
        if (listenFd_ >= 0) {
            // Clients still queued for accepting learn at once that nobody serves them.
            ::shutdown(listenFd_, SHUT_RDWR);
            for (int fd; (fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
                ::close(fd);
        }
        peers.swap(peers_);
        // A peer being served by another thread is closed by that thread; the
        // shutdown ends its exchange at once.
        for (const auto& [id, peer] : peers)
            ::shutdown(peer->fd, SHUT_RDWR);
    }
    Wake();
}

void ServerChannel::Wake()
{
    const uint64_t one = 1;
    (void)!::write(wakeFd_, &one, sizeof one);
}

void ServerChannel::DrainWake()
{
    uint64_t count = 0;
    (void)!::read(wakeFd_, &count, sizeof count);
}

Retcode ServerChannel::AddConnection(int fd)
{
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            ::close(fd);
            return NK_EBADF;
        }
        TuneSocket(fd);
        const uint32_t id = nextPeerId_++;
        peers_.emplace(id, std::make_shared<Peer>(fd, id));
        if (!polling_)
            return NK_EOK;
    }
    Wake();
    return NK_EOK;
}

void ServerChannel::AcceptPendingLocked()
{
    if (listenFd_ < 0 || std::chrono::steady_clock::now() < acceptPausedUntil_)
        return;
    for (;;) {
        const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) {
                HostLog(NOS_LOG_WARNING, "channel \"%s\": accept failed: %s", name_.c_str(), std::strerror(errno));
                acceptPausedUntil_ = std::chrono::steady_clock::now() + kAcceptPause;
            }
            return;
        }
        TuneSocket(fd);
        const uint32_t id = nextPeerId_++;
        peers_.emplace(id, std::make_shared<Peer>(fd, id));
    }
}

void ServerChannel::DropLocked(uint32_t id, const char* reason)
{
    auto it = peers_.find(id);
    if (it == peers_.end())
        return;
    if (reason != nullptr)
        HostLog(NOS_LOG_WARNING, "channel \"%s\": client %u dropped: %s", name_.c_str(), id, reason);
    ::shutdown(it->second->fd, SHUT_RDWR);
    peers_.erase(it);
}

std::shared_ptr<ServerChannel::Peer> ServerChannel::ClaimEarliestLocked(uint32_t messageCapacity, size_t arenaCapacity)
{
    std::shared_ptr<Peer> best;
    uint64_t bestSent = 0;
    std::vector<std::pair<uint32_t, const char*>> bad;
    for (const auto& [id, peer] : peers_) {
        if (peer->claimed)
            continue;
        FrameHeader header;
        switch (PeekFrameHeader(peer->fd, header)) {
        case PeekResult::Empty:
            continue;
        case PeekResult::Closed:
            bad.emplace_back(id, nullptr);  // a client leaving between calls is no fault
            continue;
        case PeekResult::Malformed:
            bad.emplace_back(id, "malformed frame");
            continue;
        case PeekResult::Frame:
            break;
        }
        if (header.kind != FrameKind::Request) {
            bad.emplace_back(id, "frame of a kind other than request");
        } else if (header.messageLength > messageCapacity || header.arenaLength > arenaCapacity) {
            bad.emplace_back(id, "request larger than the buffers offered");
        } else if (!best || header.sentNs < bestSent) {
            best = peer;
            bestSent = header.sentNs;
        }
    }
    for (const auto& [id, reason] : bad)
        DropLocked(id, reason);
    if (best)
        best->claimed = true;
    return best;
}

std::shared_ptr<ServerChannel::Peer> ServerChannel::WaitAndClaim(uint32_t messageCapacity, size_t arenaCapacity)
{
    std::lock_guard pollLock(pollMutex_);
    std::vector<pollfd> fds;
    std::vector<std::shared_ptr<Peer>> watched;  // keeps the polled descriptors open
    for (;;) {
        int timeoutMs = -1;
        fds.clear();
        watched.clear();
        {
            std::lock_guard lock(mutex_);
            if (closed_)
                return nullptr;
            AcceptPendingLocked();
            if (auto peer = ClaimEarliestLocked(messageCapacity, arenaCapacity))
                return peer;
            fds.push_back({wakeFd_, POLLIN, 0});
            if (listenFd_ >= 0 && std::chrono::steady_clock::now() >= acceptPausedUntil_)
                fds.push_back({listenFd_, POLLIN, 0});
            else if (listenFd_ >= 0)
                timeoutMs = static_cast<int>(kAcceptPause.count());
            for (const auto& [id, peer] : peers_) {
                if (!peer->claimed) {
                    fds.push_back({peer->fd, POLLIN, 0});
                    watched.push_back(peer);
                }
            }
            polling_ = true;
        }
        const int polled = ::poll(fds.data(), fds.size(), timeoutMs);
        const int pollErrno = errno;
        {
            std::lock_guard lock(mutex_);
            polling_ = false;
        }
        if (polled < 0 && pollErrno != EINTR) {
            HostLog(NOS_LOG_ERROR, "channel \"%s\": poll failed: %s", name_.c_str(), std::strerror(pollErrno));
            return nullptr;
        }
        if (fds[0].revents != 0)
            DrainWake();
    }
}

Retcode ServerChannel::Receive(NkNosTransport& t, nk_message* request, nk_arena* arena)
{
    const auto arenaCapacity = OfferedArena(arena);
    if (request == nullptr || nk_msg_size(request) < sizeof(nk_message) || !arenaCapacity)
        return NK_EINVAL;
    const uint32_t messageCapacity = nk_msg_size(request);

    if (t.client != 0) {
        // The previous request was never answered: its client would wait forever.
        std::lock_guard lock(mutex_);
        DropLocked(t.client, "request left without a reply");
        t.client = 0;
    }

    thread_local std::vector<uint8_t> packetBuffer;
    thread_local std::vector<uint8_t> message;
    for (;;) {
        const auto peer = WaitAndClaim(messageCapacity, *arenaCapacity);
        if (!peer)
            return NK_EBADF;
        FrameHeader header;
        std::span<const uint8_t> packet;
        IoResult result = ReadFirstPacket(peer->fd, packetBuffer, packet, header, Clock::now() + kStallLimit);
        if (result == IoResult::Ok) {
            message.resize(header.messageLength);
            result = ReadRestOfFrame(peer->fd, header, packet, message,
                                     {arena ? arena->start : nullptr, header.arenaLength}, false, std::nullopt);
        }
        std::lock_guard lock(mutex_);
        if (result != IoResult::Ok || closed_) {
            DropLocked(peer->id, result == IoResult::Ok ? "channel closed" : "broken request frame");
            if (closed_)
                return NK_EBADF;
            continue;
        }
        StoreMessage(request, messageCapacity, message);
        if (arena != nullptr)
            arena->current = arena->start + header.arenaLength;
        peer->sequence = header.sequence;
        t.client = peer->id;
        return NK_EOK;
    }
}

Retcode ServerChannel::Reply(NkNosTransport& t, const nk_message* response, const nk_arena* arena)
{
    const auto message = MessageToSend(response);
    const auto arenaBytes = ArenaToSend(arena);
    if (!message || !arenaBytes)
        return NK_EINVAL;
    if (arenaBytes->size() > kArenaMax)
        return NK_E2BIG;
    std::shared_ptr<Peer> peer;
    FrameHeader header;
    header.kind = FrameKind::Reply;
    {
        std::lock_guard lock(mutex_);
        if (closed_)
            return NK_EBADF;
        if (t.client == 0)
            return NK_EINVAL;
        auto it = peers_.find(t.client);
        if (it == peers_.end() || !it->second->claimed) {
            t.client = 0;
            return NK_EAGAIN;
        }
        peer = it->second;
        header.sequence = peer->sequence;
    }
    const IoResult result = SendFrame(peer->fd, header, *message, *arenaBytes, std::nullopt, true);
    t.client = 0;
    {
        std::lock_guard lock(mutex_);
        // A reply that reached its client is delivered even when the channel
        // closed meanwhile; one that did not may have failed for the closing.
        if (closed_)
            return result == IoResult::Ok ? NK_EOK : NK_EBADF;
        if (result != IoResult::Ok) {
            DropLocked(peer->id, result == IoResult::Closed ? "gone before the reply" : "did not take the reply");
            return NK_EAGAIN;
        }
        peer->claimed = false;
        if (!polling_)
            return NK_EOK;
    }
    Wake();  // the polling thread does not watch this client yet
    return NK_EOK;
}

}  // namespace nos_host
