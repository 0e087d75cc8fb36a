// The process-wide root logger.
//
// Log in one line, with the fixed source location of the caller:
//
//   nos::logger::LogIfEnabled(nos::logger::LogLevel::Info,
//                             "entities/updater_pdk/verifier/src/main", 48, "main",
//                             "Entity started [{}]", state);
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "nos/logger/default_logger_impl.h"
#include "nos/logger/log_level.h"

namespace nos::logger {

class NOSLogger {
public:
    static NOSLogger& RootLogger();

    // Install the implementation and the level. Only the first successful
    // set-up of the process takes effect; later ones are ignored. A null
    // implementation builds the standard one (MakeStandardLoggerImpl) under
    // `name`, or under the program's name when `name` is null or not given.
    static void Setup(const char* name, LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl);
    static void Setup(LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl);

    bool IsEnabled(LogLevel level) const;
    void SetLogLevel(LogLevel level);

    // Levels Off and above are dropped.
    void LogImpl(LogLevel level, const char* file, int line, const char* function, std::string& text);

    // Formats with fmt at run time and logs. Test IsEnabled first.
    template <typename... Args>
    void Log(LogLevel level, const char* file, int line, const char* function, fmt::string_view format,
             const Args&... args)
    {
        std::string text = fmt::vformat(format, fmt::make_format_args(args...));
        LogImpl(level, file, line, function, text);
    }

    NOSLogger(const NOSLogger&) = delete;
    NOSLogger& operator=(const NOSLogger&) = delete;

private:
    NOSLogger();
    ~NOSLogger();

    static void ConfigureLogger(const char* name, LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl);
    DefaultLoggerImpl& Impl() const noexcept { return *m_current.load(std::memory_order_acquire); }

    // The null implementation stays alive for the whole process, so that a
    // thread that read it just before set-up can still finish its record.
    std::unique_ptr<DefaultLoggerImpl> m_null;
    std::unique_ptr<DefaultLoggerImpl> m_impl;
    std::atomic<DefaultLoggerImpl*> m_current;
};

// Formats and logs only when the root logger is enabled for `level`; the
// format is checked at compile time.
template <typename... Args>
void LogIfEnabled(LogLevel level, const char* file, int line, const char* function,
                  fmt::format_string<Args...> format, Args&&... args)
{
    NOSLogger& root = NOSLogger::RootLogger();
    if (!root.IsEnabled(level))
        return;
    std::string text = fmt::format(format, std::forward<Args>(args)...);
    root.LogImpl(level, file, line, function, text);
}

}  // namespace nos::logger
