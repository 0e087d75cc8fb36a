#include "update/registry/ipc/proxy.h"

#include <sys/mman.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>

#include "common/utils/manage_exception.h"
#include "eka/exception.h"
#include "eka/posix/result_code.h"
#include "eka/result_code.h"
#include "eka/throw.h"
#include "update/registry/ipc/enum_converters.h"
#include "update/registry/ipc/session_converters.h"
#include "wire_support.h"

namespace update::registry::ipc {
namespace {

using wire::SetHeader;

constexpr const char* kFile = "shared/updater_pdk/registry_api/src/proxy";
// Fixed locations of the transport failures, indexed by Method (Open,
// Close, GetSessions, GetHandle, SetState, GetInfo), and of a session list
// out of bounds.
constexpr std::array<int, kMethodCount> kTransportFailLines{31, 51, 70, 99, 119, 140};
constexpr int kGetSessionsArenaLine = 74;

constexpr std::size_t kRecordSize = sizeof(nv_IUpdateRegistry_SessionInfo);

// A handle descriptor as a request carries it, and as a response is preset
// before the call.
constexpr nk_handle_desc RequestHandle(unsigned int handle) noexcept { return {handle, 1, 0x00000000FFFFFFFFull}; }
constexpr nk_handle_desc kUnansweredHandle{kNoHandle, 0, 0x00000000FFFFFFFFull};

// One response arena in its own anonymous mapping: an 8-byte header that
// holds the block's total size, then the arena. Unmapped on every way out.
class MappedArena {
public:
    explicit MappedArena(std::size_t arenaSize) : m_blockSize(arenaSize + kHeaderSize)
    {
        void* block = mmap(nullptr, m_blockSize, PROT_READ | PROT_WRITE, MAP_ANONYMOUS | MAP_PRIVATE, -1, 0);
        if (block == MAP_FAILED) {
            const int error = errno;
            eka::Throw<eka::ResultCodeException>(kFile, __LINE__,
                                                 eka::posix::ResultCodeFromSystemError(static_cast<unsigned>(error)),
                                                 u"cannot map a response arena");
        }
        m_block = static_cast<std::uint8_t*>(block);
        const std::uint64_t total = m_blockSize;
        std::memcpy(m_block, &total, sizeof(total));
        nk_arena_init(&m_arena, m_block + kHeaderSize, arenaSize);
    }
    ~MappedArena() { munmap(m_block, m_blockSize); }

    MappedArena(const MappedArena&) = delete;
    MappedArena& operator=(const MappedArena&) = delete;

    nk_arena& arena() noexcept { return m_arena; }

private:
    static constexpr std::size_t kHeaderSize = 8;

    std::size_t m_blockSize;
    std::uint8_t* m_block = nullptr;
    nk_arena m_arena{};
};

// An error reply carries a code at byte 24 instead of the method's fields;
// a reply shorter than the method's layout would be read as zeros.
template <typename Res>
void CheckReply(const Res& response)
{
    if (nk_msg_is_error(&response.base_)) {
        std::int32_t code = 0;
        std::memcpy(&code, reinterpret_cast<const std::uint8_t*>(&response) + sizeof(nk_message), sizeof(code));
        eka::Throw(kFile, __LINE__,
                   eka::CheckResultFailedException(eka::Failed(code) ? code : eka::result::InvalidResult,
                                                   "error reply"));
    }
    if (nk_msg_size(&response.base_) < sizeof(Res))
        eka::Throw(kFile, __LINE__, eka::CheckFailedException(u"short reply: ") << nk_msg_size(&response.base_));
}

}  // namespace

Proxy::Proxy(std::string_view connectionName, std::string_view interfaceName)
    : ProxyBase(connectionName, interfaceName), m_client{&m_transport, m_riid}
{
}

template <typename Req, typename Res, typename Prepare, typename Decode>
int Proxy::Call(Method method, std::size_t arenaSize, Prepare&& prepare, Decode&& decode) const noexcept
{
    const wire::MethodTraits& traits = wire::Traits(method);
    try {
        Req request{};
        Res response{};
        prepare(request);
        SetHeader(request, m_client.riid, method, traits.requestCarriesHandle);
        SetHeader(response, m_client.riid, method, traits.responseCarriesHandle);
        if constexpr (requires { response.handle; })
            response.handle = kUnansweredHandle;
        std::optional<MappedArena> mapped;
        if (arenaSize != 0)
            mapped.emplace(arenaSize);
        nk_arena* arena = mapped ? &mapped->arena() : nullptr;

        NkNosTransport* const transport = m_client.transport;
        const Retcode rc = transport->ops->call(transport, &request.base_, nullptr, &response.base_, arena);
        if (rc != NK_EOK)
            eka::Throw(kFile, kTransportFailLines[static_cast<std::size_t>(method)],
                       eka::CheckFailedException(u"transport fail: ") << rc);
        CheckReply(response);
        return decode(response, arena);
    } catch (...) {
        return common::utils::ManageException("", traits.name);
    }
}

int Proxy::Open(PackageType type, unsigned int& handle)
{
    return Call<nv_IUpdateRegistry_Open_req, nv_IUpdateRegistry_Open_res>(
        Method::Open, 0, [&](auto& request) { request.type = FromPackageType(type); },
        [&](const auto& response, nk_arena*) {
            handle = HandleFromWire(response.handle.handle);
            return response.result;
        });
}

int Proxy::Close(unsigned int handle)
{
    return Call<nv_IUpdateRegistry_Close_req, nv_IUpdateRegistry_Close_res>(
        Method::Close, 0, [&](auto& request) { request.handle = RequestHandle(handle); },
        [](const auto& response, nk_arena*) { return response.result; });
}

int Proxy::GetSessions(std::vector<SessionInfo>& sessions) const
{
    return Call<nv_IUpdateRegistry_GetSessions_req, nv_IUpdateRegistry_GetSessions_res>(
        Method::GetSessions, kGetSessionsArenaSize, [](auto&) {},
        [&](const auto& response, nk_arena* arena) {
            SessionsFromArena(response.sessions, *arena, sessions);
            return response.result;
        });
}

void SessionsFromArena(nk_arena_desc sequence, nk_arena& arena, std::vector<SessionInfo>& sessions)
{
    const auto* records = static_cast<const std::uint8_t*>(nk_arena_get(&arena, sequence));
    if (records == nullptr || sequence.size % kRecordSize != 0)
        eka::Throw(kFile, kGetSessionsArenaLine, eka::CheckFailedException(u"cannot get sessions from arena"));
    const std::size_t count = sequence.size / kRecordSize;
    sessions.clear();
    sessions.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
        // Records need not be aligned in the arena.
        nv_IUpdateRegistry_SessionInfo record;
        std::memcpy(&record, records + i * kRecordSize, kRecordSize);
        sessions.push_back(ToSessionInfo(record, arena));
    }
}

int Proxy::GetHandle(const eka::guid_t& id, unsigned int& handle) const
{
    return Call<nv_IUpdateRegistry_GetHandle_req, nv_IUpdateRegistry_GetHandle_res>(
        Method::GetHandle, 0, [&](auto& request) { std::memcpy(request.id, id.bytes.data(), sizeof(request.id)); },
        [&](const auto& response, nk_arena*) {
            handle = HandleFromWire(response.handle.handle);
            return response.result;
        });
}

int Proxy::SetState(unsigned int handle, UpdateState state)
{
    return Call<nv_IUpdateRegistry_SetState_req, nv_IUpdateRegistry_SetState_res>(
        Method::SetState, 0,
        [&](auto& request) {
            request.state = FromUpdateState(state);
            request.handle = RequestHandle(handle);
        },
        [](const auto& response, nk_arena*) { return response.result; });
}

int Proxy::GetInfo(unsigned int handle, SessionInfo& info) const
{
    return Call<nv_IUpdateRegistry_GetInfo_req, nv_IUpdateRegistry_GetInfo_res>(
        Method::GetInfo, kGetInfoArenaSize, [&](auto& request) { request.handle = RequestHandle(handle); },
        [&](const auto& response, nk_arena* arena) {
            // The record replaces `info` whatever the result says.
            info = ToSessionInfo(response.info, *arena);
            return response.result;
        });
}

std::unique_ptr<IRegistry> CreateProxy(std::string_view connectionName, std::string_view interfaceName)
{
    return std::make_unique<Proxy>(connectionName, interfaceName);
}

}  // namespace update::registry::ipc
