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

// Lays out the records first, then their paths; on failure the arena is
// left as it was found.
void Encode(const std::vector<SessionInfo>& sessions, nk_arena& window, nk_arena_desc& where)
{
    std::uint8_t* const mark = window.current;
    try {
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
    } catch (...) {
        window.current = mark;
        throw;
    }
}

struct Exchange {
    IRegistry& registry;
    const nk_message* request;
    nk_message* response;
    nk_arena* responseArena;
    std::uint16_t riid;
};

// One method: checks the request's layout, then `body(in, out, window)`
// fills the response from the registry and gives its result. A response
// handle is preset to "no handle", so a failed call never names a session.
template <typename Req, typename Res, typename Body>
int Serve(const Exchange& x, Method method, std::size_t arenaLimit, Body&& body) noexcept
{
    const wire::MethodTraits& traits = wire::Traits(method);
    if (!HasLayout<Req>(*x.request, traits.requestCarriesHandle))
        return ErrorReply(x.response, x.riid, x.request->mid, eka::result::InvalidArgument);
    Req in;
    std::memcpy(&in, x.request, sizeof(in));
    Res out{};
    SetHeader(out, x.riid, method, traits.responseCarriesHandle);
    if constexpr (requires { out.handle; })
        out.handle = AnswerHandle(kNoHandle);
    nk_arena window = Window(x.responseArena, arenaLimit);
    out.result = Guarded(traits.name, [&] { return body(in, out, window); });
    if (x.responseArena != nullptr)
        x.responseArena->current = window.current;
    std::memcpy(x.response, &out, sizeof(out));
    return 0;
}

// An enumerator the interface does not define is the caller's mistake.
template <typename Convert>
bool Converted(Convert&& convert) noexcept
{
    try {
        convert();
        return true;
    } catch (const eka::CheckFailedException&) {
        return false;
    }
}

}  // namespace

int DispatchRegistry(RegistryComponent* component, const nk_message* request, const nk_arena* /*requestArena*/,
                     nk_message* response, nk_arena* responseArena) noexcept
{
    if (response == nullptr)
        return kRefused;
    if (component == nullptr || component->registry == nullptr || request == nullptr)
        return ErrorReply(response, 0, 0, eka::result::InvalidArgument);
    if (request->riid != component->riid)
        return ErrorReply(response, request->riid, request->mid, eka::result::InvalidArgument);
    IRegistry& registry = *component->registry;
    const Exchange x{registry, request, response, responseArena, component->riid};

    switch (static_cast<Method>(request->mid)) {
    case Method::Open:
        return Serve<nv_IUpdateRegistry_Open_req, nv_IUpdateRegistry_Open_res>(
            x, Method::Open, 0, [&](const auto& in, auto& out, nk_arena&) {
                PackageType type{};
                if (!Converted([&] { type = ToPackageType(in.type); }))
                    return eka::result::InvalidArgument;
                return registry.Open(type, out.handle.handle);
            });
    case Method::Close:
        return Serve<nv_IUpdateRegistry_Close_req, nv_IUpdateRegistry_Close_res>(
            x, Method::Close, 0,
            [&](const auto& in, auto&, nk_arena&) { return registry.Close(HandleFromWire(in.handle.handle)); });
    case Method::GetSessions:
        return Serve<nv_IUpdateRegistry_GetSessions_req, nv_IUpdateRegistry_GetSessions_res>(
            x, Method::GetSessions, kGetSessionsArenaSize, [&](const auto&, auto& out, nk_arena& window) {
                std::vector<SessionInfo> sessions;
                const int rc = registry.GetSessions(sessions);
                Encode(sessions, window, out.sessions);
                return rc;
            });
    case Method::GetHandle:
        return Serve<nv_IUpdateRegistry_GetHandle_req, nv_IUpdateRegistry_GetHandle_res>(
            x, Method::GetHandle, 0, [&](const auto& in, auto& out, nk_arena&) {
                eka::guid_t id;
                std::memcpy(id.bytes.data(), in.id, sizeof(in.id));
                return registry.GetHandle(id, out.handle.handle);
            });
    case Method::SetState:
        return Serve<nv_IUpdateRegistry_SetState_req, nv_IUpdateRegistry_SetState_res>(
            x, Method::SetState, 0, [&](const auto& in, auto&, nk_arena&) {
                UpdateState state{};
                if (!Converted([&] { state = ToUpdateState(in.state); }))
                    return eka::result::InvalidArgument;
                return registry.SetState(HandleFromWire(in.handle.handle), state);
            });
    case Method::GetInfo:
        return Serve<nv_IUpdateRegistry_GetInfo_req, nv_IUpdateRegistry_GetInfo_res>(
            x, Method::GetInfo, kGetInfoArenaSize, [&](const auto& in, auto& out, nk_arena& window) {
                SessionInfo info;
                const int rc = registry.GetInfo(HandleFromWire(in.handle.handle), info);
                // Made apart: the compiler may build a returned record in
                // its destination, and one that does not fit must leave the
                // answer's record zero.
                const nv_IUpdateRegistry_SessionInfo record = FromSessionInfo(info, window);
                out.info = record;
                return rc;
            });
    }
    return ErrorReply(response, request->riid, request->mid, eka::result::MethodNotFound);
}

}  // namespace update::registry::ipc
