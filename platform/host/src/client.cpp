#include "client.h"

#include "buffers.h"
#include "wire.h"

#include <sys/socket.h>
#include <unistd.h>

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
    if (broken_)
        return NK_EPIPE;
    const Deadline deadline = DeadlineAfter(timeout_);
    FrameHeader header;
    header.kind = FrameKind::Request;
    header.sequence = ++sequence_;
    const auto fail = [this](IoResult result) {
        broken_ = true;
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

}  // namespace nos_host
