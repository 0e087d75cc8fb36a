// Platform log: one line per call on standard error.
#include <nos/log.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

const char* LevelName(int level)
{
    switch (level) {
    case NOS_LOG_CRITICAL: return "CRITICAL";
    case NOS_LOG_ERROR: return "ERROR";
    case NOS_LOG_WARNING: return "WARNING";
    case NOS_LOG_INFO: return "INFO";
    case NOS_LOG_DEBUG: return "DEBUG";
    case NOS_LOG_TRACE: return "TRACE";
    default: return nullptr;
    }
}

}  // namespace

extern "C" void NosLogf(int level, const char* /*file*/, int /*line*/, const char* loggerName, const char* format, ...)
{
    std::string line = "[";
    line += loggerName != nullptr ? loggerName : getprogname();
    line += "][";
    const char* name = LevelName(level);
    line += name != nullptr ? name : ("LEVEL " + std::to_string(level)).c_str();
    line += "] ";
    if (format != nullptr) {
        va_list args;
        va_start(args, format);
        va_list again;
        va_copy(again, args);
        const int length = std::vsnprintf(nullptr, 0, format, args);
        va_end(args);
        if (length > 0) {
            const size_t head = line.size();
            line.resize(head + static_cast<size_t>(length) + 1);
            std::vsnprintf(line.data() + head, static_cast<size_t>(length) + 1, format, again);
            line.resize(head + static_cast<size_t>(length));
        }
        va_end(again);
    }
    // One line per call: line breaks inside the text become blanks.
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
        line.pop_back();
    for (char& c : line)
        if (c == '\n' || c == '\r')
            c = ' ';
    line += '\n';
    // A single write keeps lines of concurrent threads and processes whole.
    const char* data = line.data();
    size_t left = line.size();
    while (left > 0) {
        const ssize_t n = ::write(STDERR_FILENO, data, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;
        data += n;
        left -= static_cast<size_t>(n);
    }
}

extern "C" const char* getprogname(void) { return program_invocation_short_name; }
