#include "nos/rtl/semaphore.h"

namespace nos::rtl {

void Semaphore::Post()
{
    std::lock_guard lock(m_mutex);
    ++m_count;
    m_condition.notify_one();
}

void Semaphore::Wait()
{
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return m_count != 0; });
    --m_count;
}

}  // namespace nos::rtl
