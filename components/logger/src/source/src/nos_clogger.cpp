#include "nos/logger/nos_clogger.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>

#include <fmt/format.h>

#include "nos/logger/nos_logger.h"

namespace {

constexpr std::size_t kMessageBufferSize = 512;

[[noreturn]] void EndProcess(std::string_view message) noexcept
{
    std::fprintf(stderr, "%.*s\n", static_cast<int>(message.size()), message.data());
    std::fflush(stderr);
    std::abort();
}

std::string FormatMessage(const char* format, va_list args)
{
    char buffer[kMessageBufferSize] = {};
    const int length = std::vsnprintf(buffer, sizeof(buffer), format, args);
    if (length < 0)
        throw std::runtime_error("Cannot format log message");
    // An over-long message keeps the buffer whole: 511 characters and the
    // terminating NUL, which then lies inside the text.
    const auto size = static_cast<std::size_t>(length) < kMessageBufferSize ? static_cast<std::size_t>(length)
                                                                             : kMessageBufferSize;
    return std::string(buffer, size);
}

}  // namespace

void NosCLoggerSetup(nos::logger::LogLevel level)
{
    try {
        nos::logger::NOSLogger::Setup(level, nullptr);
    } catch (const std::exception& e) {
        EndProcess(fmt::format("Setup log failure: {}", e.what()));
    } catch (...) {
        EndProcess("Generic setup log failure");
    }
}

void NosCLoggerLog(nos::logger::LogLevel level, const char* file, int line, const char* function, const char* format,
                   ...)
{
    va_list args;
    va_start(args, format);
    try {
        auto& root = nos::logger::NOSLogger::RootLogger();
        if (root.IsEnabled(level)) {
            std::string text = FormatMessage(format, args);
            root.LogImpl(level, file, line, function, text);
        }
    } catch (const std::exception& e) {
        va_end(args);
        EndProcess(fmt::format("Log failure: {}", e.what()));
    } catch (...) {
        va_end(args);
        EndProcess("Generic log failure");
    }
    va_end(args);
}
