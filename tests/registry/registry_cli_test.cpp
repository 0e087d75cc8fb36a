// The host registry programs over the wire: registry-cli's commands, output
// and exit status against a running update-registry, whose state file keeps
// the sessions across a kill.
#include "support/process.h"
#include "support/runtime_dir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

namespace {

using namespace test_support;

// The exit status, standard output and standard error of one run.
std::tuple<int, std::string, std::string> Cli(std::vector<std::string> args)
{
    args.insert(args.begin(), program::kRegistryCli);
    Process cli(args);
    std::string out;
    while (const auto line = cli.ReadLine())
        out += *line + "\n";
    const int status = cli.Wait().value_or(-1);
    return {status, out, cli.Log()};
}

TEST(RegistryCliTest, Commands_OutputAndExitStatus)
{
    RuntimeDir runtime;
    const auto start = [&] {
        auto registry = std::make_unique<Process>(std::vector<std::string>{
            program::kUpdateRegistry, "--storage", runtime.Path() / "s", "--state", runtime.Path() / "state.json"});
        EXPECT_TRUE(registry->WaitServing("update_registry")) << registry->Log();
        return registry;
    };
    auto registry = start();
    const std::string session = "\\{\n  \"type\": 1,\n  \"state\": 5,\n  \"id\": \"([0-9a-f-]{36})\",\n  \"path\": \"" +
                                (runtime.Path() / "s/").string() + "\\1\"\n\\}\n";
    const std::string notFound = "0x8000004c \\(Not found\\)\n";
    const std::string usage = "registry-cli: [^\n]+\nUsage: registry-cli \\[OPTIONS\\] COMMAND \\[ARGS\\]\n[\\s\\S]+";
    // Arguments, then the exit status, standard output and standard error as regular expressions.
    const std::tuple<std::vector<std::string>, int, std::string, std::string> cases[] = {
        {{"open", "applist"}, 0, "1\n", ""},
        {{"open", "0"}, 0, "2\n", ""},
        {{"set-state", "0x1", "verification-failed"}, 0, "", ""},
        {{"close", "2"}, 0, "", ""},
        {{"info", "1"}, 0, session, ""},
        {{"handle", "00000000-0000-0000-0000-000000000000"}, 1, "", notFound},
        {{"close", "7"}, 1, "", notFound},
        {{"info", "0xFFFFFF"}, 1, "", notFound},
        {{"close", "16777217"}, 2, "", usage},  // its low 24 bits would name session 1
        {{"set-state", "1", "11"}, 2, "", usage},
        {{}, 2, "", usage},
        {{"--help"}, 0, "Usage: registry-cli \\[OPTIONS\\] COMMAND \\[ARGS\\]\n[\\s\\S]+", ""},
        {{"--connection", "elsewhere", "list"}, 1, "",
         "registry-cli: cannot reach elsewhere \\(UpdateRegistry.UpdateRegistry\\)\n0x80000071 \\(Invalid result\\)\n"},
    };
    for (const auto& [args, status, out, err] : cases) {
        const auto [ranStatus, ranOut, ranErr] = Cli(args);
        EXPECT_EQ(ranStatus, status) << (args.empty() ? "" : args[0]) << ": " << ranErr;
        EXPECT_TRUE(std::regex_match(ranOut, std::regex(out))) << ranOut;
        EXPECT_TRUE(std::regex_match(ranErr, std::regex(err))) << ranErr;
    }

    const std::string before = std::get<1>(Cli({"list"}));
    EXPECT_NE(before.find("    \"state\": 5,\n"), std::string::npos) << before;
    registry->Signal(SIGKILL);  // every change must be on disk already
    EXPECT_EQ(registry->Wait(), 128 + SIGKILL);
    registry = start();
    EXPECT_EQ(std::get<1>(Cli({"list"})), before);
    EXPECT_EQ(std::get<1>(Cli({"open", "product"})), "3\n");  // a closed handle is not given out again
    EXPECT_EQ(registry->Stop(), 0);
}

}  // namespace
