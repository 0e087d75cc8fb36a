#include "update/registry/ipc/dispatcher.h"

#include <cstring>
#include <new>
#include <string_view>
#include <vector>

#include "common/utils/manage_exception.h"
#include "eka/exception.h"
#include "eka/result_code.h"
#include "update/registry/ipc/enum_converters.h"
#include "update/registry/ipc/session_converters.h"
#include "wire_support.h"

namespace update::registry::ipc {
namespace {

using wire::SetHeader;
using wire::SizeWord;

constexpr int kRefused = -2;
constexpr std::uint32_t kErrorReplySize = 32;

template <typename Req>
bool HasLayout(const nk_message& request, bool carriesHandle) noexcept
{
    return !nk_msg_is_error(&request) &&
           (request.size & (NK_MSG_SIZE_MASK | NK_MSG_HANDLE_FLAG)) == SizeWord<Req>(carriesHandle);
}

template <typename Req>
Req Read(const nk_message* request) noexcept
{
    Req copy;
    std::memcpy(&copy, request, sizeof(copy));
    return copy;
}

template <typename Res>
void Write(nk_message* response, const Res& answer) noexcept
{
    std::memcpy(response, &answer, sizeof(answer));
}

int ErrorReply(nk_message* response, std::uint16_t riid, std::uint16_t mid, eka::result_t code) noexcept
{
    std::memset(response, 0, sizeof(nv_IUpdateRegistry_res));
    response->riid = riid;
    response->mid = mid;
    response->size = NK_MSG_ERROR_FLAG | kErrorReplySize;
    std::memcpy(reinterpret_cast<std::uint8_t*>(response) + sizeof(nk_message), &code, sizeof(code));
    return kRefused;
}

constexpr nk_handle_desc AnswerHandle(unsigned int handle) noexcept { return {handle, 0, 0}; }

// The part of the server's arena a method may fill: no more than its
// caller offers, or the caller's transport would refuse the whole answer.
nk_arena Window(const nk_arena* arena, std::size_t limit) noexcept
{
    nk_arena window{};
    if (arena == nullptr)
        return window;
    window = *arena;
    window.current = window.start;
    if (window.start != nullptr && window.end > window.start &&
        static_cast<std::size_t>(window.end - window.start) > limit)
        window.end = window.start + limit;
    return window;
}

// Turns whatever an encoding or a registry call threw into the answer's
// result: a full arena is "Buffer too small", the rest goes through the
// common funnel under the method's name.
template <typename Body>
eka::result_t Guarded(std::string_view method, Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return eka::result::BufferTooSmall;
    } catch (...) {
        return common::utils::ManageException("", method);
    }
}

void Encode(const std::vector<SessionInfo>& sessions, nk_arena& window, nk_arena_desc& where)
{
    const std::size_t bytes = sessions.size() * sizeof(nv_IUpdateRegistry_SessionInfo);
    std::uint32_t offset = 0;
    auto* slots = static_cast<std::uint8_t*>(nk_arena_reserve(&window, bytes, &offset));
    if (slots == nullptr)
        throw std::bad_alloc();
    for (std::size_t i = 0; i < sessions.size(); ++i) {
        const nv_IUpdateRegistry_SessionInfo record = FromSessionInfo(sessions[i], window);
        std::memcpy(slots + i * sizeof(record), &record, sizeof(record));
    }
    where = {offset, static_cast<std::uint32_t>(bytes)};
}

}  // namespace

int DispatchRegistry(RegistryComponent* component, const nk_message* request, const nk_arena* /*requestArena*/,
                     nk_message* response, nk_arena* responseArena) noexcept
{
    if (response == nullptr)
        return kRefused;
    if (component == nullptr || component->registry == nullptr || request == nullptr)
        return ErrorReply(response, 0, 0, eka::result::InvalidArgument);
    const std::uint16_t riid = request->riid;
    const std::uint16_t mid = request->mid;
    if (riid != component->riid)
        return ErrorReply(response, riid, mid, eka::result::InvalidArgument);
    IRegistry& registry = *component->registry;
    if (responseArena != nullptr)
        responseArena->current = responseArena->start;

    switch (static_cast<Method>(mid)) {
    case Method::Open: {
        if (!HasLayout<nv_IUpdateRegistry_Open_req>(*request, false))
            break;
        const auto in = Read<nv_IUpdateRegistry_Open_req>(request);
        nv_IUpdateRegistry_Open_res out{};
        SetHeader(out, riid, Method::Open, true);
        unsigned int handle = kNoHandle;
        out.result = Guarded("Open", [&]() -> eka::result_t {
            PackageType type{};
            try {
                type = ToPackageType(in.type);
            } catch (const eka::CheckFailedException&) {
                return eka::result::InvalidArgument;
            }
            return registry.Open(type, handle);
        });
        out.handle = AnswerHandle(handle);
        Write(response, out);
        return 0;
    }
    case Method::Close: {
        if (!HasLayout<nv_IUpdateRegistry_Close_req>(*request, true))
            break;
        const auto in = Read<nv_IUpdateRegistry_Close_req>(request);
        nv_IUpdateRegistry_Close_res out{};
        SetHeader(out, riid, Method::Close, false);
        out.result = Guarded("Close", [&] { return registry.Close(HandleFromWire(in.handle.handle)); });
        Write(response, out);
        return 0;
    }
    case Method::GetSessions: {
        if (!HasLayout<nv_IUpdateRegistry_GetSessions_req>(*request, false))
            break;
        nv_IUpdateRegistry_GetSessions_res out{};
        SetHeader(out, riid, Method::GetSessions, false);
        nk_arena window = Window(responseArena, kGetSessionsArenaSize);
        out.result = Guarded("GetSessions", [&] {
            std::vector<SessionInfo> sessions;
            const int rc = registry.GetSessions(sessions);
            Encode(sessions, window, out.sessions);
            return rc;
        });
        if (out.sessions.size == 0)  // nothing to send, whatever was written before a failure
            window.current = window.start;
        if (responseArena != nullptr)
            responseArena->current = window.current;
        Write(response, out);
        return 0;
    }
    case Method::GetHandle: {
        if (!HasLayout<nv_IUpdateRegistry_GetHandle_req>(*request, false))
            break;
        const auto in = Read<nv_IUpdateRegistry_GetHandle_req>(request);
        nv_IUpdateRegistry_GetHandle_res out{};
        SetHeader(out, riid, Method::GetHandle, true);
        unsigned int handle = kNoHandle;
        out.result = Guarded("GetHandle", [&] {
            eka::guid_t id;
            std::memcpy(id.bytes.data(), in.id, sizeof(in.id));
            return registry.GetHandle(id, handle);
        });
        out.handle = AnswerHandle(handle);
        Write(response, out);
        return 0;
    }
    case Method::SetState: {
        if (!HasLayout<nv_IUpdateRegistry_SetState_req>(*request, true))
            break;
        const auto in = Read<nv_IUpdateRegistry_SetState_req>(request);
        nv_IUpdateRegistry_SetState_res out{};
        SetHeader(out, riid, Method::SetState, false);
        out.result = Guarded("SetState", [&]() -> eka::result_t {
            UpdateState state{};
            try {
                state = ToUpdateState(in.state);
            } catch (const eka::CheckFailedException&) {
                return eka::result::InvalidArgument;
            }
            return registry.SetState(HandleFromWire(in.handle.handle), state);
        });
        Write(response, out);
        return 0;
    }
    case Method::GetInfo: {
        if (!HasLayout<nv_IUpdateRegistry_GetInfo_req>(*request, true))
            break;
        const auto in = Read<nv_IUpdateRegistry_GetInfo_req>(request);
        nv_IUpdateRegistry_GetInfo_res out{};
        SetHeader(out, riid, Method::GetInfo, false);
        nk_arena window = Window(responseArena, kGetInfoArenaSize);
        out.result = Guarded("GetInfo", [&] {
            SessionInfo info;
            const int rc = registry.GetInfo(HandleFromWire(in.handle.handle), info);
            out.info = FromSessionInfo(info, window);
            return rc;
        });
        if (responseArena != nullptr)
            responseArena->current = window.current;
        Write(response, out);
        return 0;
    }
    default:
        return ErrorReply(response, riid, mid, eka::result::MethodNotFound);
    }
    return ErrorReply(response, riid, mid, eka::result::InvalidArgument);
}

}  // namespace update::registry::ipc
