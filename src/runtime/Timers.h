#pragma once

#include "runtime/Callback.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace IL
{
class TimerState; // the engine's side of a timer
}

/// A one-shot timer, held by value. The callback runs on `task`. Arming again replaces what was armed.
/// After Cancel() or the destructor, called on `task`, the callback does not run, not even if it was due already.
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

/// The other family of timers: the times are set apart from starting. Same promises as MessageTimer.
class APTimerIF
{
public:
    virtual ~APTimerIF() = default;
    /// `repeatMilliseconds` 0: one shot for each Start.
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
