#include "channel.h"

#include "buffers.h"
#include "runtime.h"
#include "wire.h"

#include <nos/log.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <tuple>
#include <unistd.h>

namespace nos_host {
namespace {

// Packets taken from one client in a row, so that a large frame does not
// keep the others waiting.
constexpr int kPacketsPerTurn = 64;
// A client's frame buffer above this size is given back once it is served.
constexpr size_t kKeptPayload = kPacketMax;
// A drop reason that is not logged: a client leaving between requests.
constexpr const char* kSilently = "";

// The earlier of two poll time-outs, -1 being none.
int EarlierTimeout(int a, int b) { return a < 0 ? b : (b < 0 ? a : std::min(a, b)); }

int MsUntil(Clock::time_point when)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(when - Clock::now()).count();
    return static_cast<int>(std::clamp<int64_t>(left, 0, 1 << 30));
}

}  // namespace

ServerChannel::Peer::~Peer() { ::close(fd); }

std::shared_ptr<ServerChannel> ServerChannel::Create(std::string name, std::string runtimeDir, int listenFd,
                                                     std::vector<std::string> files, size_t connectionLimit)
{
    const int wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0)
        return nullptr;
    return std::shared_ptr<ServerChannel>(new ServerChannel(std::move(name), std::move(runtimeDir), listenFd, wakeFd,
                                                            std::move(files), connectionLimit));
}

ServerChannel::ServerChannel(std::string name, std::string runtimeDir, int listenFd, int wakeFd,
                             std::vector<std::string> files, size_t connectionLimit)
    : name_(std::move(name)), runtimeDir_(std::move(runtimeDir)),
      listener_(listenFd >= 0 ? std::make_unique<Listener>(listenFd, "channel \"" + name_ + "\"") : nullptr),
      wakeFd_(wakeFd), files_(std::move(files)), connectionLimit_(connectionLimit)
{
}

ServerChannel::~ServerChannel()
{
    Close();
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
        // Clients still queued for accepting learn at once that nobody serves them.
        if (listener_)
            listener_->Shutdown();
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
        const int admitted = AdmitLocked(fd);
        if (admitted < 0)
            return NK_EAGAIN;
        AddPeerLocked(admitted);
        if (!polling_)
            return NK_EOK;
    }
    Wake();
    return NK_EOK;
}

void ServerChannel::AcceptPendingLocked()
{
    if (!listener_)
        return;
    for (int fd; (fd = listener_->Accept()) >= 0;) {
        if (const int admitted = AdmitLocked(fd); admitted >= 0)
            AddPeerLocked(admitted);
    }
}

int ServerChannel::AdmitLocked(int fd)
{
    const bool full = peers_.size() >= connectionLimit_;
    if (!full && !DescriptorsRunLow(fd))
        return fd;
    if (turnedAway_.Starts())
        HostLog(NOS_LOG_WARNING,
                "channel \"%s\": %s: a new connection takes the place of the oldest client that never sent a "
                "request, or is refused",
                name_.c_str(), full ? "as many clients as it takes" : "few descriptors left");
    // A client that has sent nothing holds a descriptor and nothing else.
    const auto idle = std::find_if(peers_.begin(), peers_.end(), [](const auto& entry) { return !entry.second->sentAny; });
    if (idle == peers_.end()) {
        ::close(fd);  // refused at once: its client's call fails instead of waiting
        return -1;
    }
    DropLocked(idle->first, kSilently);
    // Into the lowest free number, the one just given back: the numbers in
    // use stay packed at the bottom, where DescriptorsRunLow sees them.
    const int packed = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
    if (packed >= 0 && packed < fd) {
        ::close(fd);
        return packed;
    }
    if (packed >= 0)
        ::close(packed);
    return fd;
}

void ServerChannel::AddPeerLocked(int fd)
{
    TuneSocket(fd);
    StampArrivals(fd);
    const uint32_t id = nextPeerId_++;
    peers_.emplace(id, std::make_shared<Peer>(fd, id));
}

void ServerChannel::DropLocked(uint32_t id, const char* reason)
{
    auto it = peers_.find(id);
    if (it == peers_.end())
        return;
    if (reason != nullptr && *reason != '\0')
        HostLog(NOS_LOG_WARNING, "channel \"%s\": client %u dropped: %s", name_.c_str(), id, reason);
    ::shutdown(it->second->fd, SHUT_RDWR);
    peers_.erase(it);
}

const char* ServerChannel::TakeFirstPacketLocked(Peer& peer, uint32_t messageCapacity, size_t arenaCapacity,
                                                 bool& taken)
{
    firstPacket_.resize(kPacketMax);
    size_t length = 0;
    uint64_t stampNs = 0;
    const IoResult result = ReceiveStamped(peer.fd, firstPacket_, length, stampNs);
    if (result == IoResult::TimedOut)
        return nullptr;
    if (result != IoResult::Ok)
        return kSilently;  // a client leaving between calls is no fault
    taken = true;
    peer.sentAny = true;
    const size_t kept = std::min(length, kPacketMax);
    FrameHeader header;
    if (ParseFrameHeader({firstPacket_.data(), kept}, length, header) != FrameVerdict::Ok)
        return "malformed frame";
    if (header.kind != FrameKind::Request)
        return "frame of a kind other than request";
    if (header.messageLength > messageCapacity || header.arenaLength > arenaCapacity)
        return "request larger than the buffers offered";
    peer.header = header;
    // Address space for the whole frame; memory is used as the packets come.
    peer.payload.reserve(FramePayloadLength(header));
    peer.payload.assign(firstPacket_.begin() + kFrameHeaderSize, firstPacket_.begin() + static_cast<ptrdiff_t>(kept));
    peer.started = true;
    peer.whole = peer.payload.size() == FramePayloadLength(header);
    // The kernel's stamp, not the client's "sent at": the order is the
    // server's own. A request sent before the reply to the client's previous
    // one (a client has one outstanding) counts from that reply, so that
    // sending ahead wins no places.
    peer.arrivalNs = std::max(stampNs, peer.answeredNs);
    peer.arrivalCount = ++packetsTaken_;
    peer.deadline = Clock::now() + kFrameDeadline;
    return nullptr;
}

const char* ServerChannel::ReadClientLocked(Peer& peer, uint32_t messageCapacity, size_t arenaCapacity)
{
    for (int turn = 0; turn < kPacketsPerTurn && !peer.whole; ++turn) {
        if (!peer.started) {
            bool taken = false;
            if (const char* reason = TakeFirstPacketLocked(peer, messageCapacity, arenaCapacity, taken))
                return reason;
            if (!taken)
                return nullptr;
            continue;
        }
        const uint64_t total = FramePayloadLength(peer.header);
        const size_t have = peer.payload.size();
        const size_t take = static_cast<size_t>(std::min<uint64_t>(total - have, kPacketMax));
        peer.payload.resize(have + take);
        const IoResult result = ReceiveExact(peer.fd, {peer.payload.data() + have, take}, Clock::now());
        if (result == IoResult::TimedOut) {
            peer.payload.resize(have);
            // Nothing more has come: a frame past its deadline is given up.
            return Clock::now() >= peer.deadline ? "frame not whole 10 s after its first packet" : nullptr;
        }
        if (result != IoResult::Ok)
            return "broken request frame";
        peer.whole = peer.payload.size() == total;
    }
    return nullptr;
}

void ServerChannel::ReadClientsLocked(uint32_t messageCapacity, size_t arenaCapacity)
{
    std::vector<std::pair<uint32_t, const char*>> drops;
    for (const auto& [id, peer] : peers_) {
        if (peer->claimed || peer->whole)
            continue;  // one request at a time: the next stays queued until the reply
        const char* reason = nullptr;
        try {
            reason = ReadClientLocked(*peer, messageCapacity, arenaCapacity);
        } catch (const std::bad_alloc&) {
            reason = "no memory for its frame";  // the others may still fit
        }
        if (reason != nullptr)
            drops.emplace_back(id, reason);
    }
    for (const auto& [id, reason] : drops)
        DropLocked(id, reason);
}

std::shared_ptr<ServerChannel::Peer> ServerChannel::ClaimFirstArrivedLocked(uint32_t messageCapacity,
                                                                            size_t arenaCapacity)
{
    for (;;) {
        std::shared_ptr<Peer> first;
        for (const auto& [id, peer] : peers_) {
            if (peer->claimed || !peer->whole)
                continue;
            if (!first ||
                std::tie(peer->arrivalNs, peer->arrivalCount) < std::tie(first->arrivalNs, first->arrivalCount))
                first = peer;
        }
        if (!first)
            return nullptr;
        // Taken by a thread that offered more than this one.
        if (first->header.messageLength > messageCapacity || first->header.arenaLength > arenaCapacity) {
            DropLocked(first->id, "request larger than the buffers offered");
            continue;
        }
        first->claimed = true;
        return first;
    }
}

std::shared_ptr<ServerChannel::Peer> ServerChannel::WaitAndClaim(uint32_t messageCapacity, size_t arenaCapacity)
{
    std::lock_guard pollLock(pollMutex_);
    std::vector<pollfd> fds;
    std::vector<std::shared_ptr<Peer>> watched;  // keeps the polled descriptors open
    {
        // While every receiving thread was serving, nobody read: that time
        // is not the clients', and their deadlines move on by it.
        std::lock_guard lock(mutex_);
        if (receivingLeftAt_) {
            const auto away = Clock::now() - *receivingLeftAt_;
            for (const auto& [id, peer] : peers_) {
                if (!peer->claimed)
                    peer->deadline += away;
            }
            receivingLeftAt_.reset();
        }
    }
    for (;;) {
        int timeoutMs = -1;
        fds.clear();
        watched.clear();
        {
            std::lock_guard lock(mutex_);
            if (closed_)
                return nullptr;
            ReadClientsLocked(messageCapacity, arenaCapacity);
            AcceptPendingLocked();
            if (auto peer = ClaimFirstArrivedLocked(messageCapacity, arenaCapacity)) {
                receivingLeftAt_ = Clock::now();
                return peer;
            }
            fds.push_back({wakeFd_, POLLIN, 0});
            if (listener_ && listener_->Ready())
                fds.push_back({listener_->Fd(), POLLIN, 0});
            else if (listener_)
                timeoutMs = listener_->PollTimeoutMs();
            for (const auto& [id, peer] : peers_) {
                if (peer->claimed || peer->whole)
                    continue;
                fds.push_back({peer->fd, POLLIN, 0});
                watched.push_back(peer);
                if (peer->started)
                    timeoutMs = EarlierTimeout(timeoutMs, MsUntil(peer->deadline));
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

    const auto peer = WaitAndClaim(messageCapacity, *arenaCapacity);
    if (!peer)
        return NK_EBADF;
    // Claimed: its frame is this thread's alone until the reply.
    const FrameHeader& header = peer->header;
    StoreMessage(request, messageCapacity, {peer->payload.data(), header.messageLength});
    if (header.arenaLength != 0)
        std::memcpy(arena->start, peer->payload.data() + header.messageLength, header.arenaLength);
    if (arena != nullptr)
        arena->current = arena->start + header.arenaLength;
    peer->sequence = header.sequence;
    peer->started = false;
    peer->whole = false;
    if (peer->payload.capacity() > kKeptPayload)
        std::vector<uint8_t>().swap(peer->payload);
    else
        peer->payload.clear();
    std::lock_guard lock(mutex_);
    if (closed_)
        return NK_EBADF;
    t.client = peer->id;
    return NK_EOK;
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
    const IoResult result =
        SendFrame(peer->fd, header, *message, *arenaBytes, Clock::now() + kFrameDeadline, false);
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
        peer->answeredNs = RealtimeNs();
        peer->claimed = false;
        if (!polling_)
            return NK_EOK;
    }
    Wake();  // the polling thread does not watch this client yet
    return NK_EOK;
}

}  // namespace nos_host
