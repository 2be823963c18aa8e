#pragma once

#include "runtime/Callback.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace IL
{
class TimerState;
}

/// A one-shot timer, held by value. The callback runs on `task`. Arming again replaces the pending callback.
/// Safe from any thread. After Cancel() or the destructor, called on `task`, the callback does not run, even if the
/// timer was due already. After the task has stopped, arming does nothing. With a null task the timer never fires.
class MessageTimer final
{
public:
    MessageTimer(const std::string& name, NotifyTargetTaskIF* task);
    ~MessageTimer();
    MessageTimer(const MessageTimer&) = delete;
    MessageTimer& operator=(const MessageTimer&) = delete;

    void PostIn(unsigned int milliseconds, const Callback<void>& callback);
    void Cancel();

private:
    std::shared_ptr<IL::TimerState> m_state;
};

/// A timer that can repeat; its times are set separately from starting. It guarantees what MessageTimer guarantees,
/// but SetTimeouts() and Start() are called from one thread at a time.
class APTimerIF
{
public:
    virtual ~APTimerIF() = default;
    /// Takes effect at the next Start(). `repeatMilliseconds` 0: fires once for each Start().
    virtual void SetTimeouts(unsigned int firstMilliseconds, unsigned int repeatMilliseconds) = 0;
    /// Restarts the timer if it runs.
    virtual void Start(const Callback<void>& callback) = 0;
    virtual void Stop() = 0;
};

class APTimerFactory
{
public:
    static std::shared_ptr<APTimerIF> CreateTimer(NotifyTargetTaskIF* task, const std::string& name);
};
