// Client side of a channel: one connection and the call exchange over it.
#ifndef NOS_HOST_CLIENT_H
#define NOS_HOST_CLIENT_H

#include "handle_table.h"

#include <nos/transport.h>

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

private:
    const int fd_;
    const std::string channel_;
    const std::string runtimeDir_;
    const std::optional<std::chrono::milliseconds> timeout_;
    const std::optional<uint32_t> acceptedRiid_;

    std::mutex callMutex_;  // guards everything below
    bool broken_ = false;   // a reply may still be on its way: the stream is out of step
    uint32_t sequence_ = 0;
    std::vector<uint8_t> packetBuffer_;
    std::vector<uint8_t> message_;
};

}  // namespace nos_host

#endif
