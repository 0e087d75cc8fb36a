#include "common/utils/proxy_base.h"

#include <nos/service_locator.h>

#include "eka/exception.h"
#include "eka/result_code.h"
#include "eka/throw.h"
#include "nos/logger/nos_logger.h"

namespace common::utils {
namespace {
// Fixed locations: they are what the start-up failure log shows.
constexpr const char* kFile = "shared/common/utils/proxy_base";
constexpr int kInvalidHandleLine = 27;
constexpr int kInvalidRiidLine = 30;
}  // namespace

ProxyBase::ProxyBase(std::string_view connectionName, std::string_view interfaceName)
    : m_connectionName(connectionName), m_interfaceName(interfaceName)
{
    nos::logger::LogIfEnabled(nos::logger::LogLevel::Info, kFile, __LINE__, "ProxyBase", "{} {}", m_connectionName,
                              m_interfaceName);
    const Handle handle = ServiceLocatorConnect(m_connectionName.c_str());
    if (handle == INVALID_HANDLE)
        eka::Throw<eka::ResultCodeException>(kFile, kInvalidHandleLine, eka::result::InvalidResult, u"invalid handle");
    const std::uint32_t riid = ServiceLocatorGetRiid(handle, m_interfaceName.c_str());
    if (riid >= INVALID_RIID)
        eka::Throw<eka::ResultCodeException>(kFile, kInvalidRiidLine, eka::result::InvalidResult, u"invalid riid");
    if (NkNosTransport_Init(&m_transport, handle, nullptr, 0) != NK_EOK)
        eka::Throw<eka::ResultCodeException>(kFile, __LINE__, eka::result::InvalidResult, u"invalid transport");
    m_riid = static_cast<std::uint16_t>(riid);
}

ProxyBase::~ProxyBase() = default;

}  // namespace common::utils
