#include "support/scripted_transport.h"

#include <algorithm>
#include <stdexcept>

namespace test_support {
namespace {
ScriptedTransport* g_current = nullptr;
}  // namespace

ScriptedTransport::ScriptedTransport(std::vector<ScriptStep> script) : m_script(std::move(script))
{
    if (g_current != nullptr)
        throw std::logic_error("one scripted transport at a time");
    g_current = this;
}

ScriptedTransport::~ScriptedTransport() { g_current = nullptr; }

const NkNosTransportOps* ScriptedTransport::Ops()
{
    static constexpr NkNosTransportOps ops = {nullptr, Receive, Reply};
    return &ops;
}

Retcode ScriptedTransport::Receive(NkNosTransport* t, nk_message* request, nk_arena* arena)
{
    ScriptedTransport& self = *g_current;
    self.channel = t->handle;
    self.sync = t->sync;
    self.offers.push_back({request->size, *arena});
    if (self.m_next == self.m_script.size())
        return kEndOfScript;
    const ScriptStep& step = self.m_script[self.m_next++];
    const size_t room = static_cast<size_t>(arena->end - arena->current);
    const size_t message = std::min<size_t>(step.request.size(), nk_msg_size(request));
    const size_t arenaBytes = std::min(room, step.arena.size());
    if (step.receive == NK_EOK && message != 0)
        std::memcpy(request, step.request.data(), message);
    if (step.receive == NK_EOK && arenaBytes != 0) {
        std::memcpy(arena->current, step.arena.data(), arenaBytes);
        arena->current += arenaBytes;
    }
    return step.receive;
}

Retcode ScriptedTransport::Reply(NkNosTransport* /*t*/, const nk_message* response, const nk_arena* arena)
{
    ScriptedTransport& self = *g_current;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(response);
    self.replies.push_back({Bytes(bytes, bytes + nk_msg_size(response)), *arena});
    return self.m_script[self.m_next - 1].reply;
}

}  // namespace test_support
