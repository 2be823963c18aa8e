#pragma once

#include <memory>

class ConditionSemaphore;
class NotifyTargetTaskIF;

namespace SonarixService
{

/// Suspends a task while this object exists. Entries that are posted meanwhile run afterwards, in order. For another
/// thread that constructs objects whose parts subscribe on that task one by one.
/// The constructor and the destructor never block. While the object exists, no code may wait for the task.
/// If the object still exists after kLimitMs, the task continues.
class TaskPause final
{
public:
    explicit TaskPause(NotifyTargetTaskIF* task);
    ~TaskPause();
    TaskPause(const TaskPause&) = delete;
    TaskPause& operator=(const TaskPause&) = delete;

    static constexpr unsigned int kLimitMs = 60'000; ///< the construction reads a few files, which takes milliseconds

private:
    std::shared_ptr<ConditionSemaphore> m_end;
};

} // namespace SonarixService
