// The connection every IPC client proxy starts from: a channel to a named
// server entity, the riid of one of its endpoints and a transport bound to
// the channel.
#pragma once

#include <nos/transport.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace common::utils {

class ProxyBase {
public:
    // Connects to the service locator's `connectionName` and looks up the
    // endpoint `interfaceName`. Throws eka::ResultCodeException 0x80000071
    // ("invalid handle" when the server is not there, "invalid riid" when it
    // has no such endpoint). There is no retry: a proxy of an absent server
    // cannot be built. The channel is never closed by the proxy.
    ProxyBase(std::string_view connectionName, std::string_view interfaceName);
    virtual ~ProxyBase();

    // A derived proxy keeps a pointer to the transport, so the object stays put.
    ProxyBase(const ProxyBase&) = delete;
    ProxyBase& operator=(const ProxyBase&) = delete;

protected:
    std::string m_connectionName;
    std::string m_interfaceName;
    NkNosTransport m_transport{};
    std::uint16_t m_riid = 0;
};

}  // namespace common::utils
