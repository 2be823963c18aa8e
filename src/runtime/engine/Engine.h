#pragma once

#include "runtime/Callback.h"
#include "runtime/Task.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace IL
{

/// The engine's part of one timer. Safe from any thread. After Cancel() on the timer's task the callback does not run,
/// even if it was due already. The destructor cancels.
class TimerState
{
public:
    virtual ~TimerState() = default;
    /// `repeat` zero: one shot.
    virtual void Arm(std::chrono::milliseconds first, std::chrono::milliseconds repeat,
                     const Callback<void>& callback) = 0;
    virtual void Cancel() = 0;
};

/// Runs tasks and keeps time: with threads and the kernel's clock in the product, with one thread and virtual time in
/// tests. Chosen once, before the first task is created. Tasks, timers, clock and semaphore use the current engine.
class Engine
{
public:
    virtual ~Engine() = default;
    virtual NotifyTargetTaskIF* CreateTask(const std::string& name) = 0;
    virtual void StopTask(NotifyTargetTaskIF* task) = 0;
    virtual void JoinTask(NotifyTargetTaskIF* task) = 0;
    /// With a null task the timer never fires. Throws std::invalid_argument for a task of another engine.
    virtual std::shared_ptr<TimerState> CreateTimer(const std::string& name, NotifyTargetTaskIF* task) = 0;
    virtual std::int64_t NowMs() const = 0;

    /// True if all tasks share one thread, so that a wait must step the other tasks; false if a wait may block.
    virtual bool StepsWhileWaiting() const = 0;
    /// Steps the tasks that do not wait until `ready` returns true (true) or `limit` has passed (false). Throws
    /// std::logic_error unless StepsWhileWaiting().
    virtual bool StepUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) = 0;

    static Engine& Current();
    /// Sets the current engine; null restores the threaded one. Not to be called while tasks of the other engine run.
    static void Use(Engine* engine);
};

} // namespace IL
