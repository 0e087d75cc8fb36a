// Non-template pieces of the component IPC server: its failed-check throw,
// its logging, the records of its static channel and of its name-server
// publication, and its use of the connection manager.
#pragma once

#include <nos/ipc/connection_manager.h>
#include <nos/types.h>
#include <nos/rtl/exception.h>

#include <fmt/format.h>

#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace nos::ipc {

// One service to publish on the name server in dynamic mode.
struct DynamicIpcDescriptor {
    std::string type;        // interface type given to the name server
    std::string service;     // endpoint name the service is published under
    std::uint32_t riid = 0;  // interface identifier its connections are accepted on
};

// Receives every line of the server and of its connection manager, already
// formatted. Called from several threads at once.
using ServerLogger = std::function<void(std::string_view message, bool isError)>;

namespace details {

// Result code of every failed check of the server.
inline constexpr rtl::Result kFailedCheck = static_cast<rtl::Result>(0x9000000Du);

// Throws nos::rtl::Exception "Boolean expression \"<expression>\" is false"
// located in `function` at `line` of the server unless `value` holds.
// `function` must be static text.
void Check(bool value, std::string_view expression, const char* function, std::uint32_t line);

// Hands one line to `logger`; an empty logger drops it. A logger that throws
// a standard exception has its failure reported on the platform log.
void CallLogger(const ServerLogger& logger, std::string_view message, bool isError) noexcept;

// Puts a line that could not be logged on the platform log instead.
void ReportLogFailure(std::string_view what) noexcept;

template <typename... Args>
void LogLine(const ServerLogger& logger, bool isError, fmt::format_string<Args...> format, Args&&... args) noexcept
{
    try {
        CallLogger(logger, fmt::format(format, std::forward<Args>(args)...), isError);
    } catch (const std::exception& e) {
        ReportLogFailure(e.what());
    }
}

// The channel obtained from the service locator; unregistered on destruction.
class AutoService {
public:
    // Registers `name`; the handle is INVALID_HANDLE when that failed.
    explicit AutoService(const std::string& name) noexcept;
    ~AutoService();
    AutoService(const AutoService&) = delete;
    AutoService& operator=(const AutoService&) = delete;

    Handle GetHandle() const noexcept { return m_handle; }
    std::uint32_t GetRiid() const noexcept { return m_riid; }

private:
    std::uint32_t m_riid = 0;
    Handle m_handle = INVALID_HANDLE;
};

// The services published on the name server; withdrawn on destruction.
class Publication {
public:
    // Publishes each descriptor in order. One that cannot be published gets
    // an error line; the server's "Registered NameServer service ..." lines
    // come after all of them, one for every descriptor.
    Publication(const std::vector<DynamicIpcDescriptor>& descriptors, const ServerLogger& logger);
    ~Publication();
    Publication(const Publication&) = delete;
    Publication& operator=(const Publication&) = delete;

private:
    Handle m_ns = INVALID_HANDLE;
    std::vector<DynamicIpcDescriptor> m_descriptors;
    std::vector<bool> m_published;  // per descriptor
};

// Group of every dynamic connection of the server.
inline constexpr std::uint32_t kDynamicGroupId = 1;

// A manager, not started, whose plan accepts each service on its riid into
// kDynamicGroupId and whose log lines go to `logger`. Throws what the
// manager's constructor throws.
std::unique_ptr<ConnectionManager> MakeConnectionManager(const std::unordered_map<std::string, std::uint32_t>& riids,
                                                         const ServerLogger& logger);

// Waits until the manager has a connection for `groupId` and takes its
// handle; INVALID_HANDLE when the manager does not run.
Handle AcquireGroupHandle(ConnectionManager& manager, std::uint32_t groupId);

}  // namespace details
}  // namespace nos::ipc
