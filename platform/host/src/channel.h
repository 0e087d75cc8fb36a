// Server side of a channel: the connections of its clients and the
// receive/reply exchange over them.
#ifndef NOS_HOST_CHANNEL_H
#define NOS_HOST_CHANNEL_H

#include "admission.h"
#include "handle_table.h"

#include <nos/transport.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace nos_host {

class ServerChannel final : public HandleObject {
public:
    // `listenFd` is a listening SOCK_SEQPACKET socket, or -1 for a channel
    // fed only by AddConnection. `files` are removed when the channel closes.
    // `connectionLimit` bounds the clients connected at once. Null when the
    // channel's wake-up object cannot be made.
    static std::shared_ptr<ServerChannel> Create(std::string name, std::string runtimeDir, int listenFd,
                                                 std::vector<std::string> files, size_t connectionLimit);
    ~ServerChannel() override;
    ServerChannel(const ServerChannel&) = delete;
    ServerChannel& operator=(const ServerChannel&) = delete;

    const std::string& Name() const { return name_; }
    const std::string& RuntimeDir() const { return runtimeDir_; }

    // Takes the whole request that arrived first, of any client whose
    // request is not being served. Frames are put together per client as
    // their packets come; a client whose frame is malformed, too large for
    // the buffers offered, not a request, cut off or not whole within
    // kFrameDeadline of its first packet is dropped and receiving goes on.
    // NK_EBADF once the channel is closed.
    Retcode Receive(NkNosTransport& t, nk_message* request, nk_arena* arena);
    // Answers the client of the transport's last receive. NK_EAGAIN when that
    // client is gone or does not take the reply within kFrameDeadline;
    // NK_EBADF when the channel closed before the reply went out (not when it
    // closed after).
    Retcode Reply(NkNosTransport& t, const nk_message* response, const nk_arena* arena);
    // Adds a connected socket (ownership passes) as one more client.
    // NK_EAGAIN (the socket closed) when the channel has no room for it.
    Retcode AddConnection(int fd);

    void Close() override;

private:
    struct Peer {
        explicit Peer(int f, uint32_t i) : fd(f), id(i) {}
        ~Peer();
        Peer(const Peer&) = delete;
        Peer& operator=(const Peer&) = delete;
        const int fd;
        const uint32_t id;
        bool claimed = false;     // a transport is serving its request
        bool sentAny = false;     // it has begun a frame: never closed to make room
        uint32_t sequence = 0;    // of the request being served
        uint64_t answeredNs = 0;  // CLOCK_REALTIME when its last reply went out

        // The frame being put together: under mutex_ while the client is not
        // claimed, then the serving thread's alone until the reply.
        FrameHeader header;
        std::vector<uint8_t> payload;  // message then arena bytes, as far as they came
        bool started = false;          // its first packet is in
        bool whole = false;            // every packet is in
        uint64_t arrivalNs = 0;        // the order of whole frames: see TakeFirstPacketLocked
        uint64_t arrivalCount = 0;     // ties of arrivalNs: the order the packets were taken
        Clock::time_point deadline{};
    };

    ServerChannel(std::string name, std::string runtimeDir, int listenFd, int wakeFd, std::vector<std::string> files,
                  size_t connectionLimit);

    // Under mutex_.
    void AcceptPendingLocked();
    // The descriptor to keep for the new connection `fd`, after closing the
    // oldest client that never sent anything when the channel is full or the
    // process short of descriptors; -1 (`fd` closed) when there is no room.
    // One warning per burst of such connections.
    int AdmitLocked(int fd);
    void AddPeerLocked(int fd);
    // Closes a client's connection; a non-null `reason` is logged as a warning.
    void DropLocked(uint32_t id, const char* reason);
    // Takes what the clients sent, drops those whose frames broke or are late.
    void ReadClientsLocked(uint32_t messageCapacity, size_t arenaCapacity);
    // Null, or why the client is to be dropped (an empty text: silently).
    const char* ReadClientLocked(Peer& peer, uint32_t messageCapacity, size_t arenaCapacity);
    const char* TakeFirstPacketLocked(Peer& peer, uint32_t messageCapacity, size_t arenaCapacity, bool& taken);
    std::shared_ptr<Peer> ClaimFirstArrivedLocked(uint32_t messageCapacity, size_t arenaCapacity);
    void Wake();
    void DrainWake();

    // Waits for a whole request and claims its client; null once closed.
    std::shared_ptr<Peer> WaitAndClaim(uint32_t messageCapacity, size_t arenaCapacity);

    const std::string name_;
    const std::string runtimeDir_;
    const std::unique_ptr<Listener> listener_;  // null for a channel fed by AddConnection
    const int wakeFd_;
    const std::vector<std::string> files_;
    const size_t connectionLimit_;

    std::mutex pollMutex_;  // one receiving thread polls at a time
    std::mutex mutex_;      // guards everything below
    bool closed_ = false;
    bool polling_ = false;  // a receiving thread sleeps in poll and must be woken for changes
    Burst turnedAway_;      // connections that found the channel full
    std::map<uint32_t, std::shared_ptr<Peer>> peers_;
    uint32_t nextPeerId_ = 1;
    uint64_t packetsTaken_ = 0;
    std::optional<Clock::time_point> receivingLeftAt_;  // since then no thread has polled
    std::vector<uint8_t> firstPacket_;
};

}  // namespace nos_host

#endif
