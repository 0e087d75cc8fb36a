// Dynamic mode over the host platform: services published on the name
// server, connections accepted by the connection manager.
#include "harness.h"

#include <nos/kernel.h>

#include <gmock/gmock.h>

namespace ipc_test {
namespace {

class DynamicServerTest : public RuntimeDirTest {
protected:
    nos::ipc::ServerContext Context(std::vector<nos::ipc::DynamicIpcDescriptor> descriptors)
    {
        nos::ipc::ServerContext context;
        context.logger = m_log.Logger();
        context.descriptors = std::move(descriptors);
        context.staticThreadsCount = 1;
        context.dynamicThreadsCount = 1;
        context.skipStaticThreads = true;
        return context;
    }

    LogCapture m_log;
    EchoEntity m_entity;
};

TEST_F(DynamicServerTest, StartThreads_ServesConnectionAcceptedByManager)
{
    {
        EchoServer server(&m_entity, EchoDispatch, Context({{"test.Echo", "echo", 7}}));
        EXPECT_EQ(RuntimeFiles().size(), 2u);  // the service record and the manager's socket

        ClientProcess client({"dynamic", "echo", "3", "4"});
        server.StartThreads();  // returns once the client's connection is accepted
        EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 7");
        EXPECT_EQ(client.ReadLine().value_or("<none>"), "reply 6 0");
        EXPECT_EQ(client.ReadLine().value_or("<none>"), "reply 8 0");
        EXPECT_EQ(client.Wait(), 0);

        // Its channel goes: the thread ends, the server can be destroyed.
        const Handle channel = WaitForServedHandle(m_log);
        ASSERT_EQ(KnHandleClose(channel), NK_EOK);
        ASSERT_TRUE(m_log.WaitFor("IpcThread with handle=" + std::to_string(channel) + " stopped with error code " +
                                  std::to_string(NK_EBADF)));
    }
    const auto lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(lines[0], (LogCapture::Line{"Registered NameServer service echo, type test.Echo", false}));
    EXPECT_EQ(lines[1], (LogCapture::Line{"ConnectionManager: worker start", false}));
    EXPECT_THAT(lines[2].text, ::testing::StartsWith("NkNosTransport initialized with handle "));
    EXPECT_TRUE(lines[3].isError);
    EXPECT_EQ(lines[4], (LogCapture::Line{"ConnectionManager: worker stop", false}));
    EXPECT_TRUE(RuntimeFiles().empty());  // withdrawn
    EXPECT_EQ(m_entity.dispatched, 2);
}

TEST_F(DynamicServerTest, Server_DuplicateServicesKeepFirstRiidAndAllAreWithdrawn)
{
    auto server = std::make_unique<EchoServer>(&m_entity, EchoDispatch,
                                               Context({{"test.Echo", "echo", 3}, {"test.Echo", "echo", 5}}));
    EXPECT_EQ(m_log.Count("Registered NameServer service echo, type test.Echo"), 2u);

    // Accepted, but no server thread ever takes the connection.
    ClientProcess client({"dynamic", "echo", "wait", "1"});
    EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 3");
    server.reset();

    EXPECT_TRUE(RuntimeFiles().empty());
    ClientProcess late({"dynamic", "echo"});
    EXPECT_EQ(late.ReadLine().value_or("<none>"), "connect failed " + std::to_string(NK_ENOENT));
    // The manager closed the connection nobody took.
    client.WriteLine("go");
    EXPECT_THAT(client.ReadLine().value_or("<none>"), ::testing::StartsWith("call failed "));
}

TEST_F(DynamicServerTest, Server_FailedDynamicSetUpThrowsAndWithdrawsEverything)
{
    struct FailCase {
        const char* name;
        std::vector<nos::ipc::DynamicIpcDescriptor> descriptors;
        std::uint64_t dynamicThreads;
        std::uint32_t line;
        const char* message;
        std::vector<LogCapture::Line> log;
    };
    const std::vector<FailCase> cases = {
        // One "Registered" line per descriptor, published or not, after all.
        {"thread counts differ", {{"test.Echo", "echo", 3}, {"bad type", "other", 4}}, 2, 166,
         "Boolean expression \"m_staticThreadsCount == m_dynamicThreadsCount\" is false",
         {{"NameServer service other, type bad type not published: error code -22", true},
          {"Registered NameServer service echo, type test.Echo", false},
          {"Registered NameServer service other, type bad type", false}}},
        {"riid the manager refuses", {{"test.Echo", "echo", 65535}}, 1, 173,
         "Boolean expression \"m_connectionManager && m_connectionManager->Start()\" is false",
         {{"Registered NameServer service echo, type test.Echo", false},
          {"ConnectionManager: user plan contains invalid riid or group id", true},
          {"Exception ConnectionManager: invalid configuration in function InitDynamic", true}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.Clear();
        auto context = Context(c.descriptors);
        context.dynamicThreadsCount = c.dynamicThreads;
        try {
            EchoServer server(&m_entity, EchoDispatch, context);
            ADD_FAILURE() << "constructed";
        } catch (const nos::rtl::Exception& e) {
            EXPECT_STREQ(e.what(), c.message);
            EXPECT_EQ(static_cast<std::uint32_t>(e.GetResult()), 0x9000000Du);
            EXPECT_STREQ(e.GetLocation().function_name(), "InitDynamic");
            EXPECT_EQ(e.GetLocation().line(), c.line);
        }
        EXPECT_EQ(m_log.Lines(), c.log);
        EXPECT_TRUE(RuntimeFiles().empty());
    }
}

}  // namespace
}  // namespace ipc_test
