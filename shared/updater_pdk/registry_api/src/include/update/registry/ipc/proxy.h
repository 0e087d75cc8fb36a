// The update registry client over the platform's synchronous IPC.
#pragma once

#include <nos/transport.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "common/utils/proxy_base.h"
#include "update/registry/ipc/registry.h"

namespace update::registry::ipc {

// Where a proxy sends its calls: the transport of its ProxyBase and the
// endpoint's riid.
struct nv_IUpdateRegistry_client {
    NkNosTransport* transport;
    std::uint16_t riid;
};

// No call throws. Each returns the registry's result of a completed
// exchange, or the code that common::utils::ManageException gives for what
// went wrong on the way (logged at error level under the method's name):
// a transport failure, an error reply, a short reply, an out-of-range value
// in either direction, arena data out of bounds, no memory for an arena.
//
// Open and GetHandle write the answered handle even with a failing result;
// GetInfo overwrites `info` with the answered record before it looks at the
// result. Calls keep all their data on the stack or in their own mapped
// arena, so one proxy may be used from several threads.
class Proxy final : public IRegistry, private common::utils::ProxyBase {
public:
    // Throws as ProxyBase does.
    Proxy(std::string_view connectionName, std::string_view interfaceName);

    int Open(PackageType type, unsigned int& handle) override;
    int Close(unsigned int handle) override;
    int GetSessions(std::vector<SessionInfo>& sessions) const override;
    int GetHandle(const eka::guid_t& id, unsigned int& handle) const override;
    int SetState(unsigned int handle, UpdateState state) override;
    int GetInfo(unsigned int handle, SessionInfo& info) const override;

private:
    // One exchange: `prepare` fills the request body from the arguments,
    // `decode` reads the response (and its arena, when `arenaSize` is not 0)
    // and gives the result. Whatever throws ends in ManageException.
    template <typename Req, typename Res, typename Prepare, typename Decode>
    int Call(Method method, std::size_t arenaSize, Prepare&& prepare, Decode&& decode) const noexcept;

    nv_IUpdateRegistry_client m_client;
};

// The decoding of a GetSessions response: converts the packed records that
// `sequence` names in `arena`. Throws eka::CheckFailedException "cannot get
// sessions from arena" with `sessions` untouched when the records do not lie
// wholly inside the arena or their size is not a multiple of 32. Otherwise
// clears `sessions` and appends the records in order; a record that fails
// ToSessionInfo throws and leaves the ones before it appended.
void SessionsFromArena(nk_arena_desc sequence, nk_arena& arena, std::vector<SessionInfo>& sessions);

// A connected proxy; throws eka::ResultCodeException 0x80000071 when the
// registry or its endpoint is not there.
std::unique_ptr<IRegistry> CreateProxy(std::string_view connectionName, std::string_view interfaceName);

}  // namespace update::registry::ipc
