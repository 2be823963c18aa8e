#pragma once

#include <memory>

/// Counting semaphore with a bounded wait. Safe from any thread.
/// Under the simulated engine a wait steps the other tasks meanwhile.
class ConditionSemaphore final
{
public:
    explicit ConditionSemaphore(int initialCount);
    ~ConditionSemaphore();
    ConditionSemaphore(const ConditionSemaphore&) = delete;
    ConditionSemaphore& operator=(const ConditionSemaphore&) = delete;

    void Signal();

    /// Returns at a signal (true) or at the end of the wait (false).
    bool Wait(unsigned int milliseconds);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
