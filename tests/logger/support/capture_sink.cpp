#include "capture_sink.h"

#include <utility>

#include "nos/logger/nos_logger.h"

namespace logger_test {

std::vector<Record> CaptureSink::Take()
{
    std::lock_guard lock(mutex_);
    return std::exchange(m_records, {});
}

void CaptureSink::sink_it_(const spdlog::details::log_msg& msg)
{
    m_records.push_back(Record{msg.level, msg.source.filename != nullptr ? msg.source.filename : "",
                               msg.source.line, msg.source.funcname != nullptr ? msg.source.funcname : "",
                               std::string(msg.payload.data(), msg.payload.size())});
}

std::unique_ptr<nos::logger::DefaultLoggerImpl> MakeCaptureImpl(const std::shared_ptr<CaptureSink>& sink,
                                                                const std::string& name)
{
    auto logger = std::make_shared<spdlog::logger>(name, sink);
    logger->set_level(spdlog::level::trace);
    return std::make_unique<nos::logger::DefaultLoggerImpl>(logger);
}

std::shared_ptr<CaptureSink> RootCapture()
{
    static const std::shared_ptr<CaptureSink> sink = [] {
        auto s = std::make_shared<CaptureSink>();
        nos::logger::NOSLogger::Setup("root_capture", nos::logger::LogLevel::Trace, MakeCaptureImpl(s));
        return s;
    }();
    return sink;
}

void RootCaptureTest::SetUp()
{
    m_sink = RootCapture();
    nos::logger::NOSLogger::RootLogger().SetLogLevel(nos::logger::LogLevel::Trace);
    m_sink->Take();
}

void RootCaptureTest::TearDown() { nos::logger::NOSLogger::RootLogger().SetLogLevel(nos::logger::LogLevel::Trace); }

}  // namespace logger_test
