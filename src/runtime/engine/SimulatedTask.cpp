#include "runtime/engine/SimulatedTask.h"

#include "runtime/CaughtException.h"
#include "runtime/engine/CurrentTask.h"

#include <algorithm>
#include <functional>

namespace
{

void RunLogged(const std::string& taskName, const std::function<void()>& function)
{
    try
    {
        function();
    }
    catch (...)
    {
        IL::LogCaughtException(taskName);
    }
}

} // namespace

namespace IL
{

SimulatedTask::SimulatedTask(const std::string& name, SimulatedScheduler* scheduler)
    : m_name(name)
    , m_scheduler(scheduler)
{
}

bool SimulatedTask::IsCurrent() const
{
    return CurrentTask() == this;
}

void SimulatedTask::Post(std::shared_ptr<CallbackEntry> entry)
{
    if (m_scheduler == nullptr)
    {
        return;
    }
    m_scheduler->CheckThread("a post to " + m_name);
    if (m_stopping || !entry)
    {
        return;
    }
    m_queue.push_back(std::move(entry));
    m_scheduler->Refresh(*this);
}

CallbackConnection SimulatedTask::ConnectStopNotification(const Callback<void>& callback)
{
    if (m_stopNotified)
    {
        callback();
        return {};
    }
    return m_stopNotifications.Connect([callback, name = m_name] { RunLogged(name, [&callback] { callback(); }); });
}

void SimulatedTask::ArmAlarm(const std::shared_ptr<SimulatedAlarm>& alarm, std::int64_t firstMs, std::int64_t repeatMs,
                             const Callback<void>& callback)
{
    Callback<void> armed = callback; // a copy: CancelAlarm() may destroy the original
    CancelAlarm(alarm);
    if (m_scheduler == nullptr || m_stopping)
    {
        return;
    }
    alarm->m_callback = std::move(armed);
    alarm->m_repeatMs = repeatMs;
    m_scheduler->CheckThread("a timer of " + m_name);
    m_scheduler->Arm(alarm, firstMs);
}

void SimulatedTask::CancelAlarm(const std::shared_ptr<SimulatedAlarm>& alarm)
{
    const SimulatedAlarm::Place place = std::exchange(alarm->m_place, SimulatedAlarm::Place::NOWHERE);
    if (place == SimulatedAlarm::Place::WAITING && m_scheduler != nullptr)
    {
        m_scheduler->Withdraw(*alarm);
    }
    if (place == SimulatedAlarm::Place::DUE)
    {
        m_due.erase(std::remove(m_due.begin(), m_due.end(), alarm), m_due.end());
        if (m_scheduler != nullptr)
        {
            m_scheduler->Refresh(*this);
        }
    }
    const Callback<void> garbage = std::exchange(alarm->m_callback, {}); // its destructor may call this task
}

void SimulatedTask::TakeDue(const std::shared_ptr<SimulatedAlarm>& alarm)
{
    alarm->m_place = SimulatedAlarm::Place::DUE;
    m_due.push_back(alarm);
    m_scheduler->Refresh(*this);
}

void SimulatedTask::Stop()
{
    m_stopping = true;
    if (m_scheduler != nullptr)
    {
        m_scheduler->Refresh(*this);
    }
}

std::size_t SimulatedTask::Choices() const
{
    if (m_busy || m_ended)
    {
        return 0;
    }
    return m_stopping ? 1 : m_due.size() + (m_queue.empty() ? 0 : 1);
}

void SimulatedTask::Step(std::size_t choice)
{
    const CurrentTaskScope current(this);
    m_busy = true;
    m_scheduler->Refresh(*this);
    if (m_stopping)
    {
        RunStop();
    }
    else if (choice < m_due.size())
    {
        FireDue(choice);
    }
    else
    {
        const std::shared_ptr<CallbackEntry> entry = std::move(m_queue.front());
        m_queue.pop_front();
        RunLogged(m_name, [&entry] { entry->Dispatch(); });
    }
    m_busy = false;
    if (m_scheduler != nullptr)
    {
        m_scheduler->Refresh(*this);
    }
}

void SimulatedTask::FireDue(std::size_t index)
{
    const std::shared_ptr<SimulatedAlarm> alarm = m_due[index];
    m_due.erase(m_due.begin() + static_cast<std::ptrdiff_t>(index));
    alarm->m_place = SimulatedAlarm::Place::NOWHERE;
    Callback<void> callback;
    if (alarm->m_repeatMs > 0)
    {
        callback = alarm->m_callback;
        m_scheduler->Arm(alarm, alarm->m_repeatMs);
    }
    else
    {
        callback = std::exchange(alarm->m_callback, {});
    }
    RunLogged(m_name, [&callback] { callback(); });
}

void SimulatedTask::RunStop()
{
    DropAll();
    m_scheduler->WithdrawAll(*this);
    m_stopNotified = true;
    m_stopNotifications.Send({});
    m_stopNotifications.DisconnectAll();
    m_ended = true;
}

void SimulatedTask::Abandon()
{
    m_scheduler = nullptr;
    DropAll();
}

/// Drops all entries and timers, whose destructors may post, arm and cancel meanwhile.
void SimulatedTask::DropAll()
{
    const auto queue = std::exchange(m_queue, {});
    const auto due = std::exchange(m_due, {});
    for (const std::shared_ptr<SimulatedAlarm>& alarm : due)
    {
        alarm->m_place = SimulatedAlarm::Place::NOWHERE;
        const Callback<void> garbage = std::exchange(alarm->m_callback, {});
    }
}

} // namespace IL
