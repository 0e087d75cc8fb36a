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

Retcode EnsureRuntimeDir(const std::string& dir, bool strictOwnership)
{
    if (dir.empty() || !MakeDirectories(dir)) {
        HostLog(NOS_LOG_ERROR, "cannot create the runtime directory \"%s\": %s", dir.c_str(), std::strerror(errno));
        return NK_EINVAL;
    }
    struct stat st {};
    if (::lstat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        if (!strictOwnership && ::stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
            return NK_EOK;
        HostLog(NOS_LOG_ERROR, "the runtime directory \"%s\" is not a directory", dir.c_str());
        return NK_EINVAL;
    }
    if (strictOwnership && (st.st_uid != ::getuid() || (st.st_mode & 077) != 0)) {
        HostLog(NOS_LOG_ERROR, "the runtime directory \"%s\" is not owned by uid %u with mode 0700", dir.c_str(),
                static_cast<unsigned>(::getuid()));
        return NK_EINVAL;
    }
    return NK_EOK;
}

std::string CurrentRuntimeDir()
{
    const char* configured = std::getenv("NOS_RUNTIME_DIR");
    const bool strict = configured == nullptr || *configured == '\0';
    std::string dir = RuntimeDirFromEnvironment();
    if (EnsureRuntimeDir(dir, strict) != NK_EOK)
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
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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

uint64_t MonotonicNs()
{
    timespec ts {};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

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
