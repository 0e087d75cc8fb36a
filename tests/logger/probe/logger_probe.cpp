// A process that sets up the entity logger as an entity's main does and logs
// what its arguments say, for the end-to-end tests with the log storage.
//
//   logger_probe LEVEL COMMAND...
//     before:TEXT      log TEXT at critical level before set-up
//     setup            NosCLoggerSetup(LEVEL)
//     setup-null       NOSLogger::Setup(LEVEL, nullptr)
//     enabled          print "enabled" and 0 or 1 for each level 0 to 6
//     log:L:TEXT       log TEXT at level L (source "entities/updater_pdk/verifier/src/main", 48, "main")
//     fill:L:N         log N characters 'x' at level L, same source
//     clog:TEXT        NosCLoggerLog at info level with "%s" and TEXT
//     entity:E:TEXT    EntityLogger(TEXT, E == "1")

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "nos/logger/nos_clogger.h"
#include "nos/logger/nos_logger.h"
#include "shared_log_function_for_entity/entity_logger.h"

namespace {

using nos::logger::LogLevel;
constexpr const char* kMain = "entities/updater_pdk/verifier/src/main";

LogLevel ParseLevel(std::string_view text) { return static_cast<LogLevel>(std::stoi(std::string(text))); }

// "L:REST" into the level and the rest.
std::pair<LogLevel, std::string> LevelAndRest(std::string_view arg)
{
    const auto colon = arg.find(':');
    return {ParseLevel(arg.substr(0, colon)), std::string(arg.substr(colon + 1))};
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("usage: logger_probe LEVEL COMMAND...\n", stderr);
        return 2;
    }
    const LogLevel level = ParseLevel(argv[1]);
    nos::logger::NOSLogger& root = nos::logger::NOSLogger::RootLogger();
    for (int i = 2; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg.starts_with("before:")) {
            NosCLoggerLog(LogLevel::Critical, kMain, 48, "main", "%s", argv[i] + 7);
        } else if (arg == "setup") {
            NosCLoggerSetup(level);
        } else if (arg == "setup-null") {
            nos::logger::NOSLogger::Setup(level, nullptr);
        } else if (arg == "enabled") {
            std::printf("enabled");
            for (int l = 0; l <= 6; ++l)
                std::printf(" %d", root.IsEnabled(static_cast<LogLevel>(l)) ? 1 : 0);
            std::printf("\n");
        } else if (arg.starts_with("log:")) {
            const auto [l, text] = LevelAndRest(arg.substr(4));
            nos::logger::LogIfEnabled(l, kMain, 48, "main", "{}", text);
        } else if (arg.starts_with("fill:")) {
            const auto [l, count] = LevelAndRest(arg.substr(5));
            nos::logger::LogIfEnabled(l, kMain, 48, "main", "{}", std::string(std::stoul(count), 'x'));
        } else if (arg.starts_with("clog:")) {
            NosCLoggerLog(LogLevel::Info, kMain, 48, "main", "%s", argv[i] + 5);
        } else if (arg.starts_with("entity:")) {
            nos::logger::EntityLogger(arg.substr(9), arg.substr(7, 1) == "1");
        } else {
            std::fprintf(stderr, "logger_probe: unknown command '%s'\n", argv[i]);
            return 2;
        }
    }
    std::fflush(stdout);
    return 0;
}
