// The request loop of an IPC thread against a scripted transport: which
// codes keep it going, what it offers to each receive, and how it ends.
#include "harness.h"

#include <nos/kernel.h>
#include <nos/transport.h>

#include <stdexcept>

namespace ipc_test {
namespace {

// What the scripted receive writes into the size word of every request: a
// size, bit 31 and a pattern in the platform's bits 23-30.
constexpr std::uint32_t kScribbledSizeWord = NK_MSG_ERROR_FLAG | (0x5Au << 23) | 20u;
// Receive code once the script is used up: outside every ignored set.
constexpr Retcode kEndOfScript = -5;

struct Step {
    Retcode receive = NK_EOK;
    Retcode reply = NK_EOK;
};

// A transport whose receive and reply return scripted codes and record what
// the server offered. Touched by one IPC thread; read after it is joined.
class ScriptedTransport {
public:
    struct Offer {
        std::uint32_t sizeWord;
        nk_arena requestArena;
    };

    explicit ScriptedTransport(std::vector<Step> steps) : m_steps(std::move(steps)) { s_current = this; }
    ~ScriptedTransport() { s_current = nullptr; }

    static const NkNosTransportOps* Ops()
    {
        static constexpr NkNosTransportOps ops = {nullptr, Receive, Reply};
        return &ops;
    }

    std::vector<Offer> offers;                // one per receive
    std::vector<std::uint32_t> deliveredValues;  // one per successful receive
    std::vector<std::uint32_t> repliedValues;    // one per reply
    std::vector<nk_arena> responseArenas;      // one per reply
    Handle channel = INVALID_HANDLE;
    Handle sync = INVALID_HANDLE;

private:
    static Retcode Receive(NkNosTransport* t, nk_message* request, nk_arena* arena)
    {
        ScriptedTransport& self = *s_current;
        self.channel = t->handle;
        self.sync = t->sync;
        self.offers.push_back({request->size, *arena});
        auto& echo = *reinterpret_cast<EchoRequest*>(request);
        echo.header.size = kScribbledSizeWord;
        echo.value = static_cast<std::uint32_t>(self.offers.size());
        if (arena->current + 8 <= arena->end)
            arena->current += 8;  // as if 8 bytes of variable data came
        if (self.m_next == self.m_steps.size())
            return kEndOfScript;
        const Step step = self.m_steps[self.m_next++];
        self.m_pendingReply = step.reply;
        if (step.receive == NK_EOK)
            self.deliveredValues.push_back(echo.value);
        return step.receive;
    }

    static Retcode Reply(NkNosTransport* /*t*/, const nk_message* response, const nk_arena* arena)
    {
        ScriptedTransport& self = *s_current;
        self.repliedValues.push_back(reinterpret_cast<const EchoResponse*>(response)->value);
        self.responseArenas.push_back(*arena);
        return self.m_pendingReply;
    }

    static inline ScriptedTransport* s_current = nullptr;
    std::vector<Step> m_steps;
    size_t m_next = 0;
    Retcode m_pendingReply = NK_EOK;
};

class ServerLoopTest : public RuntimeDirTest {
protected:
    // Serves the script on one static thread until the thread ends.
    template <typename ServerType = EchoServer>
    void Run(ScriptedTransport& transport, std::set<std::int32_t> ignored = {NK_EAGAIN}, bool stop = false)
    {
        nos::ipc::ServerContext context;
        context.logger = m_log.Logger();
        context.serviceName = "loop";
        context.ignoredErrors = std::move(ignored);
        {
            ServerType server(&m_entity, EchoDispatch, context);
            server.SetTransportOpsForTesting(ScriptedTransport::Ops());
            if (stop)
                server.RequestStop();
            server.StartThreads();
            server.JoinThreads();
        }
        // The destructor closed the thread's synchronisation object.
        EXPECT_EQ(KnHandleClose(transport.sync), NK_EBADF);
    }

    std::string InitLine(const ScriptedTransport& t) const
    {
        return "NkNosTransport initialized with handle " + std::to_string(t.channel);
    }

    LogCapture m_log;
    EchoEntity m_entity;
};

struct LoopCase {
    const char* name;
    std::set<std::int32_t> ignored;
    std::vector<Step> steps;
    bool stop;
    int dispatchResult;
    int served;           // dispatches, and replies
    Retcode endCode;      // the code that ends the thread; 0 when the stop flag does
};

TEST_F(ServerLoopTest, IpcThread_CodesThatKeepOrEndTheLoop)
{
    const Retcode eagain = NK_EAGAIN;
    const std::vector<LoopCase> cases = {
        {"again from receive", {eagain}, {{NK_EOK}, {eagain}, {NK_EOK}}, false, 0, 2, kEndOfScript},
        {"again from reply", {eagain}, {{NK_EOK, eagain}, {NK_EOK}}, false, 0, 2, kEndOfScript},
        {"other receive code", {eagain}, {{NK_EOK}, {NK_EPIPE}, {NK_EOK}}, false, 0, 1, NK_EPIPE},
        {"other reply code", {eagain}, {{NK_EOK, NK_EINVAL}, {NK_EOK}}, false, 0, 1, NK_EINVAL},
        {"configured set replaces the default", {NK_EPIPE}, {{NK_EPIPE}, {eagain}}, false, 0, 0, eagain},
        {"failed dispatch is still answered", {eagain}, {{NK_EOK}, {NK_EOK}}, false, -1, 2, kEndOfScript},
        {"stop after a served request", {eagain}, {{NK_EOK}, {NK_EOK}}, true, 0, 1, NK_EOK},
        {"stop after an ignored code", {eagain}, {{eagain}}, true, 0, 0, NK_EOK},
        {"stop wins over a failing code", {eagain}, {{NK_EPIPE}}, true, 0, 0, NK_EOK},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.Clear();
        m_entity.dispatched = 0;
        m_entity.returnCode = c.dispatchResult;
        ScriptedTransport transport(c.steps);
        Run(transport, c.ignored, c.stop);

        EXPECT_EQ(m_entity.dispatched, c.served);
        ASSERT_EQ(transport.deliveredValues.size(), static_cast<size_t>(c.served));
        ASSERT_EQ(transport.repliedValues.size(), static_cast<size_t>(c.served));
        for (size_t i = 0; i < transport.repliedValues.size(); ++i)
            EXPECT_EQ(transport.repliedValues[i], 2 * transport.deliveredValues[i]);
        const LogCapture::Line last =
            c.endCode == NK_EOK
                ? LogCapture::Line{"IPC server has stopped", false}
                : LogCapture::Line{"IpcThread with handle=" + std::to_string(transport.channel) +
                                       " stopped with error code " + std::to_string(c.endCode),
                                   true};
        EXPECT_EQ(m_log.Lines(), (std::vector<LogCapture::Line>{{InitLine(transport), false}, last}));
    }
}

TEST_F(ServerLoopTest, IpcThread_ResetsSizeWordAndEmptiesArenas)
{
    ScriptedTransport transport({{NK_EOK}, {NK_EAGAIN}, {NK_EOK}});
    Run(transport);

    ASSERT_EQ(transport.offers.size(), 4u);
    // The first offer comes from a zeroed buffer; later ones keep the
    // platform bits the transport left and lose bit 31 and the old size.
    EXPECT_EQ(transport.offers[0].sizeWord, sizeof(EchoRequest));
    for (size_t i = 1; i < transport.offers.size(); ++i)
        EXPECT_EQ(transport.offers[i].sizeWord, (0x5Au << 23) | sizeof(EchoRequest)) << "offer " << i;
    for (const auto& offer : transport.offers) {
        EXPECT_EQ(offer.requestArena.start, offer.requestArena.current);
        EXPECT_EQ(offer.requestArena.current, offer.requestArena.end);
    }
}

TEST_F(ServerLoopTest, IpcThread_ArenasOfferTheirWholeBufferEachTime)
{
    using ArenaServer = nos::ipc::Server<EchoEntity, EchoRequest, 64, EchoResponse, 16>;
    ScriptedTransport transport({{NK_EOK}, {NK_EOK}});
    Run<ArenaServer>(transport);

    ASSERT_EQ(transport.offers.size(), 3u);
    for (const auto& offer : transport.offers) {
        EXPECT_NE(offer.requestArena.start, nullptr);
        EXPECT_EQ(offer.requestArena.current, offer.requestArena.start);
        EXPECT_EQ(offer.requestArena.end - offer.requestArena.start, 64);
    }
    ASSERT_EQ(transport.responseArenas.size(), 2u);
    for (const auto& arena : transport.responseArenas) {
        EXPECT_EQ(arena.current, arena.start);
        EXPECT_EQ(arena.end - arena.start, 16);
    }
}

TEST_F(ServerLoopTest, IpcThread_ExceptionsEndOnlyThatThreadWithOneLine)
{
    struct ThrowCase {
        const char* name;
        std::function<void(const EchoRequest&)> hook;
        std::string line;
    };
    const std::vector<ThrowCase> cases = {
        {"standard exception", [](const EchoRequest&) { throw std::runtime_error("boom"); },
         "Exception boom in function IpcThread"},
        {"anything else", [](const EchoRequest&) { throw 42; }, "Unknown exception in function IpcThread"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.Clear();
        m_entity.onRequest = c.hook;
        ScriptedTransport transport({{NK_EOK}, {NK_EOK}});
        Run(transport);
        EXPECT_EQ(transport.offers.size(), 1u);
        EXPECT_TRUE(transport.repliedValues.empty());
        EXPECT_EQ(m_log.Lines(), (std::vector<LogCapture::Line>{{InitLine(transport), false}, {c.line, true}}));
    }
}

}  // namespace
}  // namespace ipc_test
