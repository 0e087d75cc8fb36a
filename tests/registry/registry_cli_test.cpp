// registry-cli driven through every command against the real registry.
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support.h"

namespace {

namespace fs = std::filesystem;
using registry_test::RunResult;

class RegistryCliTest : public registry_test::InRuntimeDir<::testing::Test> {
protected:
    void SetUp() override
    {
        m_dir = Runtime().path() / ::testing::UnitTest::GetInstance()->current_test_info()->name();
        fs::create_directories(m_dir);
        m_registry = std::make_unique<registry_test::RegistryProcess>(m_dir);
    }

    void TearDown() override
    {
        if (m_registry) {
            EXPECT_EQ(m_registry->Stop(), 0) << m_registry->Stderr();
        }
    }

    RunResult Cli(std::vector<std::string> args) const
    {
        args.insert(args.begin(), REGISTRY_CLI_PATH);
        return registry_test::Run(args, m_dir);
    }

    fs::path m_dir;
    std::unique_ptr<registry_test::RegistryProcess> m_registry;
};

TEST_F(RegistryCliTest, Commands_DriveEveryCall)
{
    RunResult r = Cli({"open", "applist"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "1\n");
    r = Cli({"open", "0"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "2\n");

    r = Cli({"info", "1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const nlohmann::ordered_json info = nlohmann::ordered_json::parse(r.out);
    std::vector<std::string> keys;
    for (const auto& [key, value] : info.items())
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<std::string>{"type", "state", "id", "path"}));
    EXPECT_EQ(info["type"], 1);
    EXPECT_EQ(info["state"], 0);
    const std::string id = info["id"];
    EXPECT_EQ(info["path"], (fs::absolute(m_registry->storage()).lexically_normal() / id).string());

    r = Cli({"handle", id});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "1\n");

    r = Cli({"set-state", "0x1", "verification-failed"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(r.out, "");
    r = Cli({"set-state", "2", "10"});
    EXPECT_EQ(r.exitCode, 0) << r.err;

    r = Cli({"close", "2"});
    EXPECT_EQ(r.exitCode, 0) << r.err;
    r = Cli({"list"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const nlohmann::json list = nlohmann::json::parse(r.out);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["id"], id);
    EXPECT_EQ(list[0]["state"], 5);
}

TEST_F(RegistryCliTest, Commands_RegistryFailurePrintsCode)
{
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{"close", "7"}, "0x8000004c (Not found)\n"},
        {{"info", "0xFFFFFF"}, "0x8000004c (Not found)\n"},  // the largest handle a message carries
        {{"set-state", "7", "verified"}, "0x8000004c (Not found)\n"},
        {{"handle", "00000000-0000-0000-0000-000000000000"}, "0x8000004c (Not found)\n"},
    };
    for (const Case& c : cases) {
        const RunResult r = Cli(c.args);
        EXPECT_EQ(r.exitCode, 1) << c.args[0];
        EXPECT_EQ(r.out, "") << c.args[0];
        EXPECT_EQ(r.err, c.err) << c.args[0];
    }
    const RunResult r = Cli({"list"});
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "[]\n");
}

TEST_F(RegistryCliTest, CommandLine_UsageErrorsAndHelp)
{
    const std::vector<std::vector<std::string>> bad{
        {},
        {"frobnicate"},
        {"open"},
        {"open", "firmware"},
        {"info", "1", "2"},
        {"info", "one"},
        {"close", "16777217"},  // its low 24 bits would name session 1
        {"set-state", "1", "11"},
        {"handle", "not-an-id"},
        {"--connection"},
    };
    for (const auto& args : bad) {
        const RunResult r = Cli(args);
        EXPECT_EQ(r.exitCode, 2) << (args.empty() ? "" : args[0]);
        EXPECT_NE(r.err.find("Usage: registry-cli"), std::string::npos);
    }
    const RunResult help = Cli({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.rfind("Usage: registry-cli [OPTIONS] COMMAND [ARGS]\n", 0), 0u);
    // Nothing reached the registry.
    EXPECT_EQ(Cli({"list"}).out, "[]\n");
}

TEST_F(RegistryCliTest, Connection_AbsentRegistryIsInvalidResult)
{
    const RunResult r = Cli({"--connection", "no_registry_here", "list"});
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "registry-cli: cannot reach no_registry_here (UpdateRegistry.UpdateRegistry)\n"
                     "0x80000071 (Invalid result)\n");
}

}  // namespace
