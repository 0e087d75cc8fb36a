// Server side of a channel: the connections of its clients and the
// receive/reply exchange over them.
#ifndef NOS_HOST_CHANNEL_H
#define NOS_HOST_CHANNEL_H

#include "handle_table.h"

#include <nos/transport.h>

#include <chrono>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace nos_host {

class ServerChannel final : public HandleObject {
public:
    // `listenFd` is a listening SOCK_SEQPACKET socket, or -1 for a channel
    // fed only by AddConnection. `files` are removed when the channel closes.
    // Null when the channel's wake-up object cannot be made.
    static std::shared_ptr<ServerChannel> Create(std::string name, std::string runtimeDir, int listenFd,
                                                 std::vector<std::string> files);
    ~ServerChannel() override;
    ServerChannel(const ServerChannel&) = delete;
    ServerChannel& operator=(const ServerChannel&) = delete;

    const std::string& Name() const { return name_; }
    const std::string& RuntimeDir() const { return runtimeDir_; }

    // Takes the earliest-sent request of any client whose request is not
    // being served. Clients that send something malformed or too large for
    // the buffers offered, or that leave mid-frame, are dropped and receiving
    // goes on. NK_EBADF once the channel is closed.
    Retcode Receive(NkNosTransport& t, nk_message* request, nk_arena* arena);
    // Answers the client of the transport's last receive. NK_EAGAIN when that
    // client is gone or does not take the reply; NK_EBADF when the channel
    // closed before the reply went out (not when it closed after).
    Retcode Reply(NkNosTransport& t, const nk_message* response, const nk_arena* arena);
    // Adds a connected socket (ownership passes) as one more client.
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
        bool claimed = false;   // a transport is serving its request
        uint32_t sequence = 0;  // of the request being served
    };

    ServerChannel(std::string name, std::string runtimeDir, int listenFd, int wakeFd, std::vector<std::string> files);

    // Under mutex_.
    void AcceptPendingLocked();
    // Closes a client's connection; a non-null `reason` is logged as a warning.
    void DropLocked(uint32_t id, const char* reason);
    std::shared_ptr<Peer> ClaimEarliestLocked(uint32_t messageCapacity, size_t arenaCapacity);
    void Wake();
    void DrainWake();

    // Waits for a request and claims its client; null once closed.
    std::shared_ptr<Peer> WaitAndClaim(uint32_t messageCapacity, size_t arenaCapacity);

    const std::string name_;
    const std::string runtimeDir_;
    const int listenFd_;
    const int wakeFd_;
    const std::vector<std::string> files_;

    std::mutex pollMutex_;  // one receiving thread polls at a time
    std::mutex mutex_;      // guards everything below
    bool closed_ = false;
    bool polling_ = false;  // a receiving thread sleeps in poll and must be woken for changes
    std::map<uint32_t, std::shared_ptr<Peer>> peers_;
    uint32_t nextPeerId_ = 1;
    std::chrono::steady_clock::time_point acceptPausedUntil_{};
};

}  // namespace nos_host

#endif
