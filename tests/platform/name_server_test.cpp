// Name server and connection manager of the host platform: the codes of its
// refusals. Accepting, joining and dropping connections are seen where they
// are used, in the IPC server and connection manager tests.
#include "support/runtime_dir.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <future>

namespace {

class HostNameServerTest : public test_support::RuntimeDirTest {};

TEST_F(HostNameServerTest, ConnectionRequests_FailWithTheirOwnCodes)
{
    Handle ns = INVALID_HANDLE;
    ASSERT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "other"), NK_EOK);
    ASSERT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "other"), NK_EOK);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "other"), NK_ENOENT);
    Handle handle = INVALID_HANDLE;
    uint32_t riid = INVALID_RIID;
    for (const char* service : {"nobody", "other"})
        EXPECT_EQ(KnCmConnect(service, 1000, &handle, &riid), NK_ENOENT) << service;
    EXPECT_EQ(handle, INVALID_HANDLE);

    auto client = std::async(std::launch::async, [&] { return KnCmConnect("echo", 5000, &handle, &riid); });
    char name[KN_CM_NAME_MAX] = {};
    char service[KN_CM_NAME_MAX] = {};
    ASSERT_EQ(KnCmListen(nullptr, 5000, name, service), NK_EOK);
    EXPECT_STREQ(service, "echo");
    Handle channel = INVALID_HANDLE;
    EXPECT_EQ(KnCmAccept(name, "echo", 1, ns, &channel), NK_EBADF);  // not a channel: still pending
    EXPECT_EQ(KnCmAccept(name, "echo", INVALID_RIID, INVALID_HANDLE, &channel), NK_EINVAL);
    EXPECT_EQ(KnCmDrop(name, "echo"), NK_EOK);
    EXPECT_EQ(client.get(), NK_ECONNREFUSED);
    EXPECT_EQ(KnCmDrop(name, "echo"), NK_ENOENT);
    EXPECT_EQ(KnCmAccept(name, "echo", 1, INVALID_HANDLE, &channel), NK_ENOENT);
    EXPECT_EQ(channel, INVALID_HANDLE);

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(KnCmListen(nullptr, 100, name, service), NK_CM_TIMEOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
    EXPECT_EQ(KnCmListen(nullptr, 100, nullptr, service), NK_EINVAL);
    EXPECT_EQ(NsPublishService(ns, "t", nullptr, "a/b"), NK_EINVAL);
    EXPECT_EQ(NsPublishService(INVALID_HANDLE, "t", nullptr, "s"), NK_EBADF);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    EXPECT_EQ(KnHandleClose(ns), NK_EOK);
}

}  // namespace
