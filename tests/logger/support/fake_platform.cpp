#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <utility>

namespace logger_test {

FakePlatform& FakePlatform::Get()
{
    static FakePlatform platform;
    return platform;
}

void FakePlatform::Reset()
{
    std::lock_guard lock(mutex);
    channelPresent = true;
    endpointPresent = true;
    riid = 7;
    callResult = NK_EOK;
    connects = 0;
    closes = 0;
    logs.clear();
    calls.clear();
}

std::vector<NosLogCall> FakePlatform::TakeLogs()
{
    std::lock_guard lock(mutex);
    return std::exchange(logs, {});
}

std::vector<TransportCall> FakePlatform::TakeCalls()
{
    std::lock_guard lock(mutex);
    return std::exchange(calls, {});
}

namespace {

Retcode FakeCall(NkNosTransport* t, const nk_message* req, const nk_arena* reqArena, nk_message* res,
                 nk_arena* resArena)
{
    FakePlatform& p = FakePlatform::Get();
    TransportCall call{};
    call.handle = t->handle;
    call.requestSizeWord = req->size;
    const auto* reqBytes = reinterpret_cast<const std::uint8_t*>(req);
    call.request.assign(reqBytes, reqBytes + nk_msg_size(req));
    if (reqArena != nullptr && reqArena->start != nullptr) {
        call.arena.assign(reqArena->start, reqArena->current);
        call.arenaCapacity = static_cast<std::size_t>(reqArena->end - reqArena->start);
    }
    call.responseSizeWord = res->size;
    call.responseArenaNull = resArena == nullptr;
    std::lock_guard lock(p.mutex);
    p.calls.push_back(std::move(call));
    return p.callResult;
}

Retcode Unused(NkNosTransport*, nk_message*, nk_arena*) { return NK_EBADF; }
Retcode UnusedReply(NkNosTransport*, const nk_message*, const nk_arena*) { return NK_EBADF; }

const NkNosTransportOps kOps{FakeCall, Unused, UnusedReply};

}  // namespace
}  // namespace logger_test

using logger_test::FakePlatform;

extern "C" {

void NosLogf(int level, const char* file, int line, const char* loggerName, const char* format, ...)
{
    char text[8192];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof(text), format, args);
    va_end(args);
    FakePlatform& p = FakePlatform::Get();
    std::lock_guard lock(p.mutex);
    p.logs.push_back({level, file != nullptr ? file : "", line, loggerName != nullptr ? loggerName : "", format, text});
}

const char* getprogname(void) { return "fake_program"; }

Handle ServiceLocatorConnect(const char* name)
{
    FakePlatform& p = FakePlatform::Get();
    std::lock_guard lock(p.mutex);
    ++p.connects;
    if (!p.channelPresent || std::string_view(name) != "nv.NvlogStorageEntity")
        return INVALID_HANDLE;
    return logger_test::kStorageHandle;
}

uint32_t ServiceLocatorGetRiid(Handle handle, const char* endpointName)
{
    FakePlatform& p = FakePlatform::Get();
    std::lock_guard lock(p.mutex);
    if (handle != logger_test::kStorageHandle || !p.endpointPresent ||
        std::string_view(endpointName) != "nv.NvlogStorage.storage")
        return INVALID_RIID;
    return p.riid;
}

Retcode NkNosTransport_Init(NkNosTransport* t, Handle handle, const void*, uint32_t)
{
    std::memset(t, 0, sizeof(*t));
    t->ops = &logger_test::kOps;
    t->handle = handle;
    t->peer = handle;
    return NK_EOK;
}

Retcode KnHandleClose(Handle)
{
    FakePlatform& p = FakePlatform::Get();
    std::lock_guard lock(p.mutex);
    ++p.closes;
    return NK_EOK;
}

}  // extern "C"
