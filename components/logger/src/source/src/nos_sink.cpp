#include "nos/logger/nos_sink.h"

#include <string>

#include <nos/log.h>
#include <spdlog/pattern_formatter.h>

namespace nos::logger {
namespace {

int PlatformLevel(spdlog::level::level_enum level) noexcept
{
    switch (level) {
    case spdlog::level::trace:
        return NOS_LOG_TRACE;
    case spdlog::level::debug:
        return NOS_LOG_DEBUG;
    case spdlog::level::info:
        return NOS_LOG_INFO;
    case spdlog::level::warn:
        return NOS_LOG_WARNING;
    case spdlog::level::err:
        return NOS_LOG_ERROR;
    case spdlog::level::critical:
        return NOS_LOG_CRITICAL;
    default:
        return NOS_LOG_DEBUG;
    }
}

}  // namespace

NosSink::NosSink(const char* pattern)
{
    set_formatter_(std::make_unique<spdlog::pattern_formatter>(pattern != nullptr ? pattern : "%v",
                                                               spdlog::pattern_time_type::local, ""));
}

void NosSink::sink_it_(const spdlog::details::log_msg& msg)
{
    spdlog::memory_buf_t formatted;
    formatter_->format(msg, formatted);
    formatted.push_back('\0');
    // The logger name is a view; the platform wants NUL-terminated text.
    const std::string loggerName(msg.logger_name.data(), msg.logger_name.size());
    NosLogf(PlatformLevel(msg.level), msg.source.filename, msg.source.line, loggerName.c_str(), "%s",
            formatted.data());
}

}  // namespace nos::logger
