// The connection manager: configuration checks, and its worker against
// client processes that connect through the host name server.
#include "harness.h"

#include <nos/ipc/connection_manager.h>
#include <nos/kernel.h>

#include <gmock/gmock.h>

#include <stdexcept>
#include <thread>

namespace ipc_test {
namespace {

using nos::ipc::ConnectionManager;
using ::testing::MatchesRegex;

constexpr std::uint32_t kFailed = ConnectionManager::kAddFailed;

class ConnectionManagerTest : public RuntimeDirTest {
protected:
    void TearDown() override
    {
        for (const auto& service : m_published)
            EXPECT_EQ(NsUnPublishService(m_ns, "test.Echo", nullptr, service.c_str()), NK_EOK);
        if (m_ns != INVALID_HANDLE)
            KnHandleClose(m_ns);
        RuntimeDirTest::TearDown();
    }

    void Publish(const std::string& service)
    {
        if (m_ns == INVALID_HANDLE) {
            ASSERT_EQ(NsCreate(nullptr, -1, &m_ns), NK_EOK);
        }
        ASSERT_EQ(NsPublishService(m_ns, "test.Echo", nullptr, service.c_str()), NK_EOK);
        m_published.push_back(service);
    }

    ConnectionManager::Config Config(ConnectionManager::Cfg cfg)
    {
        ConnectionManager::Config config;
        config.cfg = std::move(cfg);
        config.log = m_log.Logger();
        config.notify = [this](const char*, const char* service, unsigned riid, unsigned groupId, unsigned handle,
                               bool accepted) {
            {
                std::lock_guard lock(m_mutex);
                m_notified.push_back({service, riid, groupId, handle, accepted, std::chrono::steady_clock::now()});
            }
            m_notifiedChanged.notify_all();
        };
        return config;
    }

    struct Notified {
        std::string service;
        unsigned riid;
        unsigned groupId;
        Handle handle;
        bool accepted;
        std::chrono::steady_clock::time_point when;
    };
    // The notifications, once there are `count` of them (the callback runs
    // after the client and the waiters have their answer).
    std::vector<Notified> WaitNotified(size_t count)
    {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_notifiedChanged.wait_for(lock, 10s, [&] { return m_notified.size() >= count; }));
        return m_notified;
    }

    LogCapture m_log;
    Handle m_ns = INVALID_HANDLE;
    std::vector<std::string> m_published;
    std::mutex m_mutex;
    std::condition_variable m_notifiedChanged;
    std::vector<Notified> m_notified;
};

TEST_F(ConnectionManagerTest, Add_RefusesInvalidBlocksAndLeavesManagerUnchanged)
{
    ConnectionManager manager(Config({{{"a", {3, 1}}}, {{1, 0}}, nullptr}));
    struct AddCase {
        const char* name;
        ConnectionManager::Cfg cfg;
        bool absolute;
        const char* message;
    };
    const std::vector<AddCase> cases = {
        {"group id 0", {{{"b", {4, 2}}}, {{0, 5}}, nullptr}, true, "user groups contain invalid group id"},
        {"group id 0xFFFFFFFF", {{}, {{0xFFFFFFFF, 0}}, nullptr}, true, "user groups contain invalid group id"},
        {"riid 65535", {{{"b", {65535, 2}}}, {}, nullptr}, true, "user plan contains invalid riid or group id"},
        {"plan group 0xFFFFFFFF", {{{"b", {4, 0xFFFFFFFF}}}, {}, nullptr}, true,
         "user plan contains invalid riid or group id"},
        {"relative ids past the end", {{{"b", {4, 0xFFFFFFFE}}}, {}, nullptr}, false, "user plan group id overflow"},
        {"service again", {{{"b", {4, 2}}, {"a", {5, 2}}}, {}, nullptr}, true, "user plan redefinition"},
        {"group again", {{{"b", {4, 2}}}, {{1, 7}}, nullptr}, true, "user groups redefinition"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_log.Clear();
        EXPECT_EQ(manager.Add(c.cfg, c.absolute, false), kFailed);
        EXPECT_EQ(m_log.Lines(),
                  (std::vector<LogCapture::Line>{{std::string("ConnectionManager: ") + c.message, true}}));
    }
    // Nothing of the refused blocks was merged: "b" and group 2 are still free.
    EXPECT_EQ(manager.Add({{{"b", {4, 2}}}, {{2, 0}}, nullptr}, true, false), 0u);
    // Relative ids go past the largest group known; replace redefines.
    EXPECT_EQ(manager.Add({{{"c", {5, 1}}}, {{1, 0}}, nullptr}, false, false), 2u);
    EXPECT_EQ(manager.Add({{{"a", {6, 1}}}, {{1, 9}}, nullptr}, true, true), 0u);
    // Only 65535 is invalid in the plan; a wider riid is refused on accepting.
    EXPECT_EQ(manager.Add({{{"d", {70000, 1}}}, {}, nullptr}, true, false), 0u);
}

TEST_F(ConnectionManagerTest, ConnectionManager_InvalidConfigurationThrows)
{
    const std::vector<ConnectionManager::Cfg> invalid = {
        {{{"a", {3, 1}}}, {{0, 1}}, nullptr},
        {{{"a", {65535, 1}}}, {}, nullptr},
    };
    for (const auto& cfg : invalid) {
        m_log.Clear();
        try {
            ConnectionManager manager(Config(cfg));
            ADD_FAILURE() << "constructed";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "ConnectionManager: invalid configuration");
        }
        ASSERT_EQ(m_log.Lines().size(), 1u);
        EXPECT_TRUE(m_log.Lines()[0].isError);
    }
    // A log callback that throws changes nothing of that.
    auto config = Config(invalid[0]);
    config.log = [](std::string_view, bool) { throw std::runtime_error("log down"); };
    EXPECT_THROW(ConnectionManager{config}, std::runtime_error);
}

TEST_F(ConnectionManagerTest, Start_RunsOneWorker)
{
    {
        auto config = Config({{{"a", {3, 1}}}, {}, nullptr});
        config.autoStart = true;
        ConnectionManager manager(config);
        EXPECT_FALSE(manager.Start());
    }
    {
        ConnectionManager manager(Config({{{"a", {3, 1}}}, {}, nullptr}));
        EXPECT_TRUE(manager.Start());
        EXPECT_FALSE(manager.Start());
    }
    const std::vector<LogCapture::Line> cycle = {{"ConnectionManager: worker start", false},
                                                 {"ConnectionManager: worker stop", false}};
    std::vector<LogCapture::Line> expected = cycle;
    expected.insert(expected.end(), cycle.begin(), cycle.end());
    EXPECT_EQ(m_log.Lines(), expected);
}

TEST_F(ConnectionManagerTest, Worker_AcceptsOnPlannedRiidAndWakesWaiters)
{
    Publish("echo");
    std::vector<unsigned> settings;
    auto config = Config({{{"echo", {3, 1}}}, {{1, 42}}, nullptr});
    config.accept = [&settings](const char*, const char*, unsigned, unsigned, unsigned& value) {
        settings.push_back(value);
        return true;
    };
    ConnectionManager manager(config);
    // A replaced entry takes the old one's place.
    ASSERT_EQ(manager.Add({{{"echo", {9, 1}}}, {}, nullptr}, true, true), 0u);
    ASSERT_TRUE(manager.Start());

    auto gone = std::make_shared<nos::rtl::Semaphore>();
    EXPECT_FALSE(manager.TakeGroupHandle(1, gone).has_value());
    gone.reset();  // a waiter that went away is skipped
    const auto waiter = std::make_shared<nos::rtl::Semaphore>();
    EXPECT_FALSE(manager.TakeGroupHandle(1, waiter).has_value());

    ClientProcess client({"dynamic", "echo"});
    EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 9");
    ASSERT_TRUE(waiter->WaitFor(10s));
    const auto handle = manager.TakeGroupHandle(1, waiter);
    ASSERT_TRUE(handle.has_value());
    EXPECT_NE(*handle, INVALID_HANDLE);
    EXPECT_EQ(settings, (std::vector<unsigned>{42}));
    const auto notified = WaitNotified(1);
    ASSERT_EQ(notified.size(), 1u);
    EXPECT_EQ(notified[0].service, "echo");
    EXPECT_EQ(notified[0].riid, 9u);
    EXPECT_EQ(notified[0].groupId, 1u);
    EXPECT_EQ(notified[0].handle, *handle);
    EXPECT_TRUE(notified[0].accepted);
    EXPECT_EQ(m_log.Lines(), (std::vector<LogCapture::Line>{{"ConnectionManager: worker start", false}}));
    EXPECT_EQ(KnHandleClose(*handle), NK_EOK);  // taken: the manager leaves it to us
}

TEST_F(ConnectionManagerTest, Worker_UnplannedServiceIsRefusedAndPausesTheWorker)
{
    Publish("echo");
    Publish("stray");
    ConnectionManager manager(Config({{{"echo", {3, 1}}}, {}, nullptr}));
    ASSERT_TRUE(manager.Start());

    ClientProcess stray({"dynamic", "stray"});
    EXPECT_EQ(stray.ReadLine().value_or("<none>"), "connect failed " + std::to_string(NK_ECONNREFUSED));
    ClientProcess planned({"dynamic", "echo"});
    EXPECT_EQ(planned.ReadLine().value_or("<none>"), "connected 3");
    ASSERT_TRUE(manager.WaitAccepted(1, 1, 10s));

    const auto lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_THAT(lines[1].text, MatchesRegex(R"(ConnectionManager: ipc_test_client\.[0-9]+\.1\.stray: not found in user plan)"));
    EXPECT_TRUE(lines[1].isError);
    // The next request was taken only after the pause.
    const auto refused = m_log.TimeOf("not found in user plan");
    ASSERT_TRUE(refused.has_value());
    const auto notified = WaitNotified(1);
    ASSERT_EQ(notified.size(), 1u);
    EXPECT_TRUE(notified[0].accepted);
    EXPECT_GE(notified[0].when - *refused, 400ms);
}

TEST_F(ConnectionManagerTest, Worker_RefusedRequestsAreDroppedAndLogged)
{
    Publish("echo");
    Publish("wide");
    std::atomic<bool> refuse = true;
    auto block = std::make_shared<ConnectionManager::CbkSet>();
    block->accept = [&refuse](const char*, const char*, unsigned, unsigned, unsigned&) { return !refuse; };
    ConnectionManager manager(Config({{{"echo", {3, 1}}, {"wide", {70000, 2}}}, {}, block}));
    ASSERT_TRUE(manager.Start());

    const std::string refused = "connect failed " + std::to_string(NK_ECONNREFUSED);
    {
        ClientProcess client({"dynamic", "echo"});
        EXPECT_EQ(client.ReadLine().value_or("<none>"), refused);
    }
    refuse = false;
    {
        ClientProcess client({"dynamic", "echo"});
        EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 3");
    }
    ASSERT_TRUE(manager.WaitAccepted(1, 1, 10s));
    // The group's channel goes away: the next client cannot join it.
    const auto handle = manager.TakeGroupHandle(1, nullptr);
    ASSERT_TRUE(handle.has_value());
    ASSERT_EQ(KnHandleClose(*handle), NK_EOK);
    for (const char* service : {"echo", "wide"}) {
        ClientProcess client({"dynamic", service});
        EXPECT_EQ(client.ReadLine().value_or("<none>"), refused);
    }

    const auto notified = WaitNotified(4);  // each comes after its log line
    const auto lines = m_log.Lines();
    ASSERT_EQ(lines.size(), 4u);
    const std::string client = R"(ConnectionManager: ipc_test_client\.[0-9]+\.1:echo \[3\] #1: )";
    EXPECT_THAT(lines[1].text, MatchesRegex(client + R"(not accepted by user \(KnCmDrop=0\))"));
    EXPECT_THAT(lines[2].text, MatchesRegex(client + R"(not accepted: KnCmAccept\(\) = -9 \(KnCmDrop\(\)=0\))"));
    EXPECT_THAT(lines[3].text, MatchesRegex(R"(.*:wide \[70000\] #2: not accepted: KnCmAccept\(\) = -22 .*)"));
    EXPECT_TRUE(lines[1].isError && lines[2].isError && lines[3].isError);
    ASSERT_EQ(notified.size(), 4u);
    EXPECT_FALSE(notified[0].accepted);
    EXPECT_EQ(notified[0].handle, INVALID_HANDLE);
    EXPECT_TRUE(notified[1].accepted);
    EXPECT_FALSE(notified[2].accepted);
}

TEST_F(ConnectionManagerTest, Destructor_ReleasesWaitersAndClosesUntakenHandles)
{
    Publish("echo");
    auto manager = std::make_unique<ConnectionManager>(Config({{{"echo", {3, 1}}, {"idle", {4, 2}}}, {}, nullptr}));
    ASSERT_TRUE(manager->Start());
    const auto waiter = std::make_shared<nos::rtl::Semaphore>();
    ASSERT_FALSE(manager->TakeGroupHandle(2, waiter).has_value());
    bool released = false;
    std::thread waiting([&] { released = waiter->WaitFor(10s); });

    ClientProcess client({"dynamic", "echo", "wait", "1"});
    EXPECT_EQ(client.ReadLine().value_or("<none>"), "connected 3");
    ASSERT_TRUE(manager->WaitAccepted(1, 1, 10s));
    const Handle accepted = WaitNotified(1).at(0).handle;

    manager.reset();  // the worker is listening, a thread waits for group 2
    waiting.join();
    EXPECT_TRUE(released);
    EXPECT_EQ(KnHandleClose(accepted), NK_EBADF);  // already closed
    client.WriteLine("go");
    EXPECT_THAT(client.ReadLine().value_or("<none>"), ::testing::StartsWith("call failed "));
    EXPECT_EQ(client.Wait(), 3);
}

}  // namespace
}  // namespace ipc_test
