// An in-process stand-in for the platform calls that the logger makes, which
// records what it is given: platform-log lines and log-storage requests.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include <nos/platform.h>

namespace logger_test {

struct NosLogCall {
    int level;
    std::string file;
    int line;
    std::string loggerName;
    std::string format;
    std::string text;
};

// One call of the transport, copied byte by byte.
struct TransportCall {
    Handle handle;
    std::vector<std::uint8_t> request;  // as many bytes as the size word says
    std::uint32_t requestSizeWord;
    std::vector<std::uint8_t> arena;  // [start, current)
    std::size_t arenaCapacity;        // end - start
    std::uint32_t responseSizeWord;
    bool responseArenaNull;
};

class FakePlatform {
public:
    static FakePlatform& Get();

    // Storage present with riid 7 and the transport answering 0; nothing recorded.
    void Reset();

    std::vector<NosLogCall> TakeLogs();
    std::vector<TransportCall> TakeCalls();

    std::mutex mutex;
    bool channelPresent = true;
    bool endpointPresent = true;
    std::uint32_t riid = 7;
    Retcode callResult = NK_EOK;
    int connects = 0;
    int closes = 0;
    std::vector<NosLogCall> logs;
    std::vector<TransportCall> calls;
};

inline constexpr Handle kStorageHandle = 0x51;

}  // namespace logger_test
