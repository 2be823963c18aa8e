#pragma once

#include "runtime/CallbackRegistry.h"
#include "runtime/Task.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace IL
{

class SimulatedTask;

/// State of an armed timer, shared by the timer and the simulation (while waiting) or the task (when due).
struct SimulatedAlarm
{
    enum class Place
    {
        NOWHERE, ///< not armed
        WAITING, ///< in the simulation's map of times
        DUE,     ///< in its task's list
    };

    SimulatedTask* m_task = nullptr;
    Callback<void> m_callback;
    std::int64_t m_repeatMs = 0;
    std::pair<std::int64_t, std::uint64_t> m_key; ///< due time in ms and a unique number
    Place m_place = Place::NOWHERE;
};

/// The operations of the simulation that its tasks use.
class SimulatedScheduler
{
public:
    virtual ~SimulatedScheduler() = default;
    /// Ends the process if the calling thread is not the stepping thread.
    virtual void CheckThread(const std::string& what) const = 0;
    /// Adds the task to the runnable tasks or removes it, after its Choices() may have changed.
    virtual void Refresh(SimulatedTask& task) = 0;
    virtual void Arm(const std::shared_ptr<SimulatedAlarm>& alarm, std::int64_t inMs) = 0;
    virtual void Withdraw(const SimulatedAlarm& alarm) = 0;
    /// Removes all waiting alarms of a task that ends.
    virtual void WithdrawAll(const SimulatedTask& task) = 0;
};

/// A task without a thread: the simulation that created it steps its queue and its due timers. Never destroyed; after
/// the end of the simulation it does nothing.
class SimulatedTask final : public NotifyTargetTaskIF
{
public:
    SimulatedTask(const std::string& name, SimulatedScheduler* scheduler);

    void Post(std::shared_ptr<CallbackEntry> entry) override;
    CallbackConnection ConnectStopNotification(const Callback<void>& callback) override;
    const std::string& Name() const override
    {
        return m_name;
    }
    bool IsCurrent() const override;
    bool HasEnded() const override
    {
        return m_ended || m_scheduler == nullptr;
    }

    void ArmAlarm(const std::shared_ptr<SimulatedAlarm>& alarm, std::int64_t firstMs, std::int64_t repeatMs,
                  const Callback<void>& callback);
    void CancelAlarm(const std::shared_ptr<SimulatedAlarm>& alarm);
    /// Takes an alarm whose time has come.
    void TakeDue(const std::shared_ptr<SimulatedAlarm>& alarm);

    void Stop();
    /// True while an entry of this task is on the stack, also while that entry waits.
    bool IsBusy() const
    {
        return m_busy;
    }

    /// Number of alternatives for Step(); 0 while busy and after the end.
    std::size_t Choices() const;
    /// Completes a requested stop; otherwise fires the due timer number `choice`, or dispatches the oldest entry if
    /// there is no such timer. Exceptions are logged.
    void Step(std::size_t choice);
    /// Drops the queue and the timers. No callback runs any more.
    void Abandon();

    /// Index in the scheduler's list of runnable tasks.
    static constexpr std::size_t kNotListed = std::numeric_limits<std::size_t>::max();
    std::size_t m_listIndex = kNotListed;

private:
    void FireDue(std::size_t index);
    void RunStop();
    void DropAll();

    const std::string m_name;
    SimulatedScheduler* m_scheduler; ///< null after Abandon()
    std::deque<std::shared_ptr<CallbackEntry>> m_queue;
    std::vector<std::shared_ptr<SimulatedAlarm>> m_due;
    CallbackRegistry<> m_stopNotifications;
    bool m_busy = false;
    bool m_stopping = false;
    bool m_stopNotified = false;
    bool m_ended = false;
};

} // namespace IL
