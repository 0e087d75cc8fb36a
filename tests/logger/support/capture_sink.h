// A sink that keeps every record with its level and source location.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <spdlog/sinks/base_sink.h>

#include "nos/logger/default_logger_impl.h"

namespace logger_test {

struct Record {
    spdlog::level::level_enum level;
    std::string file;
    int line;
    std::string function;
    std::string text;
};

class CaptureSink final : public spdlog::sinks::base_sink<std::mutex> {
public:
    std::vector<Record> Take();

protected:
    void sink_it_(const spdlog::details::log_msg& msg) override;
    void flush_() override {}

private:
    std::vector<Record> m_records;
};

// An implementation over a capturing logger, at trace level.
std::unique_ptr<nos::logger::DefaultLoggerImpl> MakeCaptureImpl(const std::shared_ptr<CaptureSink>& sink,
                                                                const std::string& name = "capture");

// Sets the root logger up once per process with a capturing implementation
// at trace level and returns its sink.
std::shared_ptr<CaptureSink> RootCapture();

// Tests of code that logs through the root logger: the root captures at
// trace level, and nothing is left from earlier tests.
class RootCaptureTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::shared_ptr<CaptureSink> m_sink;
};

}  // namespace logger_test
