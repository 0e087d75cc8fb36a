// Client side of a channel: one connection and the call exchange over it.
#ifndef NOS_HOST_CLIENT_H
#define NOS_HOST_CLIENT_H

#include "handle_table.h"

#include <nos/transport.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace nos_host {

class ClientConnection final : public HandleObject {
public:
    // Takes ownership of the connected socket `fd`. `channel` is the name the
    // connection was made to, `runtimeDir` where its endpoint table lies;
    // `timeout` bounds each call (none: wait for ever). `acceptedRiid` is the
    // riid a connection manager chose for the service `channel`.
    ClientConnection(int fd, std::string channel, std::string runtimeDir,
                     std::optional<std::chrono::milliseconds> timeout, std::optional<uint32_t> acceptedRiid);
    ~ClientConnection() override;
    ClientConnection(const ClientConnection&) = delete;
    ClientConnection& operator=(const ClientConnection&) = delete;

    const std::string& Channel() const { return channel_; }
    const std::string& RuntimeDir() const { return runtimeDir_; }
    std::optional<uint32_t> AcceptedRiid() const { return acceptedRiid_; }

    // Sends the request and waits for its reply. Calls on one connection are
    // made one at a time. On failure the reply message and the reply arena's
    // pointers are left as they were.
    Retcode Call(const nk_message* request, const nk_arena* requestArena, nk_message* response,
                 nk_arena* responseArena);

    void Close() override;

    // False once a call failed for good or the peer closed its end: a new
    // connection is needed to go on.
    bool Usable() const;

private:
    const int fd_;
    const std::string channel_;
    const std::string runtimeDir_;
    const std::optional<std::chrono::milliseconds> timeout_;
    const std::optional<uint32_t> acceptedRiid_;

    // Set under callMutex_; read without it by Usable().
    std::atomic<bool> broken_{false};  // a reply may still be on its way: the stream is out of step
    std::mutex callMutex_;             // guards everything below
    uint32_t sequence_ = 0;
    std::vector<uint8_t> packetBuffer_;
    std::vector<uint8_t> message_;
};

// The connection of this process to a channel, shared by every
// ServiceLocatorConnect of the same name in the same runtime directory, as
// a service-locator channel is one fixed channel on the device. Each connect
// counts one user of the handle; it is made anew once it is not Usable().
Handle ConnectSharedClient(const std::string& runtimeDir, const std::string& channel);

// Counts one user of `handle` off. False while other users of a shared
// connection remain (the handle must stay open); true when the handle is not
// shared or this was its last user.
bool ReleaseSharedClient(Handle handle);

}  // namespace nos_host

#endif
