// The transport's operation table over the host channel objects.
#include "channel.h"
#include "client.h"

#include <nos/transport.h>

using namespace nos_host;

namespace {

Retcode Call(NkNosTransport* t, const nk_message* request, const nk_arena* requestArena, nk_message* response,
             nk_arena* responseArena)
{
    if (t == nullptr)
        return NK_EINVAL;
    const auto connection = HandleTable::Process().GetAs<ClientConnection>(t->handle);
    if (!connection)
        return NK_EBADF;
    return connection->Call(request, requestArena, response, responseArena);
}

Retcode Receive(NkNosTransport* t, nk_message* request, nk_arena* requestArena)
{
    if (t == nullptr)
        return NK_EINVAL;
    const auto channel = HandleTable::Process().GetAs<ServerChannel>(t->handle);
    if (!channel)
        return NK_EBADF;
    return channel->Receive(*t, request, requestArena);
}

Retcode Reply(NkNosTransport* t, const nk_message* response, const nk_arena* responseArena)
{
    if (t == nullptr)
        return NK_EINVAL;
    const auto channel = HandleTable::Process().GetAs<ServerChannel>(t->handle);
    if (!channel)
        return NK_EBADF;
    return channel->Reply(*t, response, responseArena);
}

constexpr NkNosTransportOps kOps = {Call, Receive, Reply};

void Bind(NkNosTransport* t, Handle handle, Handle peer, Handle sync)
{
    *t = NkNosTransport{};
    t->ops = &kOps;
    t->handle = handle;
    t->peer = peer;
    t->sync = sync;
    t->client = 0;
}

}  // namespace

extern "C" Retcode NkNosTransport_Init(NkNosTransport* t, Handle handle, const void* /*options*/, uint32_t /*flags*/)
{
    if (t == nullptr)
        return NK_EINVAL;
    if (!HandleTable::Process().GetAs<ClientConnection>(handle))
        return NK_EBADF;
    Bind(t, handle, handle, INVALID_HANDLE);
    return NK_EOK;
}

extern "C" Retcode NkNosTransportSync_Init(NkNosTransport* t, Handle handle, Handle peer, Handle syncObject)
{
    if (t == nullptr)
        return NK_EINVAL;
    if (!HandleTable::Process().GetAs<ServerChannel>(handle))
        return NK_EBADF;
    if (syncObject != INVALID_HANDLE && !HandleTable::Process().GetAs<SyncObject>(syncObject))
        return NK_EBADF;
    Bind(t, handle, peer, syncObject);
    return NK_EOK;
}
