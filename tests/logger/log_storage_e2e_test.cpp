// The entity logger against the real log-storage process over the host platform.
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nos/platform.h>

#include "child_process.h"
#include "vantor_logger/nvlog_record.h"

namespace {

namespace nvlog = nos::logger::nvlog;
using logger_test::ChildProcess;
using logger_test::ReadFile;
using namespace std::chrono_literals;

std::int64_t Now()
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

struct ProbeRun {
    std::optional<int> status;
    std::string out;
    std::string err;
};

class LogStorageE2ETest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/log_storage_e2e_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        setenv("NOS_RUNTIME_DIR", m_dir.c_str(), 1);
        setenv("NOS_CALL_TIMEOUT_MS", "5000", 1);
    }

    void TearDown() override
    {
        m_storage.reset();
        std::filesystem::remove_all(m_dir);
    }

    std::string Path(const char* name) const { return m_dir + "/" + name; }

    void StartStorage()
    {
        m_storage = std::make_unique<ChildProcess>(
            std::vector<std::string>{LOG_STORAGE_PATH, "--out", Path("out.txt"), "--raw", Path("raw.bin")},
            Path("storage.out"), Path("storage.err"));
        for (int attempt = 0; attempt < 500; ++attempt) {
            const Handle handle = ServiceLocatorConnect(nvlog::kEntityName);
            if (handle != INVALID_HANDLE) {
                KnHandleClose(handle);
                return;
            }
            std::this_thread::sleep_for(10ms);
        }
        FAIL() << "log-storage did not come up: " << ReadFile(Path("storage.err"));
    }

    // Ends the storage with SIGTERM, which must be a clean exit.
    void StopStorage()
    {
        m_storage->Signal(SIGTERM);
        EXPECT_EQ(m_storage->Wait(), 0) << ReadFile(Path("storage.err"));
    }

    ProbeRun RunProbe(std::vector<std::string> args)
    {
        args.insert(args.begin(), LOGGER_PROBE_PATH);
        ChildProcess probe(args, Path("probe.out"), Path("probe.err"));
        m_probePid = probe.pid();
        ProbeRun run;
        run.status = probe.Wait();
        run.out = ReadFile(Path("probe.out"));
        run.err = ReadFile(Path("probe.err"));
        return run;
    }

    // The probe logs from its main thread, whose thread id is its process id.
    std::string Prefix(const std::string& level, const std::string& where = "main:48") const
    {
        const std::string id = std::to_string(m_probePid);
        return "[logger_probe][" + level + "][" + where + "][" + id + ":" + id + "] ";
    }

    std::vector<std::vector<std::uint8_t>> RawRecords() const
    {
        const std::string raw = ReadFile(Path("raw.bin"));
        EXPECT_EQ(raw.size() % nvlog::kRecordSize, 0u);
        std::vector<std::vector<std::uint8_t>> records;
        for (std::size_t at = 0; at + nvlog::kRecordSize <= raw.size(); at += nvlog::kRecordSize)
            records.emplace_back(raw.begin() + static_cast<std::ptrdiff_t>(at),
                                 raw.begin() + static_cast<std::ptrdiff_t>(at + nvlog::kRecordSize));
        return records;
    }

    // The whole record: reserved zeros, time in [from, to], 0, 100, the text,
    // its NUL and zeros to the end.
    static void ExpectRecord(const std::vector<std::uint8_t>& record, std::int64_t from, std::int64_t to,
                             const std::string& text)
    {
        ASSERT_EQ(record.size(), 4120u);
        ASSERT_LT(text.size(), 4096u);
        for (std::size_t i = 0; i < 8; ++i)
            EXPECT_EQ(record[i], 0) << "byte " << i;
        const auto time = static_cast<std::int64_t>(nvlog::LoadLe(record.data() + 8, 8));
        EXPECT_GE(time, from);
        EXPECT_LE(time, to);
        EXPECT_EQ(nvlog::LoadLe(record.data() + 16, 4), 0u);
        EXPECT_EQ(nvlog::LoadLe(record.data() + 20, 4), 100u);
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(record.data() + 24), text.size()), text);
        for (std::size_t i = 24 + text.size(); i < record.size(); ++i)
            ASSERT_EQ(record[i], 0) << "byte " << i;
    }

    std::string m_dir;
    std::unique_ptr<ChildProcess> m_storage;
    pid_t m_probePid = 0;
};

TEST_F(LogStorageE2ETest, NvlogSink_RecordsReachStorageByteByByte)
{
    StartStorage();
    const std::int64_t from = Now();
    const ProbeRun run = RunProbe({"2", "before:too early", "setup", "enabled", "log:2:hello {}",
                                   "log:1:hidden", "entity:1:IPC server has stopped", "clog:100%"});
    const std::int64_t to = Now();
    StopStorage();
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "enabled 0 0 1 1 1 1 0\n");

    const std::string texts[] = {
        Prefix("info") + "hello {}\n",
        Prefix("error", "shared_log_function_for_entity:12") + "IPC server has stopped\n",
        Prefix("info") + "100%\n",
    };
    const auto records = RawRecords();
    ASSERT_EQ(records.size(), std::size(texts));
    for (std::size_t i = 0; i < records.size(); ++i)
        ExpectRecord(records[i], from, to, texts[i]);

    const auto lines = Lines(ReadFile(Path("out.txt")));
    ASSERT_EQ(lines.size(), std::size(texts));
    const std::regex stamp(R"(^\d{4}-\d{2}-\d{2}T\d{2}:\d{2}:\d{2}Z $)");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_TRUE(std::regex_match(lines[i].substr(0, 21), stamp)) << lines[i];
        EXPECT_EQ(lines[i].substr(21) + "\n", texts[i]);
    }

    // The platform log gets the bare messages; nothing from before set-up.
    EXPECT_NE(run.err.find("hello {}"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("IPC server has stopped"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("too early"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("hidden"), std::string::npos) << run.err;
    EXPECT_EQ(ReadFile(Path("storage.err")), "");
}

TEST_F(LogStorageE2ETest, NvlogSink_CutsAt4095BytesPlusNul)
{
    StartStorage();
    // The probe's pid is known only once it runs; its width fixes the prefix
    // length, so the fill sizes are computed from a first run's prefix.
    RunProbe({"2"});
    const std::size_t prefix = Prefix("info").size();
    const std::size_t whole = 4095 - prefix - 1;  // 4,095 bytes with the line end
    const std::string args[] = {"fill:2:" + std::to_string(whole), "fill:2:" + std::to_string(whole + 1)};
    ProbeRun run = RunProbe({"2", "setup-null", args[0], args[1], "clog:" + std::string(600, 'c')});
    // A pid of another width would shift the boundary: run again until it matches.
    for (int attempt = 0; attempt < 20 && Prefix("info").size() != prefix; ++attempt) {
        std::filesystem::remove(Path("raw.bin"));
        run = RunProbe({"2", "setup-null", args[0], args[1], "clog:" + std::string(600, 'c')});
    }
    ASSERT_EQ(Prefix("info").size(), prefix);
    StopStorage();
    ASSERT_EQ(run.status, 0) << run.err;

    const auto records = RawRecords();
    ASSERT_EQ(records.size(), 3u);
    const std::string sentWhole = Prefix("info") + std::string(whole, 'x') + "\n";
    ASSERT_EQ(sentWhole.size(), 4095u);
    ExpectRecord(records[0], 0, Now(), sentWhole);

    const std::string cut = (Prefix("info") + std::string(whole + 1, 'x') + "\n").substr(0, 4095);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(records[1].data() + 24), 4095), cut);
    EXPECT_EQ(records[1][4118], 'x');
    EXPECT_EQ(records[1][4119], 0);

    // NosCLoggerLog keeps 511 characters of a longer message.
    ExpectRecord(records[2], 0, Now(), Prefix("info") + std::string(511, 'c') + "\n");

    const auto lines = Lines(ReadFile(Path("out.txt")));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[1].substr(21), cut);
}

TEST_F(LogStorageE2ETest, Setup_WithoutStorage)
{
    const ProbeRun run = RunProbe({"3", "setup", "enabled", "log:4:shown", "log:2:hidden"});
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "enabled 0 0 0 1 1 1 0\n");
    EXPECT_NE(run.err.find("shown"), std::string::npos) << run.err;
    EXPECT_EQ(run.err.find("hidden"), std::string::npos) << run.err;
}

TEST_F(LogStorageE2ETest, NosCLoggerSetup_SecondSetupIgnored)
{
    StartStorage();
    const ProbeRun run = RunProbe({"4", "setup", "setup-null", "setup", "enabled", "log:3:hidden", "log:4:kept"});
    StopStorage();
    ASSERT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "enabled 0 0 0 0 1 1 0\n");
    const auto lines = Lines(ReadFile(Path("out.txt")));
    ASSERT_EQ(lines.size(), 1u);  // one storage sink, however many set-ups
    EXPECT_EQ(lines[0].substr(21), Prefix("error") + "kept");
}

// Sends one request with the given method and arena; returns the reply header.
nk_message Send(NkNosTransport& transport, std::uint16_t mid, std::vector<std::uint8_t> arenaBytes)
{
    nvlog::StoreRequest request{};
    request.header.mid = mid;
    nk_msg_set_size(&request.header, sizeof(request));
    request.record = {0, static_cast<std::uint32_t>(arenaBytes.size())};
    nk_arena arena;
    nk_arena_init(&arena, arenaBytes.data(), arenaBytes.size());
    arena.current = arena.end;
    nvlog::StoreResponse response{};
    nk_msg_set_size(&response.header, sizeof(response));
    EXPECT_EQ(transport.ops->call(&transport, &request.header, &arena, &response.header, nullptr), NK_EOK);
    return response.header;
}

TEST_F(LogStorageE2ETest, LogStorage_MalformedRecordAnsweredAndServingGoesOn)
{
    StartStorage();
    const Handle handle = ServiceLocatorConnect(nvlog::kEntityName);
    ASSERT_NE(handle, INVALID_HANDLE);
    EXPECT_EQ(ServiceLocatorGetRiid(handle, nvlog::kEndpointName), 0u);
    NkNosTransport transport{};
    ASSERT_EQ(NkNosTransport_Init(&transport, handle, nullptr, 0), NK_EOK);

    std::vector<std::uint8_t> good(nvlog::kRecordSize);
    nvlog::EncodeRecord(std::span<std::uint8_t, nvlog::kRecordSize>(good.data(), good.size()), 0, "after\n");
    std::vector<std::uint8_t> noNul = good;
    std::memset(noNul.data() + nvlog::kTextOffset, 'z', nvlog::kTextCapacity);

    const nk_message tooSmall = Send(transport, 0, std::vector<std::uint8_t>(100));
    EXPECT_TRUE(nk_msg_is_error(&tooSmall));
    const nk_message withoutNul = Send(transport, 0, noNul);
    EXPECT_TRUE(nk_msg_is_error(&withoutNul));
    const nk_message wrongMethod = Send(transport, 3, good);
    EXPECT_TRUE(nk_msg_is_error(&wrongMethod));
    EXPECT_EQ(wrongMethod.mid, 3);
    const nk_message accepted = Send(transport, 0, good);
    EXPECT_FALSE(nk_msg_is_error(&accepted));
    EXPECT_EQ(nk_msg_size(&accepted), 32u);
    KnHandleClose(handle);
    StopStorage();

    EXPECT_EQ(ReadFile(Path("storage.err")),
              "log-storage: malformed record: record of 100 bytes, expected 4120\n"
              "log-storage: malformed record: record text without a terminating NUL\n"
              "log-storage: malformed record: unknown method 3\n");
    EXPECT_EQ(ReadFile(Path("out.txt")), "1970-01-01T00:00:00Z after\n");
}

TEST_F(LogStorageE2ETest, LogStorage_KilledKeepsWrittenLines)
{
    StartStorage();
    const ProbeRun run = RunProbe({"2", "setup", "log:2:one", "log:3:two", "log:4:three"});
    ASSERT_EQ(run.status, 0) << run.err;
    // Each call returns once the storage has written the line.
    m_storage->Signal(SIGKILL);
    EXPECT_EQ(m_storage->Wait(), 128 + SIGKILL);
    const auto lines = Lines(ReadFile(Path("out.txt")));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0].substr(21), Prefix("info") + "one");
    EXPECT_EQ(lines[1].substr(21), Prefix("warning") + "two");
    EXPECT_EQ(lines[2].substr(21), Prefix("error") + "three");
}

TEST_F(LogStorageE2ETest, LogStorage_CommandLine)
{
    struct Case {
        std::vector<std::string> args;
        int status;
        std::string out;
        std::string err;
    };
    const Case cases[] = {
        {{"--help"}, 0, "Usage: log-storage [--out FILE] [--raw FILE]", ""},
        {{"--bogus"}, 2, "", "log-storage: unknown argument '--bogus' (see --help)\n"},
        {{"--out"}, 2, "", "log-storage: --out needs a file name (see --help)\n"},
        {{"--out", "/nonexistent/dir/out.txt"}, 1, "",
         "log-storage: cannot open '/nonexistent/dir/out.txt': No such file or directory\n"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> argv{LOG_STORAGE_PATH};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        ChildProcess storage(argv, Path("cli.out"), Path("cli.err"));
        EXPECT_EQ(storage.Wait(), c.status) << c.args[0];
        EXPECT_EQ(ReadFile(Path("cli.out")).substr(0, c.out.size()), c.out) << c.args[0];
        EXPECT_EQ(ReadFile(Path("cli.err")), c.err) << c.args[0];
    }
}

}  // namespace
