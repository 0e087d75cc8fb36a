// Static mode over the host platform: the channel from the service locator,
// served to real client processes.
#include "harness.h"

#include <nos/service_locator.h>

namespace ipc_test {
namespace {

class StaticServerTest : public RuntimeDirTest {
protected:
    nos::ipc::ServerContext Context(std::string serviceName, std::uint64_t threads = 1)
    {
        nos::ipc::ServerContext context;
        context.logger = m_log.Logger();
        context.serviceName = std::move(serviceName);
        context.staticThreadsCount = threads;
        return context;
    }

    // Closes the served channel under the threads: each ends with the
    // transport's -9.
    void FailChannel(Handle channel, size_t threads)
    {
        ASSERT_EQ(ServiceLocatorUnregister(channel), NK_EOK);
        const std::string line =
            "IpcThread with handle=" + std::to_string(channel) + " stopped with error code " + std::to_string(NK_EBADF);
        const auto last = m_log.WaitFor(line, threads);
        ASSERT_TRUE(last.has_value());
        EXPECT_TRUE(last->isError);
    }

    LogCapture m_log;
    EchoEntity m_entity;
};

TEST_F(StaticServerTest, StartThreads_ServesClientProcessesOnEveryThread)
{
    m_entity.returnCode = -1;  // not inspected: every reply still goes out
    EchoServer server(&m_entity, EchoDispatch, Context("echo", 2));
    server.StartThreads();
    const Handle channel = WaitForServedHandle(m_log);
    ASSERT_NE(channel, INVALID_HANDLE);
    ASSERT_TRUE(m_log.WaitFor("NkNosTransport initialized with handle", 2));

    ClientProcess first({"static", "echo", "1", "2", "3"});
    ClientProcess second({"static", "echo", "10", "20"});
    for (auto* client : {&first, &second})
        EXPECT_EQ(client->ReadLine().value_or("<none>"), "connected 0");
    for (const char* expected : {"reply 2 -1", "reply 4 -1", "reply 6 -1"})
        EXPECT_EQ(first.ReadLine().value_or("<none>"), expected);
    for (const char* expected : {"reply 20 -1", "reply 40 -1"})
        EXPECT_EQ(second.ReadLine().value_or("<none>"), expected);
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(m_entity.dispatched, 5);

    FailChannel(channel, 2);
    server.JoinThreads();
    EXPECT_EQ(m_log.Lines().size(), 4u);
}

TEST_F(StaticServerTest, IpcThread_ClientGoneBeforeReplyKeepsLoopGoing)
{
    Gate gate;
    m_entity.onRequest = [&gate](const EchoRequest& request) {
        if (request.value == 5)
            gate.Enter();
    };
    EchoServer server(&m_entity, EchoDispatch, Context("echo"));
    server.StartThreads();
    const Handle channel = WaitForServedHandle(m_log);

    {
        ClientProcess leaving({"static", "echo", "5"});
        ASSERT_TRUE(gate.WaitEntered());
        leaving.Kill();
        EXPECT_EQ(leaving.Wait(), 128 + SIGKILL);
    }
    gate.Open();  // the reply finds its client gone: -11, and the loop goes on

    ClientProcess next({"static", "echo", "7"});
    EXPECT_EQ(next.ReadLine().value_or("<none>"), "connected 0");
    EXPECT_EQ(next.ReadLine().value_or("<none>"), "reply 14 0");
    EXPECT_EQ(next.Wait(), 0);
    EXPECT_EQ(m_log.Lines(),
              (std::vector<LogCapture::Line>{{"NkNosTransport initialized with handle " + std::to_string(channel), false}}));

    FailChannel(channel, 1);
}

TEST_F(StaticServerTest, RequestStop_ThreadEndsAfterItsCurrentExchange)
{
    EchoServer server(&m_entity, EchoDispatch, Context("echo"));
    server.StartThreads();
    WaitForServedHandle(m_log);
    server.RequestStop();

    ClientProcess client({"static", "echo", "4", "5"});
    EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 0");
    EXPECT_EQ(client.ReadLine().value_or("<none>"), "reply 8 0");
    server.JoinThreads();
    EXPECT_EQ(m_log.Lines().back(), (LogCapture::Line{"IPC server has stopped", false}));
    EXPECT_EQ(m_entity.dispatched, 1);
}

TEST_F(StaticServerTest, StartThreads_SkipStaticThreadsStartsNothing)
{
    auto context = Context("echo");
    context.skipStaticThreads = true;
    {
        EchoServer server(&m_entity, EchoDispatch, context);
        server.StartThreads();
        server.JoinThreads();
        EXPECT_EQ(RuntimeFiles(), (std::vector<std::string>{"echo.endpoints", "echo.sock"}));
    }
    EXPECT_TRUE(m_log.Lines().empty());
    // Destruction unregistered the channel.
    EXPECT_TRUE(RuntimeFiles().empty());
    EXPECT_EQ(ServiceLocatorConnect("echo"), INVALID_HANDLE);
}

TEST_F(StaticServerTest, StartThreads_DynamicThreadWithoutConnectionLogsFailedCheck)
{
    auto context = Context("echo");
    context.skipStaticThreads = true;
    context.dynamicThreadsCount = 1;
    EchoServer server(&m_entity, EchoDispatch, context);
    server.StartThreads();
    server.JoinThreads();
    EXPECT_EQ(m_log.Lines(), (std::vector<LogCapture::Line>{
                                 {"Exception Boolean expression \"handle != (0xffffffffU)\" is false in function IpcThread",
                                  true}}));
}

TEST_F(StaticServerTest, Server_FailedChecksThrowAndLeaveNothingRegistered)
{
    EchoServer busy(&m_entity, EchoDispatch, Context("busy"));
    const std::vector<std::string> before = RuntimeFiles();

    struct FailCase {
        const char* name;
        EchoEntity* entity;
        EchoServer::DispatchFn dispatch;
        std::string serviceName;
        const char* function;
        std::uint32_t line;
        const char* message;
    };
    const char* const noChannel =
        "Boolean expression \"m_autoService && (m_autoService->GetHandle() != (0xffffffffU))\" is false";
    const std::vector<FailCase> cases = {
        {"no entity", nullptr, EchoDispatch, "echo", "Server", 68, "Boolean expression \"m_entity\" is false"},
        {"no dispatch", &m_entity, nullptr, "echo", "Server", 69, "Boolean expression \"m_entityDispatchFn\" is false"},
        {"name the locator rejects", &m_entity, EchoDispatch, "no such/channel", "InitStatic", 130, noChannel},
        {"empty name", &m_entity, EchoDispatch, "", "InitStatic", 130, noChannel},
        {"channel already served", &m_entity, EchoDispatch, "busy", "InitStatic", 130, noChannel},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        try {
            EchoServer server(c.entity, c.dispatch, Context(c.serviceName));
            ADD_FAILURE() << "constructed";
        } catch (const nos::rtl::Exception& e) {
            EXPECT_STREQ(e.what(), c.message);
            EXPECT_EQ(static_cast<std::uint32_t>(e.GetResult()), 0x9000000Du);
            EXPECT_STREQ(e.GetLocation().file_name(), "component/fdn/ipc/server");
            EXPECT_STREQ(e.GetLocation().function_name(), c.function);
            EXPECT_EQ(e.GetLocation().line(), c.line);
        }
        EXPECT_EQ(RuntimeFiles(), before);
    }
    EXPECT_TRUE(m_log.Lines().empty());
}

}  // namespace
}  // namespace ipc_test
