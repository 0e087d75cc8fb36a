#include "runtime.h"

#include <nos/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nos_host {
namespace {

bool MakeDirectories(const std::string& dir)
{
    std::string prefix;
    size_t pos = 0;
    while (pos != std::string::npos) {
        pos = dir.find('/', pos + 1);
        prefix = dir.substr(0, pos);
        if (prefix.empty())
            continue;
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
    }
    return true;
}

}  // namespace

std::string RuntimeDirFromEnvironment()
{
    const char* configured = std::getenv("NOS_RUNTIME_DIR");
    if (configured != nullptr && *configured != '\0')
        return configured;
    const char* tmp = std::getenv("TMPDIR");
    std::string base = (tmp != nullptr && *tmp != '\0') ? tmp : "/tmp";
    while (base.size() > 1 && base.back() == '/')
        base.pop_back();
    return base + "/nos-" + std::to_string(::getuid());
}

Retcode EnsureRuntimeDir(const std::string& dir, bool privateToUser)
{
    if (dir.empty() || !MakeDirectories(dir)) {
        HostLog(NOS_LOG_ERROR, "cannot create the runtime directory \"%s\": %s", dir.c_str(), std::strerror(errno));
        return NK_EINVAL;
    }
    // Without trailing slashes, which would have lstat follow a link.
    std::string path = dir;
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    struct stat st {};
    char fault[160] = "";
    if (::lstat(path.c_str(), &st) != 0)
        std::snprintf(fault, sizeof fault, "cannot be examined: %s", std::strerror(errno));
    else if (S_ISLNK(st.st_mode))
        std::snprintf(fault, sizeof fault, "is a symbolic link");
    else if (!S_ISDIR(st.st_mode))
        std::snprintf(fault, sizeof fault, "is not a directory");
    else if (st.st_uid != ::geteuid())
        std::snprintf(fault, sizeof fault, "belongs to uid %u, not to uid %u", static_cast<unsigned>(st.st_uid),
                      static_cast<unsigned>(::geteuid()));
    else if ((st.st_mode & (privateToUser ? 077 : 022)) != 0)
        std::snprintf(fault, sizeof fault, "%s group or others (mode %04o)",
                      privateToUser ? "is open to" : "may be written by", static_cast<unsigned>(st.st_mode & 07777));
    if (fault[0] == '\0')
        return NK_EOK;
    HostLog(NOS_LOG_ERROR, "the runtime directory \"%s\" %s: refused", dir.c_str(), fault);
    return NK_EINVAL;
}

std::string CurrentRuntimeDir()
{
    const char* configured = std::getenv("NOS_RUNTIME_DIR");
    const bool byDefault = configured == nullptr || *configured == '\0';
    std::string dir = RuntimeDirFromEnvironment();
    if (EnsureRuntimeDir(dir, byDefault) != NK_EOK)
        return {};
    return dir;
}

bool IsValidEndpointName(std::string_view name)
{
    if (name.empty() || name.size() > 200)
        return false;
    for (char c : name) {
        const auto u = static_cast<unsigned char>(c);
        if (u <= 0x20 || u == 0x7F)
            return false;
    }
    return true;
}

bool IsValidName(std::string_view name)
{
    return IsValidEndpointName(name) && name.find('/') == std::string_view::npos && name != "." && name != "..";
}

bool WriteFileAtomically(const std::string& path, std::string_view content)
{
    const std::string tmp = path + ".tmp." + std::to_string(::getpid());
    // A new file, never one that is there (a link would be followed): one
    // left by an earlier process of the same pid is removed first.
    const auto create = [&] { return ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600); };
    int fd = create();
    if (fd < 0 && errno == EEXIST && ::unlink(tmp.c_str()) == 0)
        fd = create();
    if (fd < 0)
        return false;
    size_t done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.data() + done, content.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ::close(fd);
            ::unlink(tmp.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (::close(fd) != 0 || ::rename(tmp.c_str(), path.c_str()) != 0) {
        ::unlink(tmp.c_str());
        return false;
    }
    return true;
}

std::optional<std::string> ReadSmallFile(const std::string& path, size_t maxBytes)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return std::nullopt;
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 || content.size() + static_cast<size_t>(n) > maxBytes) {
            ::close(fd);
            return std::nullopt;
        }
        if (n == 0)
            break;
        content.append(buffer, static_cast<size_t>(n));
    }
    ::close(fd);
    return content;
}

std::optional<std::chrono::milliseconds> CallTimeoutFromEnvironment()
{
    const char* text = std::getenv("NOS_CALL_TIMEOUT_MS");
    if (text == nullptr || *text == '\0')
        return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const unsigned long long value = std::strtoull(text, &end, 10);
    if (errno != 0 || *end != '\0' || value == 0 || value > 86400000ull)
        return std::nullopt;
    return std::chrono::milliseconds(static_cast<int64_t>(value));
}

std::optional<std::chrono::milliseconds> CallTimeoutFor(const std::string& channel)
{
    const auto fromEnvironment = CallTimeoutFromEnvironment();
    if (channel != "nv.NvlogStorageEntity")
        return fromEnvironment;
    return fromEnvironment ? std::min(*fromEnvironment, kLogStorageCallLimit) : kLogStorageCallLimit;
}

uint64_t NsOf(const timespec& ts)
{
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

namespace {

uint64_t ClockNs(clockid_t clock)
{
    timespec ts {};
    ::clock_gettime(clock, &ts);
    return NsOf(ts);
}

}  // namespace

uint64_t MonotonicNs() { return ClockNs(CLOCK_MONOTONIC); }

uint64_t RealtimeNs() { return ClockNs(CLOCK_REALTIME); }

void HostLog(int level, const char* format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    NosLogf(level, __FILE__, __LINE__, "nos-host", "%s", text);
}

}  // namespace nos_host
