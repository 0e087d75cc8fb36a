#include "nos/logger/nos_logger.h"

#include <mutex>

#include <nos/log.h>
#include <spdlog/sinks/null_sink.h>

namespace nos::logger {

NOSLogger& NOSLogger::RootLogger()
{
    static NOSLogger root;
    return root;
}

NOSLogger::NOSLogger()
    : m_null(std::make_unique<DefaultLoggerImpl>(
          std::make_shared<spdlog::logger>("", std::make_shared<spdlog::sinks::null_sink_mt>()))),
      m_current(m_null.get())
{
}

NOSLogger::~NOSLogger() = default;

void NOSLogger::Setup(const char* name, LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl)
{
    static std::once_flag configured;
    // A set-up that throws leaves the flag clear, so a later one may succeed.
    std::call_once(configured, &NOSLogger::ConfigureLogger, name, level, std::move(impl));
}

void NOSLogger::Setup(LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl)
{
    Setup(nullptr, level, std::move(impl));
}

void NOSLogger::ConfigureLogger(const char* name, LogLevel level, std::unique_ptr<DefaultLoggerImpl> impl)
{
    if (!impl)
        impl = MakeStandardLoggerImpl(name != nullptr ? name : getprogname(), level);
    impl->SetLogLevel(level);
    NOSLogger& root = RootLogger();
    root.m_impl = std::move(impl);
    root.m_current.store(root.m_impl.get(), std::memory_order_release);
}

bool NOSLogger::IsEnabled(LogLevel level) const { return Impl().IsEnabled(level); }

void NOSLogger::SetLogLevel(LogLevel level) { Impl().SetLogLevel(level); }

void NOSLogger::LogImpl(LogLevel level, const char* file, int line, const char* function, std::string& text)
{
    const LoggerData where{file, line, function};
    DefaultLoggerImpl& impl = Impl();
    switch (level) {
    case LogLevel::Trace:
        impl.Trace(where, text.c_str());
        break;
    case LogLevel::Debug:
        impl.Debug(where, text.c_str());
        break;
    case LogLevel::Info:
        impl.Info(where, text.c_str());
        break;
    case LogLevel::Warning:
        impl.Warning(where, text.c_str());
        break;
    case LogLevel::Error:
        impl.Error(where, text.c_str());
        break;
    case LogLevel::Critical:
        impl.Critical(where, text.c_str());
        break;
    default:
        break;  // Off and above log nothing
    }
}

}  // namespace nos::logger
