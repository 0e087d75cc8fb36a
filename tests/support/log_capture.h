// Lines logged by the code under test, with a bounded wait for a line.
// One capture is filled by any of three feeds:
//   ServerLogger()      the logger callable of the IPC server and of its
//                       connection manager;
//   StderrCapture       this process's standard error while it lives: the
//                       plain logging facility (nglog) and the platform log
//                       (NosLogf, so also the entity logger's platform sink);
//   RootLoggerCapture   the records of the root logger (the entity logger),
//                       with their level and source location.
// Thread-safe.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace test_support {

using namespace std::chrono_literals;

// Levels of the root logger. The server callable gives kError or kInfo, as
// the entity logger maps it; standard error lines have kNoLevel.
enum Level : int { kNoLevel = -1, kTrace, kDebug, kInfo, kWarning, kError, kCritical };

struct LogLine {
    LogLine(std::string text_, int level_ = kNoLevel, std::string where_ = {})
        : text(std::move(text_)), level(level_), where(std::move(where_))
    {
    }
    std::string text;
    int level;
    std::string where;  // "<file>:<line>" of a root-logger record; empty otherwise
    bool operator==(const LogLine&) const = default;
};
std::ostream& operator<<(std::ostream& out, const LogLine& line);

class LogCapture {
public:
    // A callable for nos::ipc::ServerContext::logger and the connection
    // manager's log callback. The capture must outlive its users.
    std::function<void(std::string_view message, bool isError)> ServerLogger();
    void Add(LogLine line);
    std::vector<LogLine> Lines() const;
    // The `count`-th line that contains `part`, once it is there; none when
    // it did not come within `timeout`.
    std::optional<LogLine> WaitFor(std::string_view part, size_t count = 1,
                                   std::chrono::milliseconds timeout = 10s) const;
    void Clear();

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    std::vector<LogLine> m_lines;
};

// Standard error goes, line by line, into `into` while the object lives;
// child processes started meanwhile inherit the redirection only where the
// starter does not set their standard error (Process does).
class StderrCapture {
public:
    explicit StderrCapture(LogCapture& into);
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

private:
    int m_saved = -1;
    int m_read = -1;
    std::thread m_reader;
};

// The root logger's records go into `into` while the object lives. The first
// one in a process sets the root logger up (at trace level) with a capturing
// implementation; make it before anything else sets the root logger up, as
// only the first set-up of a process counts.
class RootLoggerCapture {
public:
    explicit RootLoggerCapture(LogCapture& into);
    ~RootLoggerCapture();
    RootLoggerCapture(const RootLoggerCapture&) = delete;
    RootLoggerCapture& operator=(const RootLoggerCapture&) = delete;
};

}  // namespace test_support
