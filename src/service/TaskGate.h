#pragma once

#include <memory>

class ConditionSemaphore;
class NotifyTargetTaskIF;

namespace SonarixService
{

/// Holds up a task for a scope of another thread: what others post to it meanwhile is dispatched afterwards, in
/// order. For the construction of objects whose parts subscribe on that task one by one.
/// Never waits itself; inside the scope nothing may wait for the task. The scope is short: after kLimitMs the task
/// goes on all the same.
class TaskGate final
{
public:
    explicit TaskGate(NotifyTargetTaskIF* task);
    ~TaskGate();
    TaskGate(const TaskGate&) = delete;
    TaskGate& operator=(const TaskGate&) = delete;

    static constexpr unsigned int kLimitMs = 60'000; ///< far beyond the reading of a few files

private:
    std::shared_ptr<ConditionSemaphore> m_open;
};

} // namespace SonarixService
