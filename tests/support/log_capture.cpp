#include "support/log_capture.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace test_support {

std::ostream& operator<<(std::ostream& out, const LogLine& line)
{
    return out << '{' << line.level << ' ' << line.where << (line.where.empty() ? "" : " ") << '"' << line.text
               << "\"}";
}

std::function<void(std::string_view, bool)> LogCapture::ServerLogger()
{
    return [this](std::string_view message, bool isError) { Add({std::string(message), isError ? kError : kInfo}); };
}

void LogCapture::Add(LogLine line)
{
    {
        std::lock_guard lock(m_mutex);
        m_lines.push_back(std::move(line));
    }
    m_changed.notify_all();
}

std::vector<LogLine> LogCapture::Lines() const
{
    std::lock_guard lock(m_mutex);
    return m_lines;
}

std::optional<LogLine> LogCapture::WaitFor(std::string_view part, size_t count, std::chrono::milliseconds timeout) const
{
    std::unique_lock lock(m_mutex);
    std::optional<LogLine> found;
    m_changed.wait_for(lock, timeout, [&] {
        size_t seen = 0;
        for (const auto& line : m_lines) {
            if (line.text.find(part) != std::string::npos && ++seen == count) {
                found = line;
                return true;
            }
        }
        return false;
    });
    return found;
}

void LogCapture::Clear()
{
    std::lock_guard lock(m_mutex);
    m_lines.clear();
}

StderrCapture::StderrCapture(LogCapture& into)
{
    int fds[2];
    std::fflush(stderr);
    if (::pipe2(fds, O_CLOEXEC) != 0 || (m_saved = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0)) < 0 ||
        ::dup2(fds[1], STDERR_FILENO) < 0)
        throw std::runtime_error("cannot redirect standard error");
    ::close(fds[1]);
    m_read = fds[0];
    m_reader = std::thread([this, &into] {
        std::string pending;
        char chunk[4096];
        for (ssize_t n; (n = ::read(m_read, chunk, sizeof chunk)) != 0;) {
            if (n < 0 && errno == EINTR)
                continue;
            if (n < 0)
                break;
            pending.append(chunk, static_cast<size_t>(n));
            for (size_t eol; (eol = pending.find('\n')) != std::string::npos; pending.erase(0, eol + 1))
                into.Add({pending.substr(0, eol)});
        }
        if (!pending.empty())
            into.Add({pending});
    });
}

StderrCapture::~StderrCapture()
{
    std::fflush(stderr);
    ::dup2(m_saved, STDERR_FILENO);  // closes the pipe's last writer: the reader sees the end
    ::close(m_saved);
    m_reader.join();
    ::close(m_read);
}

}  // namespace test_support
