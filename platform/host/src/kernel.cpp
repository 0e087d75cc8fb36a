// Kernel object calls of the host platform.
#include "client.h"
#include "handle_table.h"

#include <nos/kernel.h>

#include <cerrno>
#include <ctime>

using namespace nos_host;

extern "C" Retcode KnIpcCreateSyncObject(Handle* handle)
{
    if (handle == nullptr)
        return NK_EINVAL;
    const Handle made = HandleTable::Process().Add(std::make_shared<SyncObject>());
    if (made == INVALID_HANDLE)
        return NK_ENOMEM;
    *handle = made;
    return NK_EOK;
}

extern "C" Retcode KnHandleClose(Handle handle)
{
    if (!ReleaseSharedClient(handle))
        return NK_EOK;  // other users of the shared connection keep it open
    const auto object = HandleTable::Process().Remove(handle);
    if (!object)
        return NK_EBADF;
    object->Close();
    return NK_EOK;
}

extern "C" Retcode KnSleep(uint32_t msecs)
{
    timespec left{static_cast<time_t>(msecs / 1000), static_cast<long>(msecs % 1000) * 1000000L};
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return NK_EOK;
}
