#include "runtime/ConditionSemaphore.h"

#include "runtime/engine/Engine.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

struct ConditionSemaphore::Impl
{
    std::mutex m_mutex;
    std::condition_variable m_signalled;
    int m_count = 0;

    bool TryTake()
    {
        if (m_count <= 0)
        {
            return false;
        }
        --m_count;
        return true;
    }
};

ConditionSemaphore::ConditionSemaphore(int initialCount)
    : m_impl(std::make_unique<Impl>())
{
    m_impl->m_count = initialCount;
}

ConditionSemaphore::~ConditionSemaphore() = default;

void ConditionSemaphore::Signal()
{
    // Notifies with the mutex held, because the woken waiter may destroy this semaphore at once.
    const std::lock_guard lock(m_impl->m_mutex);
    ++m_impl->m_count;
    m_impl->m_signalled.notify_one();
}

bool ConditionSemaphore::Wait(unsigned int milliseconds)
{
    const std::chrono::milliseconds limit(milliseconds);
    IL::Engine& engine = IL::Engine::Current();
    std::unique_lock lock(m_impl->m_mutex);
    if (engine.StepsWhileWaiting())
    {
        lock.unlock();
        engine.StepUntil([this] { return m_impl->m_count > 0; }, limit);
        lock.lock();
        return m_impl->TryTake();
    }
    m_impl->m_signalled.wait_for(lock, limit, [this] { return m_impl->m_count > 0; });
    return m_impl->TryTake();
}
