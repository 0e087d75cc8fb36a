// The connection manager: its configuration rules, and its worker against
// clients of this process that connect through the host name server.
#include "support/log_capture.h"
#include "support/runtime_dir.h"

#include <nos/ipc/connection_manager.h>
#include <nos/kernel.h>
#include <nos/transport.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace {

using namespace test_support;
using nos::ipc::ConnectionManager;
using ::testing::MatchesRegex;

// Whether `semaphore` is posted within 10 s; a waiter that is not is left behind.
bool Posted(const std::shared_ptr<nos::rtl::Semaphore>& semaphore)
{
    auto posted = std::make_shared<std::promise<void>>();
    auto future = posted->get_future();
    std::thread([semaphore, posted] {
        semaphore->Wait();
        posted->set_value();
    }).detach();
    return future.wait_for(10s) == std::future_status::ready;
}

// KnCmConnect to `service`: the riid, or the code of the failure; the
// connection goes at once unless `handle` takes it.
long Connect(const char* service, Handle* handle = nullptr)
{
    Handle connection = INVALID_HANDLE;
    std::uint32_t riid = INVALID_RIID;
    const Retcode rc = KnCmConnect(service, 10000, &connection, &riid);
    if (handle != nullptr)
        *handle = connection;
    else
        (void)KnHandleClose(connection);
    return rc == NK_EOK ? long{riid} : long{rc};
}

class IpcConnectionManagerTest : public RuntimeDirTest {
protected:
    IpcConnectionManagerTest()
    {
        EXPECT_EQ(NsCreate(nullptr, -1, &m_ns), NK_EOK);
        for (const char* service : {"echo", "stray", "wide"})
            EXPECT_EQ(NsPublishService(m_ns, "test.Echo", nullptr, service), NK_EOK);
    }
    ~IpcConnectionManagerTest() override
    {
        for (const char* service : {"echo", "stray", "wide"})
            (void)NsUnPublishService(m_ns, "test.Echo", nullptr, service);
        (void)KnHandleClose(m_ns);
    }

    // Log lines go to `log`, and so does a line for each notification:
    // "notified <service> <riid> <handle>" or "notified <service> <riid> refused".
    ConnectionManager::Config Config(ConnectionManager::Cfg cfg)
    {
        ConnectionManager::Config config;
        config.cfg = std::move(cfg);
        config.log = log.ServerLogger();
        config.notify = [this](const char*, const char* service, unsigned riid, unsigned, unsigned handle, bool accepted) {
            log.Add({"notified " + std::string(service) + ' ' + std::to_string(riid) + ' ' +
                     (accepted ? std::to_string(handle) : "refused")});
        };
        return config;
    }

    LogCapture log;

private:
    Handle m_ns = INVALID_HANDLE;
};

TEST_F(IpcConnectionManagerTest, Add_RefusesInvalidBlocksAndLeavesTheManagerUnchanged)
{
    ConnectionManager manager(Config({{{"a", {3, 1}}}, {{1, 0}}, nullptr}));
    const struct {
        const char* name;
        ConnectionManager::Cfg cfg;
        bool absolute;
        const char* message;
    } cases[] = {
        {"group id 0", {{{"b", {4, 2}}}, {{0, 5}}, nullptr}, true, "user groups contain invalid group id"},
        {"group id 0xFFFFFFFF", {{}, {{0xFFFFFFFF, 0}}, nullptr}, true, "user groups contain invalid group id"},
        {"riid 65535", {{{"b", {65535, 2}}}, {}, nullptr}, true, "user plan contains invalid riid or group id"},
        {"plan group 0xFFFFFFFF", {{{"b", {4, 0xFFFFFFFF}}}, {}, nullptr}, true,
         "user plan contains invalid riid or group id"},
        {"relative ids past the end", {{{"b", {4, 0xFFFFFFFE}}}, {}, nullptr}, false, "user plan group id overflow"},
        {"service again", {{{"b", {4, 2}}, {"a", {5, 2}}}, {}, nullptr}, true, "user plan redefinition"},
        {"group again", {{{"b", {4, 2}}}, {{1, 7}}, nullptr}, true, "user groups redefinition"},
    };
    for (const auto& k : cases) {
        SCOPED_TRACE(k.name);
        log.Clear();
        EXPECT_EQ(manager.Add(k.cfg, k.absolute, false), ConnectionManager::kAddFailed);
        EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{std::string("ConnectionManager: ") + k.message, kError}}));
    }
    // Nothing of the refused blocks was merged: "b" and group 2 are still free.
    EXPECT_EQ(manager.Add({{{"b", {4, 2}}}, {{2, 0}}, nullptr}, true, false), 0u);
    // Relative ids go past the largest group known; replace redefines.
    EXPECT_EQ(manager.Add({{{"c", {5, 1}}}, {{1, 0}}, nullptr}, false, false), 2u);
    EXPECT_EQ(manager.Add({{{"a", {6, 1}}}, {{1, 9}}, nullptr}, true, true), 0u);
    // Only 65535 is invalid in the plan; a wider riid is refused on accepting.
    EXPECT_EQ(manager.Add({{{"d", {70000, 1}}}, {}, nullptr}, true, false), 0u);
}

TEST_F(IpcConnectionManagerTest, Worker_AcceptsOnThePlannedRiidAndWakesTheWaitersOfTheGroup)
{
    std::vector<unsigned> settings;
    auto config = Config({{{"echo", {3, 1}}}, {{1, 42}}, nullptr});
    config.accept = [&settings](const char*, const char*, unsigned, unsigned, unsigned& value) {
        settings.push_back(value);
        return true;
    };
    auto manager = std::make_unique<ConnectionManager>(config);
    ASSERT_EQ(manager->Add({{{"echo", {9, 1}}}, {}, nullptr}, true, true), 0u);  // takes the old entry's place
    ASSERT_TRUE(manager->Start());
    auto gone = std::make_shared<nos::rtl::Semaphore>();
    EXPECT_FALSE(manager->TakeGroupHandle(1, gone).has_value());
    gone.reset();  // a waiter that went away is skipped
    const auto waiter = std::make_shared<nos::rtl::Semaphore>();
    EXPECT_FALSE(manager->TakeGroupHandle(1, waiter).has_value());

    Handle client = INVALID_HANDLE;
    EXPECT_EQ(Connect("echo", &client), 9);
    ASSERT_TRUE(log.WaitFor("notified"));
    ASSERT_TRUE(Posted(waiter));
    const auto handle = manager->TakeGroupHandle(1, waiter);
    ASSERT_TRUE(handle.has_value() && *handle != INVALID_HANDLE);
    EXPECT_EQ(settings, std::vector<unsigned>{42});
    EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{"ConnectionManager: worker start", kInfo},
                                                 {"notified echo 9 " + std::to_string(*handle)}}));
    manager.reset();
    EXPECT_EQ(KnHandleClose(*handle), NK_EOK);  // taken: the manager left it open
    EXPECT_EQ(KnHandleClose(client), NK_EOK);
}

TEST_F(IpcConnectionManagerTest, Worker_DropsAndLogsRequestsItCannotAccept)
{
    std::atomic<bool> refuse = true;
    auto block = std::make_shared<ConnectionManager::CbkSet>();
    block->accept = [&refuse](const char*, const char*, unsigned, unsigned, unsigned&) { return !refuse; };
    ConnectionManager manager(Config({{{"echo", {3, 1}}, {"wide", {70000, 2}}}, {}, block}));
    ASSERT_TRUE(manager.Start());

    EXPECT_EQ(Connect("stray"), NK_ECONNREFUSED);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(Connect("echo"), NK_ECONNREFUSED);  // by the accept callback, after the worker's pause
    EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);
    refuse = false;
    EXPECT_EQ(Connect("echo"), 3);
    EXPECT_EQ(Connect("wide"), NK_ECONNREFUSED);  // no interface index carries its riid

    ASSERT_TRUE(log.WaitFor("notified", 3));  // each follows its log line
    const auto lines = log.Lines();
    ASSERT_EQ(lines.size(), 7u);
    const std::string client = R"(ConnectionManager: fdn_ipc_tests\.[0-9]+\.[0-9]+)";
    EXPECT_THAT(lines[1].text, MatchesRegex(client + R"(\.stray: not found in user plan)"));
    EXPECT_THAT(lines[2].text, MatchesRegex(client + R"(:echo \[3\] #1: not accepted by user \(KnCmDrop=0\))"));
    EXPECT_EQ(lines[3].text, "notified echo 3 refused");
    EXPECT_THAT(lines[4].text, MatchesRegex("notified echo 3 [0-9]+"));
    EXPECT_THAT(lines[5].text,
                MatchesRegex(client + R"(:wide \[70000\] #2: not accepted: KnCmAccept\(\) = -22 \(KnCmDrop\(\)=0\))"));
    EXPECT_EQ(lines[6].text, "notified wide 70000 refused");
    for (const size_t i : {1, 2, 5})
        EXPECT_EQ(lines[i].level, kError);
}

TEST_F(IpcConnectionManagerTest, Destructor_ReleasesWaitersAndClosesUntakenHandles)
{
    auto manager = std::make_unique<ConnectionManager>(Config({{{"echo", {3, 1}}, {"idle", {4, 2}}}, {}, nullptr}));
    ASSERT_TRUE(manager->Start());
    const auto waiter = std::make_shared<nos::rtl::Semaphore>();
    ASSERT_FALSE(manager->TakeGroupHandle(2, waiter).has_value());
    Handle client = INVALID_HANDLE;
    ASSERT_EQ(Connect("echo", &client), 3);
    const auto accepted = log.WaitFor("notified echo 3 ");
    ASSERT_TRUE(accepted);

    manager.reset();  // the worker is listening, a thread waits for group 2
    EXPECT_TRUE(Posted(waiter));
    EXPECT_EQ(KnHandleClose(static_cast<Handle>(std::stoul(accepted->text.substr(16)))), NK_EBADF);  // closed
    nk_message request{};
    nk_msg_set_size(&request, sizeof request);
    NkNosTransport t{};
    ASSERT_EQ(NkNosTransport_Init(&t, client, nullptr, 0), NK_EOK);
    EXPECT_EQ(t.ops->call(&t, &request, nullptr, &request, nullptr), NK_EPIPE);
    EXPECT_EQ(KnHandleClose(client), NK_EOK);
}

}  // namespace
