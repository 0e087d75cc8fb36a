// The log callback of the component IPC server.
#pragma once

#include <string_view>

namespace nos::logger {

// Logs `message` at error level when `isError`, else at info level, when the
// root logger is enabled for it. The message is read as a format string
// with no arguments: it must not contain braces.
void EntityLogger(std::string_view message, bool isError);

}  // namespace nos::logger
