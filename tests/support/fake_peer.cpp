#include "support/fake_peer.h"

#include <nos/kernel.h>
#include <nos/service_locator.h>
#include <nos/transport.h>
#include <nos_host/host.h>
#include <signature_verifier/signature_verifier_idl.h>

#include <algorithm>
#include <memory>
#include <stdexcept>

#include "eka/result_code.h"
#include "update/registry/ipc/dispatcher.h"
#include "vantor_logger/nvlog_record.h"

namespace test_support {
namespace {

constexpr std::uint32_t kMessageCapacity = 64 * 1024;
constexpr size_t kArenaCapacity = 8 * 1024 * 1024;

Bytes Copy(const std::uint8_t* begin, const std::uint8_t* end) { return Bytes(begin, end); }

// A reply of `Reply` type to `request`'s interface and method.
template <typename Reply>
Reply ReplyTo(const Exchanged& request)
{
    Reply reply{};
    std::memcpy(&reply, request.message.data(), 4);  // riid and mid
    nk_msg_set_size(reinterpret_cast<nk_message*>(&reply), sizeof reply);
    return reply;
}

}  // namespace

FakePeer::FakePeer(const std::string& channel, const std::vector<std::string>& endpoints, AnswerFn answer)
    : m_answer(std::move(answer)), m_spoil(CutToHeader)
{
    std::vector<const char*> names;
    for (const auto& name : endpoints)
        names.push_back(name.c_str());
    if (NosHostSetEndpoints(channel.c_str(), names.data(), names.size()) != NK_EOK ||
        (m_channel = ServiceLocatorRegister(channel.c_str(), nullptr, 0, nullptr)) == INVALID_HANDLE)
        throw std::runtime_error("cannot serve \"" + channel + "\"");
    m_thread = std::thread(&FakePeer::Serve, this);
}

FakePeer::~FakePeer()
{
    {
        std::lock_guard lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    (void)ServiceLocatorUnregister(m_channel);  // ends a receive in progress
    m_thread.join();
}

void FakePeer::SetMode(FakeMode mode, SpoilFn spoil)
{
    std::lock_guard lock(m_mutex);
    m_mode = mode;
    m_spoil = std::move(spoil);
}

std::vector<Exchanged> FakePeer::Requests() const
{
    std::lock_guard lock(m_mutex);
    return m_requests;
}

bool FakePeer::WaitRequests(size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_requests.size() >= count; });
}

void FakePeer::CutToHeader(Exchanged& reply)
{
    reply.message.resize(sizeof(nk_message));
    nk_msg_set_size(reinterpret_cast<nk_message*>(reply.message.data()), sizeof(nk_message));
}

void FakePeer::Serve()
{
    NkNosTransport transport{};
    if (NkNosTransportSync_Init(&transport, m_channel, INVALID_HANDLE, INVALID_HANDLE) != NK_EOK)
        return;
    std::vector<std::uint64_t> messageBuffer(kMessageCapacity / sizeof(std::uint64_t));
    Bytes arenaBuffer(kArenaCapacity);
    auto* request = reinterpret_cast<nk_message*>(messageBuffer.data());
    const auto* requestBytes = reinterpret_cast<const std::uint8_t*>(request);
    for (;;) {
        request->size = kMessageCapacity;
        nk_arena arena;
        nk_arena_init(&arena, arenaBuffer.data(), arenaBuffer.size());
        const Retcode rc = transport.ops->recv(&transport, request, &arena);
        if (rc == NK_EBADF)
            return;  // unregistered: the fake is going
        if (rc != NK_EOK)
            continue;
        const Exchanged received{Copy(requestBytes, requestBytes + nk_msg_size(request)),
                                 Copy(arena.start, arena.current)};
        std::unique_lock lock(m_mutex);
        m_requests.push_back(received);
        m_changed.notify_all();
        const FakeMode mode = m_mode;
        const SpoilFn spoil = m_spoil;
        if (mode == FakeMode::Never) {
            m_changed.wait(lock, [this] { return m_stopping; });
            return;
        }
        lock.unlock();
        if (mode == FakeMode::Close)
            continue;  // the next receive drops the caller left without a reply
        Exchanged reply = m_answer(received);
        if (mode == FakeMode::Garbage)
            spoil(reply);
        reply.message.resize(std::max<size_t>({reply.message.size(), sizeof(nk_message),
                                               nk_msg_size(reinterpret_cast<nk_message*>(reply.message.data()))}));
        nk_arena replyArena;
        nk_arena_init(&replyArena, reply.arena.data(), reply.arena.size());
        replyArena.current = replyArena.end;
        (void)transport.ops->reply(&transport, reinterpret_cast<const nk_message*>(reply.message.data()),
                                   &replyArena);
    }
}

namespace {

namespace reg = update::registry::ipc;

// GetInfo over the sessions; the rest is not the fake's business.
class SessionTable final : public reg::IRegistry {
public:
    explicit SessionTable(std::map<unsigned int, reg::SessionInfo> sessions) : m_sessions(std::move(sessions)) {}
    int Open(reg::PackageType, unsigned int&) override { return eka::result::NotImplemented; }
    int Close(unsigned int) override { return eka::result::NotImplemented; }
    int GetSessions(std::vector<reg::SessionInfo>&) const override { return eka::result::NotImplemented; }
    int GetHandle(const eka::guid_t&, unsigned int&) const override { return eka::result::NotImplemented; }
    int SetState(unsigned int, reg::UpdateState) override { return eka::result::NotImplemented; }
    int GetInfo(unsigned int handle, reg::SessionInfo& info) const override
    {
        const auto found = m_sessions.find(handle);
        if (found == m_sessions.end())
            return eka::result::NotFound;
        info = found->second;
        return 0;
    }

private:
    const std::map<unsigned int, reg::SessionInfo> m_sessions;
};

// The registry's dispatcher answers, as the registry entity would.
Exchanged AnswerAsRegistry(SessionTable& table, const Exchanged& in)
{
    nv_IUpdateRegistry_req request{};
    std::memcpy(&request, in.message.data(), std::min(in.message.size(), sizeof request));
    Bytes requestArenaBytes = in.arena;
    nk_arena requestArena{requestArenaBytes.data(), requestArenaBytes.data() + requestArenaBytes.size(),
                          requestArenaBytes.data() + requestArenaBytes.size()};
    nv_IUpdateRegistry_res response{};
    Bytes arenaBytes(reg::kDispatchArenaSize);
    nk_arena responseArena;
    nk_arena_init(&responseArena, arenaBytes.data(), arenaBytes.size());
    reg::RegistryComponent component{&table, 0};
    (void)reg::DispatchRegistry(&component, &request.base_, &requestArena, &response.base_, &responseArena);
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&response);
    return {Copy(bytes, bytes + nk_msg_size(&response.base_)), Copy(responseArena.start, responseArena.current)};
}

}  // namespace

FakeRegistry::FakeRegistry(std::map<unsigned int, update::registry::ipc::SessionInfo> sessions)
    : FakePeer("update_registry", {"UpdateRegistry.UpdateRegistry"},
               [table = std::make_shared<SessionTable>(std::move(sessions))](const Exchanged& in) {
                   return AnswerAsRegistry(*table, in);
               })
{
}

FakeSignatureVerifier::FakeSignatureVerifier(std::uint32_t completionCode)
    : FakePeer(NV_SIGNATURE_VERIFIER_CONNECTION, {NV_SIGNATURE_VERIFIER_ENDPOINT}, [completionCode](const Exchanged& in) {
          auto reply = ReplyTo<nv_SignatureVerifier_res>(in);
          if (completionCode != NV_SIGNATURE_VERIFIER_CC_OK) {
              reply.base.size |= NK_MSG_ERROR_FLAG;
              reply.completion_code = completionCode;
          }
          return Exchanged{BytesOf(reply), {}};
      })
{
}

FakeLogStorage::FakeLogStorage()
    : FakePeer(nos::logger::nvlog::kEntityName, {nos::logger::nvlog::kEndpointName},
               [](const Exchanged& in) { return Exchanged{BytesOf(ReplyTo<nos::logger::nvlog::StoreResponse>(in)), {}}; })
{
}

std::vector<std::string> FakeLogStorage::Lines() const
{
    std::vector<std::string> lines;
    for (const auto& request : Requests()) {
        nos::logger::nvlog::StoreRequest store{};
        std::memcpy(&store, request.message.data(), std::min(request.message.size(), sizeof store));
        const size_t from = size_t{store.record.offset} + nos::logger::nvlog::kTextOffset;
        if (from >= request.arena.size())
            continue;
        const auto* text = reinterpret_cast<const char*>(request.arena.data() + from);
        lines.emplace_back(text, strnlen(text, request.arena.size() - from));
    }
    return lines;
}

}  // namespace test_support
