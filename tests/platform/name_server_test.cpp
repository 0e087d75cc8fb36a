// Name server and connection manager of the host platform: the codes of its
// refusals, and listening while out of descriptors. Accepting, joining and
// dropping connections are seen where they are used, in the IPC server and
// connection manager tests.
#include "support/runtime_dir.h"
#include "wire.h"

#include <nos/platform.h>

#include <gtest/gtest.h>

#include <future>
#include <sys/resource.h>
#include <unistd.h>

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

TEST_F(HostNameServerTest, KnCmListen_RestsWhileOutOfDescriptorsAndAcceptsOnceTheyAreBack)
{
    Handle ns = INVALID_HANDLE;
    ASSERT_EQ(NsCreate(nullptr, -1, &ns), NK_EOK);
    ASSERT_EQ(NsPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    const int client = nos_host::ConnectSeqpacket((runtime.Path() / ("cm." + std::to_string(::getpid()) + ".sock")).string());
    rlimit saved {};
    ASSERT_TRUE(client >= 0 && ::getrlimit(RLIMIT_NOFILE, &saved) == 0);
    rlimit low = saved;
    low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 256);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> taken;  // every descriptor: accepting the waiting client fails with EMFILE
    for (int fd; (fd = ::dup(client)) >= 0;)
        taken.push_back(fd);
    const auto cpu = [] {
        rusage usage {};
        ::getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_utime.tv_sec * 1000000L + usage.ru_utime.tv_usec + usage.ru_stime.tv_sec * 1000000L + usage.ru_stime.tv_usec;
    };
    char name[KN_CM_NAME_MAX] = {};
    char service[KN_CM_NAME_MAX] = {};
    const long before = cpu();
    EXPECT_EQ(KnCmListen(nullptr, 1000, name, service), NK_CM_TIMEOUT);
    EXPECT_LT(cpu() - before, 200000);  // microseconds; a busy loop takes nearly all the second
    for (const int fd : taken)
        ::close(fd);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    const std::string payload("prober\0echo", 12);
    nos_host::FrameHeader header{nos_host::FrameKind::CmConnect};
    ASSERT_EQ(nos_host::SendFrame(client, header, {reinterpret_cast<const uint8_t*>(payload.data()), 12}, {}, {}, false),
              nos_host::IoResult::Ok);
    EXPECT_EQ(KnCmListen(nullptr, 10000, name, service), NK_EOK);
    EXPECT_STREQ(service, "echo");
    ::close(client);
    EXPECT_EQ(NsUnPublishService(ns, "test.Echo", nullptr, "echo"), NK_EOK);
    EXPECT_EQ(KnHandleClose(ns), NK_EOK);
}

}  // namespace
