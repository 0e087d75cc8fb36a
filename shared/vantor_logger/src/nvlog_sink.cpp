#include "vantor_logger/nvlog_sink.h"

#include <array>
#include <chrono>
#include <utility>

#include <nos/platform.h>
#include <spdlog/pattern_formatter.h>

#include "vantor_logger/nvlog_record.h"

namespace nos::logger {

std::shared_ptr<NvlogStorageContextRAII> NvlogStorageContextRAII::Connect()
{
    const Handle handle = ServiceLocatorConnect(nvlog::kEntityName);
    if (handle == INVALID_HANDLE)
        return nullptr;
    const std::uint32_t riid = ServiceLocatorGetRiid(handle, nvlog::kEndpointName);
    if (riid >= INVALID_RIID) {
        KnHandleClose(handle);
        return nullptr;
    }
    return std::make_shared<NvlogStorageContextRAII>(handle, riid);
}

NvlogStorageContextRAII::NvlogStorageContextRAII(Handle handle, std::uint32_t riid) : m_handle(handle), m_riid(riid)
{
    NkNosTransport_Init(&m_transport, handle, nullptr, 0);
}

NvlogStorageContextRAII::~NvlogStorageContextRAII() { KnHandleClose(m_handle); }

Retcode NvlogStorageContextRAII::Store(std::span<std::uint8_t> record)
{
    nvlog::StoreRequest request{};
    request.header.riid = static_cast<std::uint16_t>(m_riid);
    request.header.mid = nvlog::kStoreMethod;
    nk_msg_set_size(&request.header, sizeof(request));
    request.record.offset = 0;
    request.record.size = static_cast<std::uint32_t>(record.size());

    // The arena is the record itself, filled to its end.
    std::uint8_t* end = record.data() + record.size();
    nk_arena arena{record.data(), end, end};

    nvlog::StoreResponse response{};
    nk_msg_set_size(&response.header, sizeof(response));

    std::lock_guard lock(m_mutex);
    if (m_transport.ops == nullptr || m_transport.ops->call == nullptr)
        return NK_EBADF;
    return m_transport.ops->call(&m_transport, &request.header, &arena, &response.header, nullptr);
}

std::shared_ptr<NvlogStorageContextRAII> GetNvlogStorageContext()
{
    static std::mutex mutex;
    static std::shared_ptr<NvlogStorageContextRAII> context;
    std::lock_guard lock(mutex);
    if (!context)
        context = NvlogStorageContextRAII::Connect();
    return context;
}

NvlogSink::NvlogSink(std::shared_ptr<NvlogStorageContextRAII> context, const char* pattern)
    : m_context(std::move(context))
{
    set_formatter_(std::make_unique<spdlog::pattern_formatter>(pattern != nullptr ? pattern : kNvlogPattern,
                                                               spdlog::pattern_time_type::local, "\n"));
}

void NvlogSink::sink_it_(const spdlog::details::log_msg& msg)
{
    spdlog::memory_buf_t formatted;
    formatter_->format(msg, formatted);

    std::array<std::uint8_t, nvlog::kRecordSize> record;
    const auto now = std::chrono::duration_cast<std::chrono::seconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    nvlog::EncodeRecord(record, static_cast<std::int64_t>(now), std::string_view(formatted.data(), formatted.size()));
    if (m_context)
        (void)m_context->Store(record);  // a lost record is not retried
}

}  // namespace nos::logger
