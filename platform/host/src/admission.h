// Who may connect to the sockets of this process, and how many may stay
// connected: the peer-credential check, the connection limit of a channel,
// the descriptors kept free for the process's own work, and the accepting
// of connections off a listening socket.
#ifndef NOS_HOST_ADMISSION_H
#define NOS_HOST_ADMISSION_H

#include "wire.h"

#include <nos/types.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace nos_host {

// Connections a channel holds at most, unless NosHostSetConnectionLimit set
// another number for its name.
inline constexpr size_t kDefaultConnectionLimit = 64;
// Descriptors below the process's limit that connections never take, so
// that the process can still open files and connect to its peers.
inline constexpr int kDescriptorReserve = 16;
// After a failed accept (a descriptor limit), a listening socket rests this long.
inline constexpr std::chrono::milliseconds kAcceptPause{100};

// Events of one kind closer together than this make one burst, with one
// warning.
inline constexpr std::chrono::seconds kBurstGap{10};

// Tells which event of a kind starts a burst, so that a flood of them is
// logged once and not once per event.
class Burst {
public:
    // True when the last event was more than kBurstGap ago (or there was none).
    bool Starts()
    {
        const auto now = Clock::now();
        const bool starts = !last_ || now - *last_ > kBurstGap;
        last_ = now;
        return starts;
    }

private:
    std::optional<Clock::time_point> last_;
};

// Parses a decimal uid (0 to 4294967294) and lets processes of that uid
// connect, besides those of this process's own effective uid; false for
// other text.
bool AllowUidText(std::string_view text);

void SetConnectionLimit(const std::string& channel, size_t limit);
size_t ConnectionLimitOf(const std::string& channel);

// Whether `fd`, the newest descriptor the process was given, lies within
// kDescriptorReserve of the limit: the kernel hands out the lowest free
// number, so every number below it is taken.
bool DescriptorsRunLow(int fd);

// The accepting side of a listening socket. A connection whose peer runs
// under a uid that may not connect is closed at once, with one warning per
// burst of them. When
// accepting fails (EMFILE, ENFILE, ENOMEM), the socket rests for
// kAcceptPause: callers leave it out of their poll set meanwhile, and wake
// after at most PollTimeoutMs. One warning per burst of failures.
class Listener {
public:
    // Takes ownership of the listening socket `fd`; `what` names its owner
    // in log lines ("channel \"verifier\"").
    Listener(int fd, std::string what);
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    int Fd() const { return fd_; }
    // The next waiting connection that may come in (non-blocking,
    // close-on-exec); -1 when none is waiting or the socket rests.
    int Accept();
    // Whether the socket belongs in a poll set now.
    bool Ready() const;
    // How long a poll may sleep so as not to oversleep the rest: -1 none.
    int PollTimeoutMs() const;
    // Refuses every waiting connection, for a closing owner.
    void Shutdown();

private:
    const int fd_;
    const std::string what_;
    Clock::time_point restsUntil_{};
    Burst failures_;
    Burst strangers_;  // connections of users that may not connect
};

}  // namespace nos_host

#endif
