// A counting semaphore over a mutex and a condition variable: the wake-up
// that the connection manager posts to server threads waiting for a group's
// channel handle.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace nos::rtl {

class Semaphore {
public:
    explicit Semaphore(std::uint32_t initial = 0) noexcept : m_count(initial) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Adds one to the count and wakes one waiter. Throws std::system_error
    // when the mutex cannot be taken.
    void Post();
    // Blocks until the count is non-zero, then takes one.
    void Wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_condition;
    std::uint32_t m_count;
};

}  // namespace nos::rtl
