// The component IPC server: its request loop on a scripted transport, and
// its static and dynamic modes on the host platform.
#include "echo_component.h"
#include "support/log_capture.h"
#include "support/runtime_dir.h"
#include "support/scripted_transport.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <future>

namespace ipc_test {
namespace {

using namespace test_support;

// What the scripted receive writes into the size word: a size, bit 31 and
// a pattern in the platform's bits 23-30.
constexpr std::uint32_t kScribbled = NK_MSG_ERROR_FLAG | (0x5Au << 23) | 20u;
const std::string kInit = "NkNosTransport initialized with handle ";

Bytes Request(std::uint32_t value)
{
    EchoRequest request{};
    request.header.size = kScribbled;
    request.value = value;
    return BytesOf(request);
}

LogLine Stopped(Handle handle, Retcode rc)
{
    return {"IpcThread with handle=" + std::to_string(handle) + " stopped with error code " + std::to_string(rc), kError};
}

// One call of `value` on the client channel `handle`.
Retcode Call(Handle handle, std::uint32_t value, EchoResponse& reply)
{
    EchoRequest request{};
    nk_msg_set_size(&request.header, sizeof request);
    request.value = value;
    reply = EchoResponse{};
    nk_msg_set_size(&reply.header, sizeof reply);
    NkNosTransport t{};
    const Retcode rc = NkNosTransport_Init(&t, handle, nullptr, 0);
    return rc != NK_EOK ? rc : t.ops->call(&t, &request.header, nullptr, &reply.header, nullptr);
}

struct Connected {
    Retcode rc = NK_EOK;
    Handle handle = INVALID_HANDLE;
    std::uint32_t riid = INVALID_RIID;
};

std::future<Connected> ConnectDynamic(const char* service)
{
    return std::async(std::launch::async, [service] {
        Connected c;
        c.rc = KnCmConnect(service, 5000, &c.handle, &c.riid);
        return c;
    });
}

class IpcServerTest : public RuntimeDirTest {
protected:
    nos::ipc::ServerContext Context(std::uint64_t threads = 1)
    {
        nos::ipc::ServerContext context;
        context.logger = log.ServerLogger();
        context.serviceName = "echo";
        context.staticThreadsCount = threads;
        return context;
    }

    // Serves the script on one static thread until the thread ends.
    template <typename ServerType = EchoServer>
    void Run(ScriptedTransport& transport, std::set<std::int32_t> ignored = {NK_EAGAIN}, bool stop = false)
    {
        auto context = Context();
        context.ignoredErrors = std::move(ignored);
        {
            ServerType server(&entity, EchoDispatch, context, transport.Ops());
            if (stop)
                server.RequestStop();
            server.StartThreads();
            server.JoinThreads();
        }
        EXPECT_EQ(KnHandleClose(transport.sync), NK_EBADF);  // closed by the destructor
    }

    // The channel of the first IPC thread, from its start line.
    Handle ServedHandle() const
    {
        const auto line = log.WaitFor(kInit);
        return line ? static_cast<Handle>(std::stoul(line->text.substr(kInit.size()))) : INVALID_HANDLE;
    }

    LogCapture log;
    EchoEntity entity;
};

TEST_F(IpcServerTest, IpcThread_CodesThatKeepOrEndTheLoop)
{
    const Retcode again = NK_EAGAIN;
    const Retcode end = ScriptedTransport::kEndOfScript;
    const ScriptStep ok = Deliver(Request(21));
    const struct {
        const char* name;
        std::set<std::int32_t> ignored;
        std::vector<ScriptStep> steps;
        bool stop;
        int dispatchResult;
        size_t served;  // dispatches, and replies
        Retcode endCode;  // the code that ends the thread; 0 when the stop flag does
        std::function<void(std::uint32_t)> hook;
        const char* exception;  // the line of an exception that ends the thread instead
    } cases[] = {
        {"again from receive", {again}, {ok, Fail(again), ok}, false, 0, 2, end, {}, nullptr},
        {"again from reply", {again}, {Deliver(Request(21), again), ok}, false, 0, 2, end, {}, nullptr},
        {"other receive code", {again}, {ok, Fail(NK_EPIPE), ok}, false, 0, 1, NK_EPIPE, {}, nullptr},
        {"other reply code", {again}, {Deliver(Request(21), NK_EINVAL), ok}, false, 0, 1, NK_EINVAL, {}, nullptr},
        {"configured set replaces the default", {NK_EPIPE}, {Fail(NK_EPIPE), Fail(again)}, false, 0, 0, again, {}, nullptr},
        {"failed dispatch is still answered", {again}, {ok, ok}, false, -1, 2, end, {}, nullptr},
        {"stop after a served request", {again}, {ok, ok}, true, 0, 1, NK_EOK, {}, nullptr},
        {"stop after an ignored code", {again}, {Fail(again)}, true, 0, 0, NK_EOK, {}, nullptr},
        {"stop wins over a failing code", {again}, {Fail(NK_EPIPE)}, true, 0, 0, NK_EOK, {}, nullptr},
        {"standard exception", {again}, {ok, ok}, false, 0, 0, end, [](std::uint32_t) { throw std::runtime_error("boom"); },
         "Exception boom in function IpcThread"},
        {"anything else thrown", {again}, {ok, ok}, false, 0, 0, end, [](std::uint32_t) { throw 42; },
         "Unknown exception in function IpcThread"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        log.Clear();
        entity.dispatched = 0;
        entity.returnCode = k.dispatchResult;
        entity.onRequest = k.hook;
        ScriptedTransport transport(k.steps);
        Run(transport, k.ignored, k.stop);

        EXPECT_EQ(entity.dispatched, static_cast<int>(k.served));
        ASSERT_EQ(transport.replies.size(), k.served);
        for (const auto& reply : transport.replies) {
            ASSERT_EQ(reply.message.size(), sizeof(EchoResponse));
            EXPECT_EQ(reinterpret_cast<const EchoResponse*>(reply.message.data())->value, 42u);
        }
        const LogLine last = k.exception    ? LogLine{k.exception, kError}
                             : k.endCode == NK_EOK ? LogLine{"IPC server has stopped", kInfo}
                                                   : Stopped(transport.channel, k.endCode);
        EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{kInit + std::to_string(transport.channel), kInfo}, last}));
    }
}

TEST_F(IpcServerTest, IpcThread_OffersItsRequestSizeAndWholeEmptyArenasEachTime)
{
    using ArenaServer = nos::ipc::Server<EchoEntity, EchoRequest, 64, EchoResponse, 16>;
    const ScriptStep step = Deliver(Request(21), NK_EOK, Bytes(8, 1));
    ScriptedTransport transport({step, Fail(NK_EAGAIN), step});
    Run<ArenaServer>(transport);

    ASSERT_EQ(transport.offers.size(), 4u);
    // The first offer comes from a zeroed buffer; later ones keep the platform
    // bits the transport left and lose bit 31 and the old size.
    for (size_t i = 0; i < transport.offers.size(); ++i) {
        const nk_arena& arena = transport.offers[i].arena;
        EXPECT_EQ(transport.offers[i].sizeWord, (i == 0 ? 0 : 0x5Au << 23) | sizeof(EchoRequest)) << "offer " << i;
        EXPECT_EQ(arena.current, arena.start);
        EXPECT_EQ(arena.end - arena.start, 64);
    }
    ASSERT_EQ(transport.replies.size(), 2u);
    for (const auto& reply : transport.replies) {
        EXPECT_EQ(reply.arena.current, reply.arena.start);
        EXPECT_EQ(reply.arena.end - reply.arena.start, 16);
    }
}

TEST_F(IpcServerTest, StartThreads_SkipsStaticThreadsAndEndsDynamicOnesWithoutAChannel)
{
    auto context = Context();
    context.skipStaticThreads = true;
    ScriptedTransport transport({});
    {
        EchoServer server(&entity, EchoDispatch, context, transport.Ops());
        server.StartThreads();
        server.JoinThreads();
        EXPECT_EQ(runtime.Files(), (std::vector<std::string>{"echo.endpoints", "echo.sock"}));
    }
    EXPECT_EQ(runtime.Files(), std::vector<std::string>{});
    EXPECT_TRUE(transport.offers.empty());
    EXPECT_EQ(log.Lines(), std::vector<LogLine>{});

    context.dynamicThreadsCount = 1;  // with no descriptors there is no manager to give it a channel
    EchoServer server(&entity, EchoDispatch, context, transport.Ops());
    server.StartThreads();
    server.JoinThreads();
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{
                               {"Exception Boolean expression \"handle != (0xffffffffU)\" is false in function IpcThread",
                                kError}}));
}

TEST_F(IpcServerTest, StartThreads_EveryStaticThreadServesUntilTheChannelFails)
{
    entity.returnCode = -1;  // not inspected: every reply still goes out
    EchoServer server(&entity, EchoDispatch, Context(2));
    server.StartThreads();
    ASSERT_TRUE(log.WaitFor(kInit, 2));
    const Handle client = ServiceLocatorConnect("echo");
    for (const std::uint32_t value : {1u, 2u, 3u}) {
        EchoResponse reply;
        ASSERT_EQ(Call(client, value, reply), NK_EOK);
        EXPECT_EQ(reply.value, 2 * value);
        EXPECT_EQ(reply.result, -1);
    }
    EXPECT_EQ(KnHandleClose(client), NK_EOK);
    const Handle channel = ServedHandle();
    ASSERT_EQ(ServiceLocatorUnregister(channel), NK_EOK);
    server.JoinThreads();
    const LogLine init{kInit + std::to_string(channel), kInfo};
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{init, init, Stopped(channel, NK_EBADF), Stopped(channel, NK_EBADF)}));
}

TEST_F(IpcServerTest, Server_FailedChecksThrowAndLeaveNothingRegistered)
{
    EchoServer busy(&entity, EchoDispatch, Context());
    const std::vector<std::string> before = runtime.Files();
    const LogLine published{"Registered NameServer service svc, type test.Echo", kInfo};
    const nos::ipc::DynamicIpcDescriptor svc{"test.Echo", "svc", 3};
    const char* const noChannel =
        "Boolean expression \"m_autoService && (m_autoService->GetHandle() != (0xffffffffU))\" is false";
    const struct {
        const char* name;
        EchoEntity* entity;
        EchoServer::DispatchFn dispatch;
        std::string service;
        std::vector<nos::ipc::DynamicIpcDescriptor> descriptors;  // none: static mode
        std::uint64_t dynamicThreads;
        const char* function;
        std::uint32_t line;
        const char* message;
        std::vector<LogLine> log;
    } cases[] = {
        {"no entity", nullptr, EchoDispatch, "other", {}, 0, "Server", 68, "Boolean expression \"m_entity\" is false", {}},
        {"no dispatch", &entity, nullptr, "other", {}, 0, "Server", 69, "Boolean expression \"m_entityDispatchFn\" is false", {}},
        {"name the locator refuses", &entity, EchoDispatch, "no such/channel", {}, 0, "InitStatic", 130, noChannel, {}},
        {"empty name", &entity, EchoDispatch, "", {}, 0, "InitStatic", 130, noChannel, {}},
        {"channel already served", &entity, EchoDispatch, "echo", {}, 0, "InitStatic", 130, noChannel, {}},
        // One "Registered" line per descriptor, published or not, after all.
        {"thread counts differ", &entity, EchoDispatch, "", {svc, {"bad type", "other", 4}}, 2, "InitDynamic", 166,
         "Boolean expression \"m_staticThreadsCount == m_dynamicThreadsCount\" is false",
         {{"NameServer service other, type bad type not published: error code -22", kError}, published,
          {"Registered NameServer service other, type bad type", kInfo}}},
        {"riid the manager refuses", &entity, EchoDispatch, "", {{"test.Echo", "svc", 65535}}, 1, "InitDynamic", 173,
         "Boolean expression \"m_connectionManager && m_connectionManager->Start()\" is false",
         {published, {"ConnectionManager: user plan contains invalid riid or group id", kError},
          {"Exception ConnectionManager: invalid configuration in function InitDynamic", kError}}},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        log.Clear();
        auto context = Context();
        context.serviceName = k.service;
        context.dynamicThreadsCount = k.dynamicThreads;
        context.descriptors = k.descriptors;
        try {
            EchoServer server(k.entity, k.dispatch, context);
            ADD_FAILURE() << "constructed";
        } catch (const nos::rtl::Exception& e) {
            EXPECT_STREQ(e.what(), k.message);
            EXPECT_EQ(static_cast<std::uint32_t>(e.GetResult()), 0x9000000Du);
            EXPECT_STREQ(e.GetLocation().file_name(), "component/fdn/ipc/server");
            EXPECT_STREQ(e.GetLocation().function_name(), k.function);
            EXPECT_EQ(e.GetLocation().line(), k.line);
        }
        EXPECT_EQ(runtime.Files(), before);
        EXPECT_EQ(log.Lines(), k.log);
    }
}

class IpcDynamicServerTest : public IpcServerTest {
protected:
    nos::ipc::ServerContext Dynamic(std::vector<nos::ipc::DynamicIpcDescriptor> descriptors)
    {
        auto context = Context();
        context.descriptors = std::move(descriptors);
        context.dynamicThreadsCount = 1;
        context.skipStaticThreads = true;
        return context;
    }
};

TEST_F(IpcDynamicServerTest, StartThreads_ServesTheConnectionsTheManagerAccepted)
{
    Handle channel = INVALID_HANDLE;
    {
        // A service named twice is published twice and keeps its first riid.
        EchoServer server(&entity, EchoDispatch, Dynamic({{"test.Echo", "echo.service", 7}, {"test.Echo", "echo.service", 9}}));
        EXPECT_EQ(runtime.Files().size(), 2u);  // the service record and the manager's socket
        auto client = ConnectDynamic("echo.service");
        server.StartThreads();  // returns once the manager accepted the connection
        const Connected connected = client.get();
        ASSERT_EQ(connected.rc, NK_EOK);
        EXPECT_EQ(connected.riid, 7u);
        EchoResponse reply;
        EXPECT_EQ(Call(connected.handle, 3, reply), NK_EOK);
        EXPECT_EQ(reply.value, 6u);
        const Connected second = ConnectDynamic("echo.service").get();  // joins the served channel
        EXPECT_EQ(Call(second.handle, 4, reply), NK_EOK);
        EXPECT_EQ(reply.value, 8u);
        channel = ServedHandle();
        ASSERT_EQ(KnHandleClose(channel), NK_EOK);  // its channel goes: the thread ends
        server.JoinThreads();
    }
    const LogLine published{"Registered NameServer service echo.service, type test.Echo", kInfo};
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{published, published, {"ConnectionManager: worker start", kInfo},
                                                 {kInit + std::to_string(channel), kInfo},
                                                 Stopped(channel, NK_EBADF),
                                                 {"ConnectionManager: worker stop", kInfo}}));
    EXPECT_EQ(runtime.Files(), std::vector<std::string>{});
}

}  // namespace
}  // namespace ipc_test
