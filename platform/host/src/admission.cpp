#include "admission.h"

#include "runtime.h"

#include <nos/log.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <map>
#include <mutex>
#include <set>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

namespace nos_host {
namespace {

struct Settings {
    std::mutex mutex;
    std::set<uid_t> allowedUids;
    std::map<std::string, size_t, std::less<>> limits;
};

Settings& TheSettings()
{
    static auto* settings = new Settings;  // never destroyed, like the handle table
    return *settings;
}

bool MayConnect(uid_t uid)
{
    if (uid == ::geteuid())
        return true;
    Settings& settings = TheSettings();
    std::lock_guard lock(settings.mutex);
    return settings.allowedUids.contains(uid);
}

}  // namespace

bool AllowUidText(std::string_view text)
{
    uint32_t uid = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), uid);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() || uid == UINT32_MAX)
        return false;
    Settings& settings = TheSettings();
    std::lock_guard lock(settings.mutex);
    settings.allowedUids.insert(static_cast<uid_t>(uid));
    return true;
}

void SetConnectionLimit(const std::string& channel, size_t limit)
{
    Settings& settings = TheSettings();
    std::lock_guard lock(settings.mutex);
    settings.limits[channel] = limit;
}

size_t ConnectionLimitOf(const std::string& channel)
{
    Settings& settings = TheSettings();
    std::lock_guard lock(settings.mutex);
    const auto it = settings.limits.find(channel);
    return it == settings.limits.end() ? kDefaultConnectionLimit : it->second;
}

bool DescriptorsRunLow(int fd)
{
    rlimit limit {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return false;
    return static_cast<rlim_t>(fd) + kDescriptorReserve >= limit.rlim_cur;
}

Listener::Listener(int fd, std::string what) : fd_(fd), what_(std::move(what)) {}

Listener::~Listener() { ::close(fd_); }

int Listener::Accept()
{
    while (Ready()) {
        const int fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED)
                continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK)
                return -1;
            // The connection stays queued; taking it again at once would
            // fail the same way and spin.
            if (failures_.Starts())
                HostLog(NOS_LOG_WARNING, "%s: accept failed: %s; accepting rests %d ms at a time until it works",
                        what_.c_str(), std::strerror(errno), static_cast<int>(kAcceptPause.count()));
            restsUntil_ = Clock::now() + kAcceptPause;
            return -1;
        }
        ucred peer {};
        socklen_t size = sizeof peer;
        const bool known = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0;
        if (known && MayConnect(peer.uid))
            return fd;
        if (!known && strangers_.Starts())
            HostLog(NOS_LOG_WARNING, "%s: connection refused: no peer credentials: %s", what_.c_str(),
                    std::strerror(errno));
        else if (known && strangers_.Starts())
            HostLog(NOS_LOG_WARNING, "%s: connection of uid %u (pid %d) refused: not this process's user nor allowed",
                    what_.c_str(), static_cast<unsigned>(peer.uid), static_cast<int>(peer.pid));
        ::close(fd);
    }
    return -1;
}

bool Listener::Ready() const { return Clock::now() >= restsUntil_; }

int Listener::PollTimeoutMs() const
{
    if (Ready())
        return -1;
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(restsUntil_ - Clock::now()).count());
}

void Listener::Shutdown()
{
    ::shutdown(fd_, SHUT_RDWR);
    for (int fd; (fd = ::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;)
        ::close(fd);
}

}  // namespace nos_host
