// The sink that sends each formatted line to the log-storage entity.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <span>

#include <nos/transport.h>
#include <spdlog/sinks/base_sink.h>

namespace nos::logger {

// The line pattern of the log storage: logger name, level, source file base
// name and line, process and thread ids, message.
inline constexpr const char* kNvlogPattern = "[%n][%^%l%$][%s:%#][%P:%t] %v";

// The client side of one connection to the log storage.
class NvlogStorageContextRAII {
public:
    // Null when the storage is not there (no channel or no endpoint).
    static std::shared_ptr<NvlogStorageContextRAII> Connect();

    NvlogStorageContextRAII(Handle handle, std::uint32_t riid);
    ~NvlogStorageContextRAII();
    NvlogStorageContextRAII(const NvlogStorageContextRAII&) = delete;
    NvlogStorageContextRAII& operator=(const NvlogStorageContextRAII&) = delete;

    // Sends one record with the store method; returns the transport's code.
    Retcode Store(std::span<std::uint8_t> record);

private:
    std::mutex m_mutex;  // one exchange at a time on the channel
    NkNosTransport m_transport{};
    Handle m_handle;
    std::uint32_t m_riid;
};

// The process's storage connection: made on the first call that finds the
// storage and then kept to the end of the process; null (and nothing
// reported) while the storage is absent, so a later call tries again.
std::shared_ptr<NvlogStorageContextRAII> GetNvlogStorageContext();

class NvlogSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    // `context` must not be null. The line end is "\n".
    explicit NvlogSink(std::shared_ptr<NvlogStorageContextRAII> context, const char* pattern = kNvlogPattern);

protected:
    // A record that cannot be sent is dropped.
    void sink_it_(const spdlog::details::log_msg& msg) override;
    void flush_() override {}

private:
    std::shared_ptr<NvlogStorageContextRAII> m_context;
};

}  // namespace nos::logger
