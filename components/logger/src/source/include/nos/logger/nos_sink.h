// The sink that writes each formatted line to the platform's own log.
#pragma once

#include <mutex>

#include <spdlog/sinks/base_sink.h>

namespace nos::logger {

class NosSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    // The line has no line end of its own: the platform log writes lines.
    explicit NosSink(const char* pattern = "%v");

protected:
    // At the platform level of the record's: trace 6, debug 5, info 4,
    // warning 3, error 2, critical 1, and 5 for anything else (off included).
    void sink_it_(const spdlog::details::log_msg& msg) override;
    void flush_() override {}
};

}  // namespace nos::logger
