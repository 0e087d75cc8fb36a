// Host only: SIGTERM and SIGINT end the entity cleanly.
//
// The IPC thread blocks in receive and the server offers no way to end that
// wait from outside. On the first SIGTERM or SIGINT a thread of this object
// asks the server to stop (Server::RequestStop) and then sends one request
// that names no interface to the entity's own channel: the IPC thread
// receives it, answers it, sees the stop and ends, so JoinThreads returns and
// the entity tears down and exits with 0. A signal that arrives before the
// server is armed waits, blocked, until it is.
#pragma once

#include <signal.h>

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace update::verifier::entity {

class SignalStop {
public:
    // Blocks SIGTERM and SIGINT in the calling thread. Construct it before
    // any other thread starts, so that every thread inherits the mask and the
    // waiter alone takes the signals.
    SignalStop() noexcept;
    // Ends the waiter (it no longer calls anything) and joins it. The server
    // must be gone by then: a wake-up request still in flight returns only
    // once the channel is closed.
    ~SignalStop();
    SignalStop(const SignalStop&) = delete;
    SignalStop& operator=(const SignalStop&) = delete;

    // While it lives, a signal calls `requestStop` and wakes the server on
    // `channel`. Destroy it before the server that `requestStop` refers to.
    // Starts the waiting thread: arm a SignalStop once. Throws
    // std::system_error when the thread cannot be started.
    class Armed {
    public:
        Armed(SignalStop& owner, std::function<void()> requestStop, std::string channel) : m_owner(owner)
        {
            m_owner.Arm(std::move(requestStop), std::move(channel));
        }
        ~Armed() { m_owner.Disarm(); }
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;

    private:
        SignalStop& m_owner;
    };

private:
    void Arm(std::function<void()> requestStop, std::string channel);
    void Wait();
    void Disarm() noexcept;

    sigset_t m_signals{};
    bool m_blocked = false;
    std::mutex m_mutex;
    std::function<void()> m_requestStop;  // empty once disarmed
    std::string m_channel;
    bool m_finished = false;  // the destructor runs: the waiter must do nothing
    std::thread m_waiter;
};

}  // namespace update::verifier::entity
