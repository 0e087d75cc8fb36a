// Apart from log_capture.cpp so that only programs that capture the root
// logger link the logger.
#include "support/log_capture.h"

#include "nos/logger/default_logger_impl.h"
#include "nos/logger/nos_logger.h"

#include <spdlog/sinks/base_sink.h>

namespace test_support {
namespace {

class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    void Route(LogCapture* into)
    {
        std::lock_guard lock(mutex_);
        m_into = into;
    }

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override
    {
        if (m_into == nullptr)
            return;
        const std::string file = msg.source.filename != nullptr ? msg.source.filename : "";
        m_into->Add({std::string(msg.payload.data(), msg.payload.size()), static_cast<int>(msg.level),
                     file + ':' + std::to_string(msg.source.line)});
    }
    void flush_() override {}

private:
    LogCapture* m_into = nullptr;
};

CaptureSink& Sink()
{
    static const auto sink = [] {
        auto made = std::make_shared<CaptureSink>();
        auto logger = std::make_shared<spdlog::logger>("test_support", made);
        nos::logger::NOSLogger::Setup("test_support", nos::logger::LogLevel::Trace,
                                      std::make_unique<nos::logger::DefaultLoggerImpl>(logger));
        return made;
    }();
    return *sink;
}

}  // namespace

RootLoggerCapture::RootLoggerCapture(LogCapture& into) { Sink().Route(&into); }

RootLoggerCapture::~RootLoggerCapture() { Sink().Route(nullptr); }

}  // namespace test_support
