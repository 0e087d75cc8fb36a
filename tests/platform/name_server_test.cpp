// Name server and connection manager of the host platform: this process
// publishes, listens and accepts, and its own threads ask for connections.
// Calls over accepted connections are the IPC server tests' business.
#include "support/runtime_dir.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <future>
#include <tuple>

namespace {

struct Connected {
    Retcode rc = NK_EOK;
    Handle handle = INVALID_HANDLE;
    uint32_t riid = INVALID_RIID;
};

class HostNameServerTest : public test_support::RuntimeDirTest {
protected:
    HostNameServerTest()
    {
        EXPECT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
        EXPECT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    }
    ~HostNameServerTest() override
    {
        (void)NsUnPublishService(ns, "test.Echo", nullptr, "echo");
        (void)KnHandleClose(ns);
    }

    // KnCmConnect to `service` on a thread of its own.
    static std::future<Connected> Connect(const char* service = "echo")
    {
        return std::async(std::launch::async, [service] {
            Connected c;
            c.rc = KnCmConnect(service, 5000, &c.handle, &c.riid);
            return c;
        });
    }

    // The client name of the next connection request, which must be for "echo".
    static std::string Listen()
    {
        char client[KN_CM_NAME_MAX] = {};
        char service[KN_CM_NAME_MAX] = {};
        EXPECT_EQ(KnCmListen(nullptr, 5000, client, service), NK_EOK);
        EXPECT_STREQ(service, "echo");
        return client;
    }

    Handle ns = INVALID_HANDLE;
};

TEST_F(HostNameServerTest, Accept_GivesTheClientItsRiidAndJoinsAListenerChannel)
{
    auto first = Connect();
    const std::string firstName = Listen();
    Handle channel = INVALID_HANDLE;
    ASSERT_EQ(KnCmAccept(firstName.c_str(), "echo", 0x1234, INVALID_HANDLE, &channel), NK_EOK);
    EXPECT_EQ(KnCmAccept(firstName.c_str(), "echo", 7, INVALID_HANDLE, &channel), NK_ENOENT);  // no longer pending
    auto second = Connect();
    const std::string secondName = Listen();
    EXPECT_NE(secondName, firstName);
    Handle joined = INVALID_HANDLE;
    ASSERT_EQ(KnCmAccept(secondName.c_str(), "echo", 4, channel, &joined), NK_EOK);
    EXPECT_EQ(joined, channel);
    const Connected a = first.get();
    const Connected b = second.get();
    EXPECT_EQ(std::make_tuple(a.rc, a.riid, b.rc, b.riid), std::make_tuple(NK_EOK, 0x1234u, NK_EOK, 4u));
    for (const Handle handle : {a.handle, b.handle, channel})
        EXPECT_EQ(KnHandleClose(handle), NK_EOK);
}

TEST_F(HostNameServerTest, ConnectAndListen_FailWithTheirOwnCodes)
{
    auto client = Connect();
    const std::string name = Listen();
    Handle channel = INVALID_HANDLE;
    EXPECT_EQ(KnCmAccept(name.c_str(), "echo", 1, ns, &channel), NK_EBADF);  // not a channel: still pending
    EXPECT_EQ(KnCmAccept(name.c_str(), "echo", INVALID_RIID, INVALID_HANDLE, &channel), NK_EINVAL);
    EXPECT_EQ(channel, INVALID_HANDLE);
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo"), NK_EOK);
    const Connected refused = client.get();
    EXPECT_EQ(std::make_tuple(refused.rc, refused.handle), std::make_tuple(NK_ECONNREFUSED, INVALID_HANDLE));
    EXPECT_EQ(KnCmDrop(name.c_str(), "echo"), NK_ENOENT);

    ASSERT_EQ(NsPublishService(ns, "test.Other", nullptr, "other"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns, "test.Other", nullptr, "other"), NK_EOK);
    EXPECT_EQ(NsUnPublishService(ns, "test.Other", nullptr, "other"), NK_ENOENT);
    EXPECT_EQ(Connect("nobody").get().rc, NK_ENOENT);
    EXPECT_EQ(Connect("other").get().rc, NK_ENOENT);

    char clientName[KN_CM_NAME_MAX] = "untouched";
    char service[KN_CM_NAME_MAX] = "untouched";
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KnCmListen(nullptr, 100, clientName, service), NK_CM_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(std::string(clientName) + service, "untoucheduntouched");
    EXPECT_EQ(KnCmListen(nullptr, 100, nullptr, service), NK_EINVAL);
}

TEST_F(HostNameServerTest, Publish_RefusesBadArgumentsAndCountsPublications)
{
    EXPECT_EQ(NsPublishService(INVALID_HANDLE, "t", nullptr, "s"), NK_EBADF);
    EXPECT_EQ(NsPublishService(ns, nullptr, nullptr, "s"), NK_EINVAL);
    EXPECT_EQ(NsPublishService(ns, "t", nullptr, "a/b"), NK_EINVAL);
    EXPECT_EQ(NsPublishService(ns, "t", "another-process", "s"), NK_EINVAL);
    EXPECT_EQ(NsCreate(nullptr, -1, nullptr), NK_EINVAL);
    // Published twice, withdrawn once: still published.
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    auto client = Connect();
    EXPECT_EQ(KnCmDrop(Listen().c_str(), "echo"), NK_EOK);
    EXPECT_EQ(client.get().rc, NK_ECONNREFUSED);
}

}  // namespace
