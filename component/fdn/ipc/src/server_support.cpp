#include "nos/ipc/server_support.h"

#include <nos/kernel.h>
#include <nos/log.h>
#include <nos/service_locator.h>
#include <nos/rtl/semaphore.h>

namespace nos::ipc::details {

void Check(bool value, std::string_view expression, const char* function, std::uint32_t line)
{
    rtl::details::CheckBoolean(value, expression, kFailedCheck,
                               rtl::SourceLocation("component/fdn/ipc/server", function, line));
}

void CallLogger(const ServerLogger& logger, std::string_view message, bool isError) noexcept
{
    if (!logger)
        return;
    try {
        logger(message, isError);
    } catch (const std::exception& e) {
        NosLogf(NOS_LOG_ERROR, __FILE__, __LINE__, "fdn_ipc", "logger failed (%s) on: %.*s", e.what(),
                static_cast<int>(message.size()), message.data());
    }
}

void ReportLogFailure(std::string_view what) noexcept
{
    NosLogf(NOS_LOG_ERROR, __FILE__, __LINE__, "fdn_ipc", "log line lost: %.*s", static_cast<int>(what.size()),
            what.data());
}

AutoService::AutoService(const std::string& name) noexcept
{
    m_handle = ServiceLocatorRegister(name.c_str(), nullptr, 0, &m_riid);
}

AutoService::~AutoService()
{
    if (m_handle != INVALID_HANDLE)
        (void)ServiceLocatorUnregister(m_handle);
}

Publication::Publication(const std::vector<DynamicIpcDescriptor>& descriptors, const ServerLogger& logger)
    : m_descriptors(descriptors), m_published(descriptors.size(), false)
{
    (void)NsCreate(nullptr, -1, &m_ns);
    for (size_t i = 0; i < m_descriptors.size(); ++i) {
        const auto& d = m_descriptors[i];
        const Retcode rc = NsPublishService(m_ns, d.type.c_str(), nullptr, d.service.c_str());
        m_published[i] = rc == NK_EOK;
        if (rc != NK_EOK)
            LogLine(logger, true, "NameServer service {}, type {} not published: error code {}", d.service, d.type, rc);
    }
}

Publication::~Publication()
{
    for (size_t i = 0; i < m_descriptors.size(); ++i) {
        if (m_published[i])
            (void)NsUnPublishService(m_ns, m_descriptors[i].type.c_str(), nullptr, m_descriptors[i].service.c_str());
    }
    if (m_ns != INVALID_HANDLE)
        (void)KnHandleClose(m_ns);
}

std::unique_ptr<ConnectionManager> MakeConnectionManager(const std::unordered_map<std::string, std::uint32_t>& riids,
                                                         const ServerLogger& logger)
{
    ConnectionManager::Config config;
    for (const auto& [service, riid] : riids)
        config.cfg.userPlan.emplace(service, ConnectionManager::Parameters{riid, kDynamicGroupId});
    // Holds a copy of the logger, not the server: it must not reach into a
    // server whose construction failed.
    config.log = [logger](std::string_view message, bool isError) { CallLogger(logger, message, isError); };
    return std::make_unique<ConnectionManager>(std::move(config));
}

Handle AcquireGroupHandle(ConnectionManager& manager, std::uint32_t groupId)
{
    const auto waiter = std::make_shared<rtl::Semaphore>();
    for (;;) {
        if (const auto handle = manager.TakeGroupHandle(groupId, waiter))
            return *handle;
        waiter->Wait();
    }
}

}  // namespace nos::ipc::details
