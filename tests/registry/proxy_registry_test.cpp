// The proxy against the real update-registry process.
#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "capture_sink.h"
#include "support.h"
#include "update/registry/ipc/proxy.h"

namespace {

using namespace update::registry::ipc;
namespace fs = std::filesystem;

constexpr const char* kChannel = "update_registry";
constexpr const char* kEndpoint = "UpdateRegistry.UpdateRegistry";
constexpr int kNotFound = static_cast<int>(0x8000004Cu);

class ProxyRegistryTest : public registry_test::InRuntimeDir<logger_test::RootCaptureTest> {
protected:
    void SetUp() override
    {
        RootCaptureTest::SetUp();
        m_dir = Runtime().path() / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::create_directories(m_dir);
        Restart();
    }

    void TearDown() override
    {
        m_proxy.reset();
        if (m_registry) {
            EXPECT_EQ(m_registry->Stop(), 0) << m_registry->Stderr();
        }
        RootCaptureTest::TearDown();
    }

    void Restart()
    {
        m_registry = std::make_unique<registry_test::RegistryProcess>(m_dir);
        m_proxy = CreateProxy(kChannel, kEndpoint);
        m_sink->Take();  // the connection's own info line
    }

    fs::path m_dir;
    std::unique_ptr<registry_test::RegistryProcess> m_registry;
    std::unique_ptr<IRegistry> m_proxy;
};

TEST_F(ProxyRegistryTest, AllCalls_SessionLifecycle)
{
    unsigned int applist = 0;
    unsigned int product = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::AppList, applist), 0);
    ASSERT_EQ(m_proxy->Open(PackageType::Product, product), 0);
    EXPECT_EQ(applist, 1u);
    EXPECT_EQ(product, 2u);

    SessionInfo info;
    ASSERT_EQ(m_proxy->GetInfo(applist, info), 0);
    EXPECT_EQ(info.type, PackageType::AppList);
    EXPECT_EQ(info.state, UpdateState::Created);
    EXPECT_NE(info.id, eka::guid_t{});
    EXPECT_TRUE(info.path.is_absolute());
    EXPECT_EQ(info.path.parent_path(), fs::absolute(m_registry->storage()).lexically_normal());
    EXPECT_TRUE(fs::is_directory(info.path));

    unsigned int found = 0;
    EXPECT_EQ(m_proxy->GetHandle(info.id, found), 0);
    EXPECT_EQ(found, applist);

    EXPECT_EQ(m_proxy->SetState(applist, UpdateState::Verified), 0);
    SessionInfo changed;
    ASSERT_EQ(m_proxy->GetInfo(applist, changed), 0);
    EXPECT_EQ(changed.state, UpdateState::Verified);
    EXPECT_EQ(changed.id, info.id);

    std::vector<SessionInfo> sessions;
    ASSERT_EQ(m_proxy->GetSessions(sessions), 0);
    ASSERT_EQ(sessions.size(), 2u);
    EXPECT_EQ(sessions[0], changed);
    EXPECT_EQ(sessions[1].type, PackageType::Product);

    EXPECT_EQ(m_proxy->Close(product), 0);
    ASSERT_EQ(m_proxy->GetSessions(sessions), 0);
    EXPECT_EQ(sessions, std::vector<SessionInfo>{changed});
    EXPECT_TRUE(m_sink->Take().empty());
}

TEST_F(ProxyRegistryTest, AllCalls_UnknownHandleOrIdIsNotFound)
{
    unsigned int handle = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::Product, handle), 0);
    ASSERT_EQ(m_proxy->Close(handle), 0);

    EXPECT_EQ(m_proxy->Close(handle), kNotFound);
    EXPECT_EQ(m_proxy->SetState(handle, UpdateState::Cancelled), kNotFound);
    SessionInfo info{PackageType::AppList, UpdateState::Installed, {}, "old"};
    EXPECT_EQ(m_proxy->GetInfo(handle, info), kNotFound);
    EXPECT_EQ(info, SessionInfo{});  // the zero record of the answer replaces it
    eka::guid_t unknown;
    unknown.bytes.fill(0x5A);
    unsigned int found = 7;
    EXPECT_EQ(m_proxy->GetHandle(unknown, found), kNotFound);
    EXPECT_EQ(found, 0xFFFFFFFFu);
    EXPECT_EQ(m_proxy->Close(0xFFFFFFFF), kNotFound);
    // Registry failures are the caller's to report: the client logs nothing.
    EXPECT_TRUE(m_sink->Take().empty());
}

TEST_F(ProxyRegistryTest, AllCalls_ThreadsShareOneProxy)
{
    unsigned int handle = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::AppList, handle), 0);
    SessionInfo expected;
    ASSERT_EQ(m_proxy->GetInfo(handle, expected), 0);

    constexpr int kThreads = 4;
    constexpr int kRounds = 25;
    std::atomic<int> mismatches{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < kRounds; ++i) {
                SessionInfo info;
                std::vector<SessionInfo> sessions;
                unsigned int found = 0;
                if (m_proxy->GetInfo(handle, info) != 0 || !(info == expected) || m_proxy->GetSessions(sessions) != 0 ||
                    sessions.size() != 1 || m_proxy->GetHandle(expected.id, found) != 0 || found != handle)
                    ++mismatches;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(mismatches.load(), 0);
}

TEST_F(ProxyRegistryTest, Restart_StateFileKeepsEverySessionAndHandle)
{
    unsigned int first = 0;
    unsigned int second = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::AppList, first), 0);
    ASSERT_EQ(m_proxy->Open(PackageType::Product, second), 0);
    ASSERT_EQ(m_proxy->SetState(second, UpdateState::Installing), 0);
    ASSERT_EQ(m_proxy->Close(first), 0);
    std::vector<SessionInfo> before;
    ASSERT_EQ(m_proxy->GetSessions(before), 0);

    // A kill, not a stop: every change must already be on disk.
    m_registry.reset();
    Restart();

    std::vector<SessionInfo> after;
    ASSERT_EQ(m_proxy->GetSessions(after), 0);
    EXPECT_EQ(after, before);
    unsigned int found = 0;
    EXPECT_EQ(m_proxy->GetHandle(before.at(0).id, found), 0);
    EXPECT_EQ(found, second);
    unsigned int third = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::AppList, third), 0);
    EXPECT_EQ(third, 3u);  // a closed handle is not given out again
}

TEST_F(ProxyRegistryTest, MalformedRequest_ErrorReplyAndServingGoesOn)
{
    const Handle channel = ServiceLocatorConnect(kChannel);
    ASSERT_NE(channel, INVALID_HANDLE);
    NkNosTransport transport{};
    ASSERT_EQ(NkNosTransport_Init(&transport, channel, nullptr, 0), NK_EOK);
    const auto call = [&](auto request) {
        nv_IUpdateRegistry_res response{};
        response.base_.size = sizeof(response);
        EXPECT_EQ(transport.ops->call(&transport, &request.base_, nullptr, &response.base_, nullptr), NK_EOK);
        return response;
    };

    nv_IUpdateRegistry_Close_req unknownMethod{};
    unknownMethod.base_ = {0, 9, 0x00800028, {}};
    nv_IUpdateRegistry_res response = call(unknownMethod);
    EXPECT_EQ(response.base_.mid, 9);
    EXPECT_EQ(response.base_.size, 0x80000020u);
    EXPECT_EQ(static_cast<std::uint32_t>(response.close.result), 0x80000057u);

    nv_IUpdateRegistry_GetInfo_res oversized{};  // 64 bytes where Close has 40
    oversized.base_ = {0, 1, 0x00800040, {}};
    response = call(oversized);
    EXPECT_EQ(response.base_.size, 0x80000020u);
    EXPECT_EQ(static_cast<std::uint32_t>(response.close.result), 0x80000046u);

    nv_IUpdateRegistry_Open_req badType{};
    badType.base_ = {0, 0, 0x20, {}};
    badType.type = 2;
    response = call(badType);
    EXPECT_EQ(response.base_.size, 0x00800030u);
    EXPECT_EQ(response.open.handle.handle, 0xFFFFFFFFu);
    EXPECT_EQ(static_cast<std::uint32_t>(response.open.result), 0x80000046u);

    unsigned int handle = 0;
    ASSERT_EQ(m_proxy->Open(PackageType::Product, handle), 0);
    nv_IUpdateRegistry_SetState_req badState{};
    badState.base_ = {0, 4, 0x00800030, {}};
    badState.handle = {handle, 1, 0xFFFFFFFFu};
    badState.state = 11;
    response = call(badState);
    EXPECT_EQ(response.base_.size, 0x20u);
    EXPECT_EQ(static_cast<std::uint32_t>(response.setState.result), 0x80000046u);

    SessionInfo info;
    EXPECT_EQ(m_proxy->GetInfo(handle, info), 0);
    EXPECT_EQ(info.state, UpdateState::Created);
    (void)KnHandleClose(channel);
}

TEST(UpdateRegistry, Start_BadStateFileRefusedAndKept)
{
    registry_test::RuntimeDir runtime;
    const fs::path state = runtime.path() / "state.json";
    const std::string garbage = "{\"version\": 1, \"next_handle\": 2, \"sessions\": [{\"handle\": 0}]}";
    std::ofstream(state) << garbage;
    const registry_test::RunResult run =
        registry_test::Run({UPDATE_REGISTRY_PATH, "--storage", (runtime.path() / "s").string(), "--state",
                            state.string()},
                           runtime.path());
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("state file " + state.string() + ": session 0 has no \"type\""), std::string::npos)
        << run.err;
    EXPECT_EQ(logger_test::ReadFile(state.string()), garbage);
}

TEST(UpdateRegistry, CommandLine_UsageAndHelp)
{
    registry_test::RuntimeDir runtime;
    const registry_test::RunResult help = registry_test::Run({UPDATE_REGISTRY_PATH, "--help"}, runtime.path());
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.rfind("Usage: update-registry --storage DIR [--state FILE]\n", 0), 0u);
    const registry_test::RunResult missing = registry_test::Run({UPDATE_REGISTRY_PATH}, runtime.path());
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_EQ(missing.err.rfind("update-registry: --storage is required\n", 0), 0u) << missing.err;
}

}  // namespace
