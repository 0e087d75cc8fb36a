// Service locator of the host platform: a channel is a listening socket
// "<runtime dir>/<name>.sock" with its endpoint table "<name>.endpoints"
// beside it.
#include "admission.h"
#include "channel.h"
#include "client.h"
#include "endpoints.h"
#include "runtime.h"
#include "wire.h"

#include <nos/log.h>
#include <nos/service_locator.h>
#include <nos_host/host.h>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>

using namespace nos_host;

extern "C" Handle ServiceLocatorRegister(const char* name, const void* /*reserved*/, uint32_t /*flags*/, uint32_t* riid)
{
    if (name == nullptr || !IsValidName(name)) {
        HostLog(NOS_LOG_ERROR, "ServiceLocatorRegister: invalid channel name");
        return INVALID_HANDLE;
    }
    const std::string dir = CurrentRuntimeDir();
    if (dir.empty())
        return INVALID_HANDLE;
    const std::string socketPath = ChannelSocketPath(dir, name);
    const std::string tablePath = EndpointTablePath(dir, name);
    const int fd = BindSeqpacket(socketPath);
    if (fd < 0) {
        HostLog(NOS_LOG_ERROR, "ServiceLocatorRegister: channel \"%s\" at \"%s\": %s", name, socketPath.c_str(),
                errno == EADDRINUSE ? "already served" : std::strerror(errno));
        return INVALID_HANDLE;
    }
    // The table is in place before the first client can connect.
    if (!WriteFileAtomically(tablePath, FormatEndpointTable(EndpointsOf(name))) || ::listen(fd, SOMAXCONN) != 0) {
        HostLog(NOS_LOG_ERROR, "ServiceLocatorRegister: channel \"%s\": %s", name, std::strerror(errno));
        ::close(fd);
        ::unlink(socketPath.c_str());
        ::unlink(tablePath.c_str());
        return INVALID_HANDLE;
    }
    auto channel = ServerChannel::Create(name, dir, fd, {socketPath, tablePath}, ConnectionLimitOf(name));
    if (!channel) {
        ::close(fd);
        ::unlink(socketPath.c_str());
        ::unlink(tablePath.c_str());
        return INVALID_HANDLE;
    }
    const Handle handle = HandleTable::Process().Add(channel);
    if (handle == INVALID_HANDLE) {
        channel->Close();
        return INVALID_HANDLE;
    }
    if (riid != nullptr)
        *riid = 0;
    return handle;
}

extern "C" Retcode ServiceLocatorUnregister(Handle handle)
{
    if (!HandleTable::Process().GetAs<ServerChannel>(handle))
        return NK_EBADF;
    const auto object = HandleTable::Process().Remove(handle);
    if (!object)
        return NK_EBADF;
    object->Close();
    return NK_EOK;
}

extern "C" Handle ServiceLocatorConnect(const char* name)
{
    if (name == nullptr || !IsValidName(name))
        return INVALID_HANDLE;
    const std::string dir = CurrentRuntimeDir();
    if (dir.empty())
        return INVALID_HANDLE;
    // INVALID_HANDLE when nobody serves it: the normal answer for an absent entity.
    return ConnectSharedClient(dir, name);
}

extern "C" uint32_t ServiceLocatorGetRiid(Handle handle, const char* endpointName)
{
    if (endpointName == nullptr)
        return INVALID_RIID;
    std::string dir;
    std::string channel;
    const auto object = HandleTable::Process().Get(handle);
    if (const auto* client = dynamic_cast<const ClientConnection*>(object.get())) {
        if (client->AcceptedRiid() && client->Channel() == endpointName)
            return *client->AcceptedRiid();
        dir = client->RuntimeDir();
        channel = client->Channel();
    } else if (const auto* server = dynamic_cast<const ServerChannel*>(object.get())) {
        dir = server->RuntimeDir();
        channel = server->Name();
    } else {
        return INVALID_RIID;
    }
    const auto table = ReadSmallFile(EndpointTablePath(dir, channel), 1 << 20);
    return table ? LookUpEndpoint(*table, endpointName) : INVALID_RIID;
}

extern "C" Retcode NosHostSetEndpoints(const char* channel, const char* const* names, size_t count)
{
    if (channel == nullptr || !IsValidName(channel) || (names == nullptr && count != 0) || count >= INVALID_RIID)
        return NK_EINVAL;
    std::vector<std::string> table;
    table.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        if (names[i] == nullptr || !IsValidEndpointName(names[i]))
            return NK_EINVAL;
        table.emplace_back(names[i]);
    }
    return SetEndpoints(channel, std::move(table));
}

extern "C" Retcode NosHostSetConnectionLimit(const char* channel, size_t limit)
{
    if (channel == nullptr || !IsValidName(channel) || limit == 0)
        return NK_EINVAL;
    SetConnectionLimit(channel, limit);
    return NK_EOK;
}

extern "C" Retcode NosHostAllowUid(const char* uid)
{
    return uid != nullptr && AllowUidText(uid) ? NK_EOK : NK_EINVAL;
}
