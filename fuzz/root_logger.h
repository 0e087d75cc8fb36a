// Routes the process's root logger into a sink that drops every record, at
// trace level, so that the targets run the formatting of every log line
// without writing anything.
#pragma once

#include <memory>

#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>

#include "nos/logger/default_logger_impl.h"
#include "nos/logger/nos_logger.h"

namespace fuzz {

inline void SilenceRootLogger()
{
    static const bool done = [] {
        auto logger = std::make_shared<spdlog::logger>("fuzz", std::make_shared<spdlog::sinks::null_sink_mt>());
        logger->set_level(spdlog::level::trace);
        nos::logger::NOSLogger::Setup("fuzz", nos::logger::LogLevel::Trace,
                                      std::make_unique<nos::logger::DefaultLoggerImpl>(logger));
        return true;
    }();
    static_cast<void>(done);
}

}  // namespace fuzz
