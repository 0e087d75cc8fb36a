#include "signal_stop.h"

#include <pthread.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>

#include <nos/platform.h>

#include "verifier_api/messages.h"

namespace update::verifier::entity {
namespace {
// An interface index the component does not route: the request reaches the
// IPC thread, changes nothing and is answered at once.
constexpr std::uint16_t kNoInterface = 0xFFFF;

void WakeServer(const std::string& channel) noexcept
{
    const Handle handle = ServiceLocatorConnect(channel.c_str());
    if (handle == INVALID_HANDLE)
        return;  // nobody serves the channel any more: nothing to wake
    NkNosTransport transport{};
    if (NkNosTransport_Init(&transport, handle, nullptr, 0) == NK_EOK) {
        nk_message request{};
        request.riid = kNoInterface;
        nk_msg_set_size(&request, sizeof(request));
        nv_IVerifier_Verify_res reply{};
        nk_msg_set_size(&reply.base_, sizeof(reply));
        // Answered, or NK_EPIPE once the server has closed the channel.
        (void)transport.ops->call(&transport, &request, nullptr, &reply.base_, nullptr);
    }
    (void)KnHandleClose(handle);
}
}  // namespace

SignalStop::SignalStop() noexcept
{
    sigemptyset(&m_signals);
    sigaddset(&m_signals, SIGTERM);
    sigaddset(&m_signals, SIGINT);
    const int error = pthread_sigmask(SIG_BLOCK, &m_signals, nullptr);
    m_blocked = error == 0;
    if (!m_blocked)
        std::fprintf(stderr, "verifier: cannot block SIGTERM and SIGINT (%s); they end the process at once\n",
                     std::strerror(error));
}

SignalStop::~SignalStop()
{
    {
        std::lock_guard lock(m_mutex);
        m_finished = true;
        m_requestStop = nullptr;
    }
    if (!m_waiter.joinable())
        return;
    // Wakes a waiter that is still in sigwait; one that took a signal
    // already ignores this one.
    (void)pthread_kill(m_waiter.native_handle(), SIGTERM);
    m_waiter.join();
}

void SignalStop::Arm(std::function<void()> requestStop, std::string channel)
{
    {
        std::lock_guard lock(m_mutex);
        m_requestStop = std::move(requestStop);
        m_channel = std::move(channel);
    }
    if (m_blocked)
        m_waiter = std::thread(&SignalStop::Wait, this);
}

void SignalStop::Disarm() noexcept
{
    std::lock_guard lock(m_mutex);
    m_requestStop = nullptr;
}

void SignalStop::Wait()
{
    int signal = 0;
    (void)sigwait(&m_signals, &signal);
    std::string channel;
    {
        // Under the lock, so that the server cannot be disarmed and
        // destroyed while it is being asked to stop.
        std::lock_guard lock(m_mutex);
        if (m_finished || !m_requestStop)
            return;
        m_requestStop();
        m_requestStop = nullptr;
        channel = m_channel;
    }
    WakeServer(channel);
}

}  // namespace update::verifier::entity
