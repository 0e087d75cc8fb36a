// Costs of the logging and result paths that every request may take.
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include <benchmark/benchmark.h>
#include <nos/platform.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include "common/utils/manage_exception.h"
#include "eka/exception.h"
#include "eka/result_code.h"
#include "nos/logger/nos_logger.h"
#include "vantor_logger/nvlog_record.h"
#include "vantor_logger/nvlog_sink.h"

extern char** environ;

namespace {

using nos::logger::LogLevel;
using nos::logger::NOSLogger;
constexpr const char* kMain = "entities/updater_pdk/verifier/src/main";

// The root logger over a null sink, so that the cost measured is the
// logger's own and not that of an output.
NOSLogger& NullRoot()
{
    static NOSLogger& root = [&]() -> NOSLogger& {
        auto logger = std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
        NOSLogger::Setup("bench", LogLevel::Info, std::make_unique<nos::logger::DefaultLoggerImpl>(logger));
        return NOSLogger::RootLogger();
    }();
    return root;
}

// Argument 0: the level is disabled (the level test alone); 1: enabled.
void BM_LogIfEnabled(benchmark::State& state)
{
    NullRoot().SetLogLevel(state.range(0) != 0 ? LogLevel::Info : LogLevel::Error);
    const std::string path = "/update_storage/4f1c/applist.json";
    for (auto _ : state)
        nos::logger::LogIfEnabled(LogLevel::Info, kMain, 54, "Verify", "AppList file {} was checked", path);
}
BENCHMARK(BM_LogIfEnabled)->ArgName("enabled")->Arg(0)->Arg(1);

void BM_EncodeRecord(benchmark::State& state)
{
    std::array<std::uint8_t, nos::logger::nvlog::kRecordSize> record;
    const std::string line(static_cast<std::size_t>(state.range(0)), 'x');
    for (auto _ : state) {
        nos::logger::nvlog::EncodeRecord(record, 1700000000, line);
        benchmark::DoNotOptimize(record.data());
    }
}
BENCHMARK(BM_EncodeRecord)->Arg(100)->Arg(4095);

void BM_ResultCodeMessage(benchmark::State& state)
{
    const eka::result_t codes[] = {eka::result::InvalidResult, eka::result::FileNotFound, eka::result::NoError,
                                   static_cast<eka::result_t>(0x8001010Au)};
    for (auto _ : state)
        for (const eka::result_t code : codes)
            benchmark::DoNotOptimize(eka::result_code_message(code));
}
BENCHMARK(BM_ResultCodeMessage);

// Throw, catch and turn into a code, with the error line logged to a null sink.
void BM_ManageException(benchmark::State& state)
{
    NullRoot().SetLogLevel(LogLevel::Info);
    for (auto _ : state) {
        try {
            throw eka::ResultCodeException(eka::result::InvalidResult, u"invalid riid");
        } catch (...) {
            benchmark::DoNotOptimize(common::utils::ManageException("", "Open"));
        }
    }
}
BENCHMARK(BM_ManageException);

// One record per iteration through the NvlogSink to a log-storage process
// that writes to /dev/null: the whole round trip of a storage line.
void BM_NvlogSink_ToLogStorage(benchmark::State& state)
{
    char dir[] = "/tmp/logger_bench_XXXXXX";
    if (mkdtemp(dir) == nullptr) {
        state.SkipWithError("no temporary directory");
        return;
    }
    setenv("NOS_RUNTIME_DIR", dir, 1);
    pid_t pid = -1;
    char* args[] = {const_cast<char*>(LOG_STORAGE_PATH), const_cast<char*>("--out"), const_cast<char*>("/dev/null"),
                    nullptr};
    if (posix_spawn(&pid, LOG_STORAGE_PATH, nullptr, nullptr, args, environ) != 0) {
        state.SkipWithError("cannot start log-storage");
        return;
    }
    std::shared_ptr<nos::logger::NvlogStorageContextRAII> context;
    for (int attempt = 0; attempt < 500 && !context; ++attempt) {
        context = nos::logger::NvlogStorageContextRAII::Connect();
        if (!context)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    if (!context) {
        state.SkipWithError("log-storage did not come up");
    } else {
        spdlog::logger logger("bench", std::make_shared<nos::logger::NvlogSink>(context));
        const std::string text(static_cast<std::size_t>(state.range(0)), 'x');
        for (auto _ : state)
            logger.log(spdlog::source_loc{kMain, 48, "main"}, spdlog::level::info, "{}", text);
        state.SetItemsProcessed(state.iterations());
    }
    context.reset();
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    std::filesystem::remove_all(dir);
}
BENCHMARK(BM_NvlogSink_ToLogStorage)->Arg(100)->Arg(4000)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
