// Plain-function entry points of the entity logger.
#pragma once

#include "nos/logger/log_level.h"

// Sets up the root logger with the standard implementation and `level`
// (the same as NOSLogger::Setup(level, nullptr)). A failure ends the process
// with "Setup log failure: <reason>".
void NosCLoggerSetup(nos::logger::LogLevel level);

// Logs a printf-style message when the root logger is enabled for `level`.
// The message is formatted into 512 bytes: a longer one keeps its first 511
// characters. A failure ends the process with "Log failure: <reason>".
void NosCLoggerLog(nos::logger::LogLevel level, const char* file, int line, const char* function, const char* format,
                   ...) __attribute__((format(printf, 5, 6)));
