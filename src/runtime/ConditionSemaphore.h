#pragma once

#include <memory>

/// Counting semaphore with a bounded wait. Safe from any thread.
/// Under the simulated engine, Wait() steps the other tasks.
class ConditionSemaphore final
{
public:
    explicit ConditionSemaphore(int initialCount);
    ~ConditionSemaphore();
    ConditionSemaphore(const ConditionSemaphore&) = delete;
    ConditionSemaphore& operator=(const ConditionSemaphore&) = delete;

    void Signal();

    /// Returns true at a signal, false after `milliseconds`.
    bool Wait(unsigned int milliseconds);

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};
