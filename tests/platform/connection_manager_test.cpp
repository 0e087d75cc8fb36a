// Name server and connection manager: the test process publishes and
// accepts, client processes ask for connections.
#include "harness.h"
#include "peer_protocol.h"

#include <nos/platform.h>

#include <future>

namespace platform_test {
namespace {

using peer::Request;

class ConnectionManagerTest : public PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        ASSERT_EQ(NsCreate(nullptr, -1, &ns_), NK_EOK);
        ASSERT_EQ(NsPublishService(ns_, "test.Echo", nullptr, "echo.service"), NK_EOK);
    }
    void TearDown() override
    {
        NsUnPublishService(ns_, "test.Echo", nullptr, "echo.service");
        KnHandleClose(ns_);
        PlatformTest::TearDown();
    }

    // Listens for the next request; the client name is returned.
    std::string ListenFor(const std::string& service)
    {
        char client[KN_CM_NAME_MAX] = {};
        char got[KN_CM_NAME_MAX] = {};
        EXPECT_EQ(KnCmListen(nullptr, 5000, client, got), NK_EOK);
        EXPECT_EQ(std::string(got), service);
        return client;
    }

    // Receives one request on `handle` and echoes it.
    static void ServeOne(Handle handle, uint32_t expectedTag)
    {
        NkNosTransport t{};
        ASSERT_EQ(NkNosTransportSync_Init(&t, handle, INVALID_HANDLE, INVALID_HANDLE), NK_EOK);
        Request request{};
        nk_msg_set_size(&request.header, sizeof request);
        auto pending = std::async(std::launch::async, [&] { return t.ops->recv(&t, &request.header, nullptr); });
        ASSERT_EQ(pending.wait_for(10s), std::future_status::ready);
        ASSERT_EQ(pending.get(), NK_EOK);
        EXPECT_EQ(request.tag, expectedTag);
        EXPECT_EQ(t.ops->reply(&t, &request.header, nullptr), NK_EOK);
    }

    Handle ns_ = INVALID_HANDLE;
};

TEST_F(ConnectionManagerTest, Accept_ClientGetsRiidAndItsCallsAreServed)
{
    PeerProcess client({"cm-connect", "echo.service", "31"});
    const std::string name = ListenFor("echo.service");
    Handle channel = INVALID_HANDLE;
    ASSERT_EQ(KnCmAccept(name.c_str(), "echo.service", 7, INVALID_HANDLE, &channel), NK_EOK);
    EXPECT_EQ(client.ReadLine(), "riid=7");
    ServeOne(channel, 31);
    EXPECT_EQ(client.ReadLine(), "calling");
    EXPECT_EQ(client.ReadLine(), "rc=0 tag=31");
    EXPECT_EQ(client.Wait(), 0);
    EXPECT_EQ(KnCmAccept(name.c_str(), "echo.service", 7, INVALID_HANDLE, &channel), NK_ENOENT);  // no longer pending
    EXPECT_EQ(KnHandleClose(channel), NK_EOK);
}

TEST_F(ConnectionManagerTest, Accept_WithListenerJoinsThatChannel)
{
    PeerProcess first({"cm-connect", "echo.service", "1"});
    const std::string firstName = ListenFor("echo.service");
    Handle channel = INVALID_HANDLE;
    ASSERT_EQ(KnCmAccept(firstName.c_str(), "echo.service", 3, INVALID_HANDLE, &channel), NK_EOK);
    ServeOne(channel, 1);

    PeerProcess second({"cm-connect", "echo.service", "2"});
    const std::string secondName = ListenFor("echo.service");
    EXPECT_NE(secondName, firstName);
    Handle joined = INVALID_HANDLE;
    ASSERT_EQ(KnCmAccept(secondName.c_str(), "echo.service", 4, channel, &joined), NK_EOK);
    EXPECT_EQ(joined, channel);
    ServeOne(channel, 2);
    EXPECT_EQ(second.ReadLine(), "riid=4");
    EXPECT_EQ(second.Wait(), 0);
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(KnHandleClose(channel), NK_EOK);
}

TEST_F(ConnectionManagerTest, Drop_ClientIsRefused)
{
    PeerProcess client({"cm-connect", "echo.service", "5"});
    const std::string name = ListenFor("echo.service");
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo.service"), NK_EOK);
    EXPECT_EQ(client.ReadLine(), "connect=" + std::to_string(NK_ECONNREFUSED));
    EXPECT_EQ(client.Wait(), 2);
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo.service"), NK_ENOENT);
}

TEST_F(ConnectionManagerTest, Accept_BadListenerKeepsTheRequestForDropping)
{
    PeerProcess client({"cm-connect", "echo.service", "5"});
    const std::string name = ListenFor("echo.service");
    Handle channel = INVALID_HANDLE;
    EXPECT_EQ(KnCmAccept(name.c_str(), "echo.service", 1, ns_, &channel), NK_EBADF);
    EXPECT_EQ(KnCmAccept(name.c_str(), "echo.service", INVALID_RIID, INVALID_HANDLE, &channel), NK_EINVAL);
    EXPECT_EQ(channel, INVALID_HANDLE);
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo.service"), NK_EOK);
    EXPECT_EQ(client.ReadLine(), "connect=" + std::to_string(NK_ECONNREFUSED));
}

TEST_F(ConnectionManagerTest, Listen_TimesOutWithCmTimeout)
{
    char client[KN_CM_NAME_MAX] = "untouched";
    char service[KN_CM_NAME_MAX] = "untouched";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KnCmListen(nullptr, 100, client, service), NK_CM_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 100ms);
    EXPECT_STREQ(client, "untouched");
    EXPECT_EQ(KnCmListen(nullptr, 100, nullptr, service), NK_EINVAL);
}

TEST_F(ConnectionManagerTest, Connect_UnknownOrWithdrawnServiceGivesEnoent)
{
    Handle handle = INVALID_HANDLE;
    uint32_t riid = 0;
    EXPECT_EQ(KnCmConnect("nobody.service", 100, &handle, &riid), NK_ENOENT);
    ASSERT_EQ(NsPublishService(ns_, "test.Other", nullptr, "other.service"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns_, "test.Other", nullptr, "other.service"), NK_EOK);
    EXPECT_EQ(KnCmConnect("other.service", 100, &handle, &riid), NK_ENOENT);
    EXPECT_EQ(NsUnPublishService(ns_, "test.Other", nullptr, "other.service"), NK_ENOENT);
    EXPECT_EQ(handle, INVALID_HANDLE);
}

TEST_F(ConnectionManagerTest, Publish_RejectsBadArguments)
{
    EXPECT_EQ(NsPublishService(INVALID_HANDLE, "t", nullptr, "s"), NK_EBADF);
    EXPECT_EQ(NsPublishService(ns_, nullptr, nullptr, "s"), NK_EINVAL);
    EXPECT_EQ(NsPublishService(ns_, "t", nullptr, "a/b"), NK_EINVAL);
    EXPECT_EQ(NsPublishService(ns_, "t", "another-process", "s"), NK_EINVAL);
    EXPECT_EQ(NsCreate(nullptr, -1, nullptr), NK_EINVAL);
    // The same service published twice needs two withdrawals.
    ASSERT_EQ(NsPublishService(ns_, "test.Echo", nullptr, "echo.service"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns_, "test.Echo", nullptr, "echo.service"), NK_EOK);
    PeerProcess client({"cm-connect", "echo.service", "8"});
    const std::string name = ListenFor("echo.service");
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo.service"), NK_EOK);
}

}  // namespace
}  // namespace platform_test
