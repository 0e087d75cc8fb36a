#include "nos/logger/default_logger_impl.h"

#include <chrono>
#include <vector>

#include <nos/log.h>
#include <spdlog/spdlog.h>

#include "nos/logger/nos_sink.h"
#include "vantor_logger/nvlog_sink.h"

namespace nos::logger {
namespace {

constexpr auto kFlushInterval = std::chrono::seconds(5);

bool IsLevel(LogLevel level) noexcept { return level >= LogLevel::Trace && level <= LogLevel::Critical; }

std::vector<spdlog::sink_ptr> MakeSinks(const char* nosPattern)
{
    std::vector<spdlog::sink_ptr> sinks{std::make_shared<NosSink>(nosPattern)};
    if (auto storage = GetNvlogStorageContext())
        sinks.push_back(std::make_shared<NvlogSink>(std::move(storage)));
    return sinks;
}

// The registry keeps the logger for the periodic flush; a logger already
// registered under the name gives way to the new one.
void Register(const std::shared_ptr<spdlog::logger>& logger)
{
    spdlog::drop(logger->name());
    spdlog::register_logger(logger);
}

}  // namespace

DefaultLoggerImpl::DefaultLoggerImpl(std::shared_ptr<spdlog::logger> logger) : m_logger(std::move(logger)) {}

DefaultLoggerImpl::DefaultLoggerImpl(const char* name, const char* pattern)
{
    const std::string loggerName = name != nullptr ? name : getprogname();
    m_logger = spdlog::get(loggerName);
    if (m_logger)
        return;
    const std::vector<spdlog::sink_ptr> sinks = MakeSinks(pattern);
    m_logger = std::make_shared<spdlog::logger>(loggerName, sinks.begin(), sinks.end());
    m_logger->set_level(spdlog::level::info);
    m_logger->flush_on(spdlog::level::off);
    Register(m_logger);
}

DefaultLoggerImpl::~DefaultLoggerImpl() = default;

void DefaultLoggerImpl::Write(spdlog::level::level_enum level, const LoggerData& where, const char* text)
{
    m_logger->log(spdlog::source_loc{where.file, where.line, where.function}, level, "{}",
                  text != nullptr ? text : "");
}

void DefaultLoggerImpl::Trace(const LoggerData& where, const char* text) { Write(spdlog::level::trace, where, text); }
void DefaultLoggerImpl::Debug(const LoggerData& where, const char* text) { Write(spdlog::level::debug, where, text); }
void DefaultLoggerImpl::Info(const LoggerData& where, const char* text) { Write(spdlog::level::info, where, text); }
void DefaultLoggerImpl::Warning(const LoggerData& where, const char* text) { Write(spdlog::level::warn, where, text); }
void DefaultLoggerImpl::Error(const LoggerData& where, const char* text) { Write(spdlog::level::err, where, text); }
void DefaultLoggerImpl::Critical(const LoggerData& where, const char* text)
{
    Write(spdlog::level::critical, where, text);
}

bool DefaultLoggerImpl::IsEnabled(LogLevel level) const
{
    return IsLevel(level) && m_logger->should_log(static_cast<spdlog::level::level_enum>(level));
}

void DefaultLoggerImpl::SetLogLevel(LogLevel level)
{
    const bool known = IsLevel(level) || level == LogLevel::Off;
    m_logger->set_level(known ? static_cast<spdlog::level::level_enum>(level) : spdlog::level::off);
}

std::unique_ptr<DefaultLoggerImpl> MakeStandardLoggerImpl(const char* name, LogLevel level)
{
    const std::vector<spdlog::sink_ptr> sinks = MakeSinks("%v");
    auto logger = std::make_shared<spdlog::logger>(name != nullptr ? name : "", sinks.begin(), sinks.end());
    auto impl = std::make_unique<DefaultLoggerImpl>(logger);
    impl->SetLogLevel(level);
    logger->flush_on(spdlog::level::off);
    Register(logger);
    spdlog::flush_every(kFlushInterval);
    return impl;
}

}  // namespace nos::logger
