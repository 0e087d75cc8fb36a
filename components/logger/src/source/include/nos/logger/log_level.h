// Levels of the entity logger.
#pragma once

#include <cstdint>

namespace nos::logger {

// The values equal the underlying logging library's levels, so they pass
// through unchanged. Off and anything above log nothing.
enum class LogLevel : std::int32_t {
    Trace = 0,
    Debug = 1,
    Info = 2,
    Warning = 3,
    Error = 4,
    Critical = 5,
    Off = 6,
};

}  // namespace nos::logger
