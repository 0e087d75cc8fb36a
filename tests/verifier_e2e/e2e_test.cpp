// The verifier as a process. First the four real processes (log storage,
// update registry, signature verifier, verifier) with a package signed by a
// test PKI (make-package): each path of a Verify once (signed, refused, a
// file missing, a peer gone), with the exact lines that reach the log
// storage. Then the verifier against fake peers in this process: how it
// stops, what it survives (a peer that leaves in the middle of a request,
// many requests), and verifier-cli.
#include <nos/platform.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/fake_peer.h"
#include "support/process.h"
#include "support/runtime_dir.h"
#include "update/registry/ipc/proxy.h"
#include "verifier_api/messages.h"

namespace verifier_e2e {
namespace {

constexpr std::uint16_t kProduct = 0;
constexpr std::uint16_t kApplist = 1;

// The result of a normal (0x18: 0) or error (0x80000020: its code) reply;
// none when the call failed or the reply has another size word.
std::optional<std::uint32_t> Verify(std::uint16_t riid, std::uint32_t handle)
{
    const Handle channel = ServiceLocatorConnect("verifier");
    NkNosTransport transport{};
    nv_IVerifier_Verify_req request{};
    request.base_.riid = riid;
    nk_msg_set_size(&request.base_, sizeof request);
    request.handle = handle;
    nv_IVerifier_Verify_res reply{};
    nk_msg_set_size(&reply.base_, sizeof reply);
    Retcode rc = channel == INVALID_HANDLE ? NK_ENOENT : NkNosTransport_Init(&transport, channel, nullptr, 0);
    if (rc == NK_EOK)
        rc = transport.ops->call(&transport, &request.base_, nullptr, &reply.base_, nullptr);
    (void)KnHandleClose(channel);
    if (rc != NK_EOK || (reply.base_.size != 0x18u && reply.base_.size != 0x80000020u)) {
        ADD_FAILURE() << "call " << rc << ", size word 0x" << std::hex << reply.base_.size;
        return std::nullopt;
    }
    return reply.base_.size == 0x18u ? 0u : static_cast<std::uint32_t>(reply.result);
}

// The verifier's lines in `text` (records or a log storage's output), as
// "[verifier][level][file:line] message": without the time stamp and the
// process and thread ids, and without the line numbers of other parts' files.
std::vector<std::string> VerifierLines(const std::string& text)
{
    static const std::regex kIds(R"(\[\d+:\d+\] )");
    static const std::regex kOtherLine(R"(\[(manage_exception|proxy_base|shared_log_function_for_entity):\d+\])");
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (const size_t at = line.find("[verifier]"); at != std::string::npos)
            lines.push_back(std::regex_replace(std::regex_replace(line.substr(at), kIds, " "), kOtherLine, "[$1]"));
    }
    return lines;
}

using namespace test_support;
namespace fs = std::filesystem;

class VerifierE2eTest : public RuntimeDirTest {
protected:
    // The verifier's log-storage lines since the last call, once there are
    // `count` of them or 10 s have passed.
    std::vector<std::string> NewLines(size_t count)
    {
        std::vector<std::string> lines;
        for (int wait = 0; wait < 1000 && (lines = VerifierLines(ReadFile(runtime.Path() / "log.txt"))).size() <
                                              seen + count;
             ++wait)
            std::this_thread::sleep_for(10ms);
        lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(std::min(seen, lines.size())));
        seen += lines.size();
        return lines;
    }
    size_t seen = 0;
};

TEST_F(VerifierE2eTest, Verify_EachPathOnce)
{
    const fs::path dir = runtime.Path();
    ASSERT_EQ(std::system((VERIFIER_E2E_DIR "/make-package '" + dir.string() + "'").c_str()), 0);
    Process storage({program::kLogStorage, "--out", (dir / "log.txt").string()});
    ASSERT_TRUE(storage.WaitServing("nv.NvlogStorageEntity")) << storage.Log();
    Process registry({program::kUpdateRegistry, "--storage", (dir / "storage").string()});
    ASSERT_TRUE(registry.WaitServing("update_registry")) << registry.Log();
    Process checker({program::kSignatureVerifier, "--roots", (dir / "pki/roots").string()});
    ASSERT_TRUE(checker.WaitServing("nv.SignatureVerifierEntity")) << checker.Log();
    Process verifier({program::kVerifier});
    ASSERT_TRUE(verifier.WaitServing("verifier")) << verifier.Log();

    // The start-up lines are the entity test's; here they only come first.
    ASSERT_EQ(NewLines(3).size(), 3u);

    // A session of each kind (0 product, 1 applist), holding the signed files.
    const auto sessions = update::registry::ipc::CreateProxy("update_registry", "UpdateRegistry.UpdateRegistry");
    unsigned int handles[2] = {};
    std::string folders[2];
    for (const std::uint16_t riid : {kProduct, kApplist}) {
        update::registry::ipc::SessionInfo info;
        ASSERT_EQ(sessions->Open(static_cast<update::registry::ipc::PackageType>(riid), handles[riid]), 0);
        ASSERT_EQ(sessions->GetInfo(handles[riid], info), 0);
        folders[riid] = info.path.string();
        fs::copy(dir / "package", info.path);
    }
    const std::string list = folders[kApplist] + "/appcollectioninfo.nos.vantor.json";
    const std::string archive = folders[kProduct] + "/update_vantor3.tar.gz";
    const std::string failed = "[verifier][error][manage_exception] : ";
    const std::string during = " ; detailed: exception during: Verify";
    struct Path {
        const char* name;
        std::uint16_t riid;
        std::function<void()> before;
        std::uint32_t code;
        std::vector<std::string> lines;
    };
    const Path paths[] = {
        {"signed list", kApplist, [] {}, 0,
         {"[verifier][info][applist_verifier:54] AppList file " + list + " verification with signature file " + list +
          ".sign was succeeded"}},
        {"signed archive", kProduct, [] {}, 0,
         {"[verifier][info][product_verifier:57] Update file " + archive + " verification with signature file " +
          folders[kProduct] + "/update_vantor3.sign was succeeded"}},
        {"one byte of the archive flipped: the signature verifier's refusal", kProduct,
         [&] {
             std::fstream file(archive, std::ios::in | std::ios::out | std::ios::binary);
             const char byte = static_cast<char>(file.seekg(5000).get() ^ 1);
             file.seekp(5000).put(byte);
         },
         0xFFFF4000,
         {failed + "Expression failedFailed to verify update file " + archive + " with signature file " +
          folders[kProduct] + "/update_vantor3.sign: 0xffff4000 (Unknown result code)" + during}},
        {"the list's signature missing", kApplist, [&] { fs::remove(list + ".sign"); }, 0x80000046,
         {failed + "AppList signature file doesn't exist " + list + ".sign: 0x80000046 (Invalid argument)" + during}},
        {"the signature verifier gone", kProduct, [&] { checker.Stop(); }, 0x80000151,
         {failed + "Expression failedFailed to verify update file " + archive + " with signature file " +
          folders[kProduct] + "/update_vantor3.sign: 0x80000151 (Exception has no result code)" + during}},
    };
    for (const Path& path : paths) {
        SCOPED_TRACE(path.name);
        path.before();
        EXPECT_EQ(Verify(path.riid, handles[path.riid]), path.code);
        EXPECT_EQ(NewLines(path.lines.size()), path.lines);
    }
    EXPECT_FALSE(verifier.Wait(0ms).has_value()) << "the verifier still serves";
}

class VerifierProcessTest : public RuntimeDirTest {
protected:
    // Session 7's folder holds an application list and its signature.
    VerifierProcessTest()
    {
        for (const char* name : {"appcollectioninfo.nos.vantor.json", "appcollectioninfo.nos.vantor.json.sign"})
            std::ofstream(runtime.Path() / name) << "content";
    }

    std::unique_ptr<Process> StartVerifier()
    {
        auto verifier = std::make_unique<Process>(std::vector<std::string>{program::kVerifier});
        EXPECT_TRUE(verifier->WaitServing("verifier")) << verifier->Log();
        return verifier;
    }

    FakeLogStorage storage;
    FakeRegistry registry{{{7, {.path = runtime.Path()}}}};
};

TEST_F(VerifierProcessTest, Main_StopSignalsEndServingWithStatusZero)
{
    // A test started in the background may inherit SIGINT ignored, and so
    // would the verifier: give it the default action, as a terminal would.
    std::signal(SIGINT, SIG_DFL);
    size_t seen = 0;
    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(strsignal(signal));
        const auto verifier = StartVerifier();
        verifier->Signal(signal);
        EXPECT_EQ(verifier->Wait(), 0);
        // Its start lines, then only the stop line: the wake-up request that
        // ends the wait names nothing to serve.
        std::string records;
        for (const std::string& record : storage.Lines())
            records += record;
        const std::vector<std::string> lines = VerifierLines(records);
        ASSERT_EQ(lines.size(), seen + 4) << records;
        EXPECT_EQ(lines.back(), "[verifier][info][shared_log_function_for_entity] IPC server has stopped");
        seen = lines.size();
    }
}

// A signature verifier that dies mid-request fails that check with the
// signature client's status for a broken connection (-32); each check
// connects anew, and many of them leave no descriptor open.
TEST_F(VerifierProcessTest, Verify_CheckerDiesMidRequestThenManyChecks)
{
    const auto verifier = StartVerifier();
    auto dying = std::make_unique<FakeSignatureVerifier>();
    dying->SetMode(FakeMode::Never);
    auto answer = std::async(std::launch::async, [] { return Verify(kApplist, 7); });
    ASSERT_TRUE(dying->WaitRequests(1));
    dying.reset();
    EXPECT_EQ(answer.get(), 0xFFFFFFE0u);
    FakeSignatureVerifier checker;
    const auto descriptors = [&verifier] {
        const auto entries = fs::directory_iterator("/proc/" + std::to_string(verifier->Pid()) + "/fd");
        return std::distance(fs::begin(entries), fs::end(entries));
    };
    ASSERT_EQ(Verify(kApplist, 7), 0u);
    const auto before = descriptors();
    for (int i = 0; i < 200; ++i)
        ASSERT_EQ(Verify(kApplist, 7), 0u) << "check " << i;
    EXPECT_LE(descriptors(), before + 2);
}

TEST_F(VerifierProcessTest, VerifierCli_ExitStatusAndOutput)
{
    struct Row {
        const char* name;
        std::vector<std::string> args;
        bool serving;
        int status;
        std::vector<std::string> out;
    };
    const Row rows[] = {
        {"unknown kind", {"verify", "firmware", "7"}, false, 2, {}},
        {"handle above 32 bits", {"verify", "applist", "0x100000000"}, false, 2, {}},
        {"nobody serves the channel", {"verify", "applist", "7"}, false, 2, {}},
        {"signed: only the low 24 bits of the handle count", {"verify", "applist", "0x1000007"}, true, 0,
         {"0x00000000 (No error)"}},
        {"a failure, with the reply's bytes", {"verify", "product", "0xFFFFFF", "--raw"}, true, 1,
         {"00 00 00 00 20 00 00 80 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 46 00 00 80 00 00 00 00",
          "0x80000046 (Invalid argument)"}},
    };
    FakeSignatureVerifier checker;
    std::unique_ptr<Process> verifier;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (row.serving && !verifier)
            verifier = StartVerifier();
        std::vector<std::string> argv{program::kVerifierCli};
        argv.insert(argv.end(), row.args.begin(), row.args.end());
        Process cli(argv);
        EXPECT_EQ(cli.Wait(), row.status) << cli.Log();
        std::vector<std::string> out;
        while (const auto line = cli.ReadLine())
            out.push_back(*line);
        EXPECT_EQ(out, row.out);
    }
}

}  // namespace
}  // namespace verifier_e2e
