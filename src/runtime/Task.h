#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <functional>
#include <memory>
#include <string>

namespace IL
{

/// One unit of work in a task's queue.
class CallbackEntry
{
public:
    virtual ~CallbackEntry() = default;
    virtual void Dispatch() = 0;
};

} // namespace IL

/// A named, single-threaded task: entries run one at a time, first in, first out. An exception out of an entry is
/// logged at level 1 with its text, and the task continues. The engine owns the object and never frees or reuses it, so
/// a raw pointer to it stays valid after StopTask.
class NotifyTargetTaskIF
{
public:
    virtual ~NotifyTargetTaskIF() = default;

    /// Queues the entry, from any thread. After StopTask it is dropped silently.
    virtual void Post(std::shared_ptr<IL::CallbackEntry> entry) = 0;

    /// `callback` runs once on the task when it stops; if it has stopped already, at once on the calling thread.
    virtual CallbackConnection ConnectStopNotification(const Callback<void>& callback) = 0;

    virtual const std::string& Name() const = 0;

    /// True on the task's own thread (under the simulated engine: while one of its entries runs).
    virtual bool IsCurrent() const = 0;

    /// True once the stop is complete: no entry and no timer of the task runs any more. Safe from any thread.
    virtual bool HasEnded() const = 0;
};

namespace IL
{

/// Creates a task and its thread, ready to take entries on return. `second` is reserved: pass "".
NotifyTargetTaskIF* CreateTask(const std::string& name, const std::string& second);

/// Ends the task without waiting for it: the running entry finishes, queued entries and armed timers are dropped, the
/// stop notifications run on the task's thread, and the thread ends. Stopping twice is harmless.
void StopTask(NotifyTargetTaskIF* task);

/// Blocks until the task's thread has ended. On the task itself it logs at level 1 and returns.
void JoinTask(NotifyTargetTaskIF* task);

/// The task whose entry or timer the calling thread runs; null outside all tasks.
const NotifyTargetTaskIF* CurrentTask();

/// Posts a callable to the task. Does nothing if `task` is null or has been stopped.
void BreakThread(std::function<void()>&& function, NotifyTargetTaskIF* task);

} // namespace IL
