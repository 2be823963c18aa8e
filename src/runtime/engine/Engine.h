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

/// The engine's side of one timer. Any thread; Cancel() on the timer's task is final: what is due already does not
/// run either. Its end cancels.
class TimerState
{
public:
    virtual ~TimerState() = default;
    /// `repeat` zero: one shot.
    virtual void Arm(std::chrono::milliseconds first, std::chrono::milliseconds repeat,
                     const Callback<void>& callback) = 0;
    virtual void Cancel() = 0;
};

/// What makes time and tasks go: threads and the kernel's clock in the product, one thread and virtual time in
/// tests. Chosen once, before the first task is made; everything in this folder asks it.
class Engine
{
public:
    virtual ~Engine() = default;
    virtual NotifyTargetTaskIF* CreateTask(const std::string& name) = 0;
    virtual void StopTask(NotifyTargetTaskIF* task) = 0;
    virtual void JoinTask(NotifyTargetTaskIF* task) = 0;
    /// A null task gives a timer that never fires; a task of another engine throws std::invalid_argument.
    virtual std::shared_ptr<TimerState> CreateTimer(const std::string& name, NotifyTargetTaskIF* task) = 0;
    virtual std::int64_t NowMs() const = 0;

    /// True where a wait must step the other tasks itself (one thread); false where it may block its thread.
    virtual bool StepsWhileWaiting() const = 0;
    /// Steps every task but those that wait until `ready` holds (true) or `limit` is over (false).
    /// Only where StepsWhileWaiting().
    virtual bool StepUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) = 0;

    static Engine& Current();
    /// Null puts the threaded engine back. Not while tasks of the other engine run.
    static void Use(Engine* engine);
};

} // namespace IL
