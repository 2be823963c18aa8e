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

/// A timer's arming, shared by the timer and by the simulation or the task where it lies.
struct SimulatedAlarm
{
    enum class Place
    {
        NOWHERE, ///< not armed
        WAITING, ///< with the simulation, until the clock is there
        DUE,     ///< with its task
    };

    SimulatedTask* m_task = nullptr;
    Callback<void> m_callback;
    std::int64_t m_repeatMs = 0;
    std::pair<std::int64_t, std::uint64_t> m_key; ///< when it falls due, and a number of its own
    Place m_place = Place::NOWHERE;
};

/// What a task asks of the simulation that steps it.
class SimulatedScheduler
{
public:
    virtual ~SimulatedScheduler() = default;
    /// Ends the process on any thread but the one that steps.
    virtual void CheckThread(const std::string& what) const = 0;
    /// The task may have come to have something to do, or to have nothing.
    virtual void Refresh(SimulatedTask& task) = 0;
    virtual void Arm(const std::shared_ptr<SimulatedAlarm>& alarm, std::int64_t inMs) = 0;
    virtual void Withdraw(const SimulatedAlarm& alarm) = 0;
    /// Every waiting alarm of a task that ends.
    virtual void WithdrawAll(const SimulatedTask& task) = 0;
};

/// A task without a thread: its queue and its due timers are stepped by the simulation that made it. Never
/// destroyed; the end of its simulation abandons it.
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
    /// The clock has reached the alarm.
    void TakeDue(const std::shared_ptr<SimulatedAlarm>& alarm);

    void Stop();
    /// An entry of this task is on the stack; below others if it waits.
    bool IsBusy() const
    {
        return m_busy;
    }

    /// How many things Step could do now; 0 while busy and after the end.
    std::size_t Choices() const;
    /// Does the stop, or the one of the due timers and the oldest entry that `choice` names. Logs what they throw.
    void Step(std::size_t choice);
    /// Throws all away and calls nobody any more.
    void Abandon();

    /// Place in the scheduler's list of those with something to do.
    static constexpr std::size_t kNotListed = std::numeric_limits<std::size_t>::max();
    std::size_t m_listIndex = kNotListed;

private:
    void FireDue(std::size_t index);
    void RunStop();
    void DropAll();

    const std::string m_name;
    SimulatedScheduler* m_scheduler; ///< null once abandoned
    std::deque<std::shared_ptr<CallbackEntry>> m_queue;
    std::vector<std::shared_ptr<SimulatedAlarm>> m_due;
    CallbackRegistry<> m_stopNotifications;
    bool m_busy = false;
    bool m_stopping = false;
    bool m_stopNotified = false;
    bool m_ended = false;
};

} // namespace IL
