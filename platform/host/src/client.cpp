#include "client.h"

#include "buffers.h"
#include "wire.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <unordered_map>
#include <utility>

#include "endpoints.h"
#include "runtime.h"

namespace nos_host {

ClientConnection::ClientConnection(int fd, std::string channel, std::string runtimeDir,
                                   std::optional<std::chrono::milliseconds> timeout,
                                   std::optional<uint32_t> acceptedRiid)
    : fd_(fd), channel_(std::move(channel)), runtimeDir_(std::move(runtimeDir)), timeout_(timeout),
      acceptedRiid_(acceptedRiid)
{
    TuneSocket(fd_);
}

ClientConnection::~ClientConnection() { ::close(fd_); }

void ClientConnection::Close()
{
    // Ends a call in progress at once; the descriptor is closed with the object.
    ::shutdown(fd_, SHUT_RDWR);
}

bool ClientConnection::Usable() const
{
    if (broken_.load())
        return false;
    pollfd p{fd_, POLLRDHUP, 0};
    if (::poll(&p, 1, 0) < 0)
        return false;
    return (p.revents & (POLLHUP | POLLRDHUP | POLLERR | POLLNVAL)) == 0;
}

Retcode ClientConnection::Call(const nk_message* request, const nk_arena* requestArena, nk_message* response,
                               nk_arena* responseArena)
{
    const auto message = MessageToSend(request);
    const auto arena = ArenaToSend(requestArena);
    const auto offeredArena = OfferedArena(responseArena);
    if (!message || !arena || !offeredArena || response == nullptr || nk_msg_size(response) < sizeof(nk_message))
        return NK_EINVAL;
    if (arena->size() > kArenaMax)
        return NK_E2BIG;
    const uint32_t offeredMessage = nk_msg_size(response);

    std::lock_guard lock(callMutex_);
    if (broken_.load())
        return NK_EPIPE;
    const Deadline deadline = DeadlineAfter(timeout_);
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.sequence = ++sequence_;
    const auto fail = [this](IoResult result) {
        broken_.store(true);
        switch (result) {
        case IoResult::TimedOut: return NK_ETIMEDOUT;
        case IoResult::Malformed:
        case IoResult::Stalled: return NK_EPROTO;
        default: return NK_EPIPE;
        }
    };

    IoResult result = SendFrame(fd_, header, *message, *arena, deadline, false);
    if (result != IoResult::Ok)
        return fail(result);
    FrameHeader reply;
    std::span<const uint8_t> packet;
    result = ReadFirstPacket(fd_, packetBuffer_, packet, reply, deadline);
    if (result != IoResult::Ok)
        return fail(result);
    if (reply.kind != FrameKind::Reply || reply.sequence != header.sequence)
        return fail(IoResult::Malformed);
    if (reply.messageLength > offeredMessage || reply.arenaLength > *offeredArena) {
        // Take the whole reply off the connection so that it stays in step.
        result = ReadRestOfFrame(fd_, reply, packet, {}, {}, true, deadline);
        return result == IoResult::Ok ? NK_E2BIG : fail(result);
    }
    message_.resize(reply.messageLength);
    result = ReadRestOfFrame(fd_, reply, packet, message_,
                             {responseArena ? responseArena->start : nullptr, reply.arenaLength}, false, deadline);
    if (result != IoResult::Ok)
        return fail(result);
    StoreMessage(response, offeredMessage, message_);
    if (responseArena != nullptr)
        responseArena->current = responseArena->start + reply.arenaLength;
    return NK_EOK;
}

namespace {

class SharedClients {
public:
    Handle Connect(const std::string& runtimeDir, const std::string& channel)
    {
        std::lock_guard lock(mutex_);
        const auto key = std::make_pair(runtimeDir, channel);
        if (const auto it = current_.find(key); it != current_.end()) {
            const auto live = HandleTable::Process().GetAs<ClientConnection>(it->second);
            if (live && live->Usable()) {
                ++users_[it->second];
                return it->second;
            }
            // The old handle stays with its users, who see their calls fail
            // and close it; new users get a new connection.
            current_.erase(it);
        }
        const int fd = ConnectSeqpacket(ChannelSocketPath(runtimeDir, channel));
        if (fd < 0)
            return INVALID_HANDLE;
        auto connection =
            std::make_shared<ClientConnection>(fd, channel, runtimeDir, CallTimeoutFor(channel), std::nullopt);
        const Handle handle = HandleTable::Process().Add(std::move(connection));
        if (handle == INVALID_HANDLE)
            return INVALID_HANDLE;
        current_.emplace(key, handle);
        users_[handle] = 1;
        return handle;
    }

    bool Release(Handle handle)
    {
        std::lock_guard lock(mutex_);
        const auto it = users_.find(handle);
        if (it == users_.end())
            return true;
        if (--it->second > 0)
            return false;
        users_.erase(it);
        std::erase_if(current_, [handle](const auto& entry) { return entry.second == handle; });
        return true;
    }

    static SharedClients& Process()
    {
        // Never destroyed, like the handle table.
        static auto* clients = new SharedClients;
        return *clients;
    }

private:
    std::mutex mutex_;
    std::map<std::pair<std::string, std::string>, Handle> current_;
    std::unordered_map<Handle, unsigned> users_;
};

}  // namespace

Handle ConnectSharedClient(const std::string& runtimeDir, const std::string& channel)
{
    return SharedClients::Process().Connect(runtimeDir, channel);
}

bool ReleaseSharedClient(Handle handle) { return SharedClients::Process().Release(handle); }

}  // namespace nos_host
