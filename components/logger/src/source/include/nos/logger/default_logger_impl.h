// The implementation behind the root logger: one spdlog logger.
#pragma once

#include <memory>

#include <spdlog/logger.h>

#include "nos/logger/log_level.h"

namespace nos::logger {

// The source location of one record. `file` is the caller's fixed source
// file string (path from the source root, without extension); the line
// pattern prints its base name.
struct LoggerData {
    const char* file;
    int line;
    const char* function;
};

class DefaultLoggerImpl {
public:
    explicit DefaultLoggerImpl(std::shared_ptr<spdlog::logger> logger);
    // Reuses the registered logger of that name (the program's name when
    // `name` is null), or builds and registers one
    // (level info, no flush on level) with a platform-log sink using
    // `pattern` ("%v" when null) and, when the log storage is there, a
    // storage sink with the storage line pattern.
    DefaultLoggerImpl(const char* name, const char* pattern);
    virtual ~DefaultLoggerImpl();

    DefaultLoggerImpl(const DefaultLoggerImpl&) = delete;
    DefaultLoggerImpl& operator=(const DefaultLoggerImpl&) = delete;

    // Each passes `text` through the format "{}": it is never read as a format.
    virtual void Trace(const LoggerData& where, const char* text);
    virtual void Debug(const LoggerData& where, const char* text);
    virtual void Info(const LoggerData& where, const char* text);
    virtual void Warning(const LoggerData& where, const char* text);
    virtual void Error(const LoggerData& where, const char* text);
    virtual void Critical(const LoggerData& where, const char* text);

    // False for Off and for values outside the levels.
    virtual bool IsEnabled(LogLevel level) const;
    virtual void SetLogLevel(LogLevel level);

private:
    void Write(spdlog::level::level_enum level, const LoggerData& where, const char* text);

    std::shared_ptr<spdlog::logger> m_logger;
};

// The standard implementation of a process: a platform-log sink with the
// bare message, a storage sink when the log storage is there, the given
// level, and a periodic flush of every logger each 5 seconds.
std::unique_ptr<DefaultLoggerImpl> MakeStandardLoggerImpl(const char* name, LogLevel level);

}  // namespace nos::logger
