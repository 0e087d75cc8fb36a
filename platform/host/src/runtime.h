// Runtime directory, names and small file helpers shared by the host platform.
#ifndef NOS_HOST_RUNTIME_H
#define NOS_HOST_RUNTIME_H

#include <nos/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace nos_host {

// Where the runtime directory is taken from: NOS_RUNTIME_DIR when set and not
// empty, else ${TMPDIR:-/tmp}/nos-<uid>.
std::string RuntimeDirFromEnvironment();

// Creates `dir` (and missing parents) with mode 0700 when absent. It must be
// a directory, not a symbolic link, owned by this process's effective uid,
// and not writable by group or others; with `privateToUser` (the default
// per-user directory) group and others may have no access at all. Returns
// NK_EOK, or NK_EINVAL with the reason logged.
Retcode EnsureRuntimeDir(const std::string& dir, bool privateToUser);

// The runtime directory of the environment, created when needed; empty when
// it cannot be used (the reason is logged).
std::string CurrentRuntimeDir();

// A channel or service name usable as a file name in the runtime directory:
// 1 to 200 bytes, no '/', no blank or control character, not "." or "..".
bool IsValidName(std::string_view name);
// An endpoint name: 1 to 200 bytes, no blank or control character.
bool IsValidEndpointName(std::string_view name);

// Writes `content` to `path` through a temporary file and a rename, so that a
// reader sees the old file or the new one, never a part.
bool WriteFileAtomically(const std::string& path, std::string_view content);

// Reads a whole regular file of at most `maxBytes` bytes.
std::optional<std::string> ReadSmallFile(const std::string& path, size_t maxBytes);

// NOS_CALL_TIMEOUT_MS: absent, empty or not a positive number means no limit.
std::optional<std::chrono::milliseconds> CallTimeoutFromEnvironment();
// The bound of each call on a connection to `channel`: NOS_CALL_TIMEOUT_MS,
// and for the log storage at most kLogStorageCallLimit, because a process
// logs on the threads that serve it and drops a record it cannot send.
std::optional<std::chrono::milliseconds> CallTimeoutFor(const std::string& channel);
inline constexpr std::chrono::milliseconds kLogStorageCallLimit{2000};

// A time as nanoseconds.
uint64_t NsOf(const timespec& ts);
uint64_t MonotonicNs();
// CLOCK_REALTIME, the clock of the kernel's arrival stamps.
uint64_t RealtimeNs();

// One line on the platform log under the logger name "nos-host".
void HostLog(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace nos_host

#endif
