// The verifier process itself: its start line, a start without the update
// registry, stopping on SIGTERM, and verifier-cli.
#include <signal.h>

#include <chrono>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "e2e_support.h"

namespace verifier_e2e {
namespace {

using namespace std::chrono_literals;

const std::string kStartedOk = "Entity started [\x1b[92mOK\x1b[0m]";
const std::string kStartedFailed = "Entity started [\x1b[91mFAILED\x1b[0m]";

// Lines of the verifier whose message is `message`.
std::vector<LogLine> WithMessage(const std::vector<LogLine>& lines, std::string_view message)
{
    std::vector<LogLine> found;
    for (const LogLine& line : VerifierLines(lines))
        if (line.message == message)
            found.push_back(line);
    return found;
}

TEST(VerifierMainTest, Main_StartLineAtInfoBeforeServing)
{
    SharedSetting& setting = Shared();
    const std::vector<LogLine> lines = VerifierLines(setting.entities.Log());
    ASSERT_EQ(kStartedOk.size(), 28u);

    std::optional<std::size_t> started;
    std::optional<std::size_t> serving;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i].message == kStartedOk && !started)
            started = i;
        if (lines[i].message.starts_with("NkNosTransport initialized with handle ") && !serving)
            serving = i;
    }
    ASSERT_TRUE(started.has_value());
    ASSERT_TRUE(serving.has_value());
    EXPECT_LT(*started, *serving);
    EXPECT_EQ(lines[*started].level, "info");
    EXPECT_EQ(lines[*started].where, "main:48");
    // Written by the main thread, whose thread id is the process id.
    const std::string& ids = lines[*started].ids;
    const std::size_t colon = ids.find(':');
    ASSERT_NE(colon, std::string::npos);
    EXPECT_EQ(ids.substr(0, colon), ids.substr(colon + 1));
    EXPECT_EQ(WithMessage(lines, kStartedOk).size(), 1u);
    EXPECT_TRUE(WithMessage(lines, kStartedFailed).empty());

    // The platform log (standard error) gets the bare line at its info level.
    EXPECT_NE(setting.entities.VerifierStderr().find("[verifier][INFO] " + kStartedOk + "\n"), std::string::npos);
}

// A runtime directory of its own, with the log storage; the registry and the
// verifier start as each test needs.
class VerifierProcessTest : public ::testing::Test {
protected:
    signature_verifier::host::testing::TempDir dir{"verifier-e2e-main"};
    Entities entities{dir.Path()};

    registry_test::RunResult Cli(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv{VERIFIER_CLI_PATH};
        argv.insert(argv.end(), args.begin(), args.end());
        return registry_test::Run(argv, dir.Path());
    }
};

TEST_F(VerifierProcessTest, Main_NoRegistryFailsWithExitOne)
{
    std::optional<int> status;
    {
        logger_test::ChildProcess verifier({VERIFIER_PATH}, (dir.Path() / "verifier.out").string(),
                                           (dir.Path() / "verifier.err").string());
        status = verifier.Wait(15s);
    }
    ASSERT_TRUE(status.has_value()) << "the verifier did not end";
    EXPECT_EQ(*status, 1);

    const std::vector<LogLine> lines = entities.Log();
    ASSERT_EQ(kStartedFailed.size(), 32u);
    const auto failed = WithMessage(lines, kStartedFailed);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].level, "error");
    EXPECT_EQ(failed[0].where, "main:57");
    const auto cause =
        WithMessage(lines, ": invalid handle: 0x80000071 (Invalid result) ; detailed: exception during: main");
    ASSERT_EQ(cause.size(), 1u);
    EXPECT_EQ(cause[0].level, "error");
    EXPECT_TRUE(WithMessage(lines, kStartedOk).empty());
    EXPECT_NE(entities.VerifierStderr().find("[verifier][ERROR] " + kStartedFailed + "\n"), std::string::npos);
}

TEST_F(VerifierProcessTest, Main_SigtermEndsServingWithExitZero)
{
    entities.StartRegistry();
    entities.StartVerifier();
    {
        VerifierClient busy;
        EXPECT_EQ(static_cast<std::uint32_t>(busy.Call(1, 0x00FFFFFFu).Result()), 0x80000046u);
        // An idle client stays connected while the entity stops.
        VerifierClient idle;
        entities.Verifier().Signal(SIGTERM);
        const std::optional<int> status = entities.Verifier().Wait(10s);
        ASSERT_TRUE(status.has_value()) << "the verifier did not stop";
        EXPECT_EQ(*status, 0) << entities.VerifierStderr();
        EXPECT_NE(idle.Call(1, 5).rc, NK_EOK);
    }
    const auto stopped = WithMessage(entities.Log(), "IPC server has stopped");
    ASSERT_EQ(stopped.size(), 1u);
    EXPECT_EQ(stopped[0].level, "info");
}

TEST_F(VerifierProcessTest, VerifierCli_ExitCodesAndOutput)
{
    struct Row {
        const char* name;
        std::vector<std::string> args;
        int exitCode;
        std::string out;         // exact standard output, when given
        std::string errPart;     // a part of standard error
    };
    const std::vector<Row> usage = {
        {"no command", {}, 2, "", "verifier-cli: no command given"},
        {"unknown command", {"check", "applist", "1"}, 2, "", "unknown command 'check'"},
        {"unknown kind", {"verify", "firmware", "1"}, 2, "", "unknown package kind 'firmware'"},
        {"bad handle", {"verify", "applist", "12x"}, 2, "", "bad handle '12x'"},
        {"handle above 32 bits", {"verify", "applist", "0x100000000"}, 2, "", "'0x100000000' is above 0xFFFFFFFF"},
        {"missing handle", {"verify", "product"}, 2, "", "needs a package kind and a handle"},
        {"unknown option", {"verify", "product", "1", "--fast"}, 2, "", "unknown option '--fast'"},
        {"nobody serves the channel", {"verify", "applist", "1"}, 2, "", "no verifier serves the channel"},
    };
    for (const Row& row : usage) {
        SCOPED_TRACE(row.name);
        const auto run = Cli(row.args);
        EXPECT_EQ(run.exitCode, row.exitCode);
        EXPECT_EQ(run.out, row.out);
        EXPECT_NE(run.err.find(row.errPart), std::string::npos) << run.err;
    }
    const auto help = Cli({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.out.rfind("Usage: verifier-cli verify applist|product HANDLE [--raw]\n", 0), 0u);

    entities.StartRegistry();
    entities.StartVerifier();
    const std::vector<Row> served = {
        {"largest handle: no handle", {"verify", "applist", "0xFFFFFFFF"}, 1, "0x80000046 (Invalid argument)\n", ""},
        {"registry's code", {"verify", "product", "77"}, 1, "0x8000004c (Not found)\n", ""},
        {"raw reply bytes",
         {"verify", "applist", "16777215", "--raw"},
         1,
         "01 00 00 00 20 00 00 80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 46 00 00 80 00 00 00 00\n"
         "0x80000046 (Invalid argument)\n",
         ""},
    };
    for (const Row& row : served) {
        SCOPED_TRACE(row.name);
        const auto run = Cli(row.args);
        EXPECT_EQ(run.exitCode, row.exitCode) << run.err;
        EXPECT_EQ(run.out, row.out);
    }
}

}  // namespace
}  // namespace verifier_e2e
