#include "runtime/engine/ThreadedTask.h"

#include "runtime/CaughtException.h"
#include "runtime/DPrint.h"
#include "runtime/engine/CurrentTask.h"
#include "runtime/engine/Thread.h"

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>

#include <algorithm>
#include <cstddef>

namespace
{

const DPrint s_log("Tasks");

constexpr std::size_t kStackBytes = std::size_t{512} * 1024;

} // namespace

namespace IL
{

struct ThreadedTask::Context : boost::asio::io_context
{
    Context()
        : io_context(1) // concurrency hint: one thread runs it
        , m_work(get_executor())
    {
    }
    using execution_context::shutdown; // destroys pending handlers; sockets may still use the services

    boost::asio::executor_work_guard<executor_type> m_work;
    std::optional<boost::asio::steady_timer> m_alarm; ///< task's thread only
};

ThreadedTask::ThreadedTask(const std::string& name)
    : m_name(name)
    , m_context(std::make_unique<Context>())
{
    m_thread = StartThread(name, kStackBytes, &ThreadedTask::ThreadMain, this);
}

ThreadedTask::~ThreadedTask() = default;

void* ThreadedTask::ThreadMain(void* self)
{
    static_cast<ThreadedTask*>(self)->Run();
    return nullptr;
}

void ThreadedTask::Run()
{
    const CurrentTaskScope current(this);
    SetThreadName(m_name);
    for (bool running = true; running;)
    {
        try
        {
            m_context->run(); // returns at Stop()
            running = false;
        }
        catch (...)
        {
            LogCaughtException(m_name);
        }
    }
    End();
}

/// Last step of the thread. Dropped entries and callbacks are destroyed outside the lock, because their destructors may
/// call this task.
void ThreadedTask::End()
{
    {
        std::deque<std::shared_ptr<CallbackEntry>> queue;
        std::map<TimerKey, ArmedTimer> timers;
        {
            const std::lock_guard lock(m_mutex);
            queue.swap(m_queue);
            timers.swap(m_timers);
            for (const auto& [key, timer] : timers)
            {
                timer.m_slot->m_key.reset();
            }
        }
    }
    {
        const std::lock_guard lock(m_mutex);
        m_stopNotified = true;
    }
    m_stopNotifications.Send({});
    m_stopNotifications.DisconnectAll();

    std::unique_ptr<Context> unused;
    Context* lent = nullptr;
    {
        const std::lock_guard lock(m_mutex);
        m_context->m_alarm.reset();
        if (m_contextLent)
        {
            lent = m_context.get();
        }
        else
        {
            unused = std::move(m_context);
        }
    }
    unused.reset();
    if (lent != nullptr)
    {
        lent->shutdown();
    }

    const std::lock_guard lock(m_mutex);
    m_ended = true;
    if (!m_joining)
    {
        pthread_detach(pthread_self());
    }
    m_endChanged.notify_all();
}

bool ThreadedTask::IsCurrent() const
{
    return CurrentTask() == this;
}

bool ThreadedTask::HasEnded() const
{
    const std::lock_guard lock(m_mutex);
    return m_ended;
}

void ThreadedTask::Post(std::shared_ptr<CallbackEntry> entry)
{
    const std::lock_guard lock(m_mutex);
    if (m_stopping || !entry)
    {
        return;
    }
    m_queue.push_back(std::move(entry));
    boost::asio::post(*m_context, [this] { DispatchNext(); });
}

void ThreadedTask::DispatchNext()
{
    std::shared_ptr<CallbackEntry> entry;
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopping || m_queue.empty())
        {
            return;
        }
        entry = std::move(m_queue.front());
        m_queue.pop_front();
    }
    entry->Dispatch();
}

CallbackConnection ThreadedTask::ConnectStopNotification(const Callback<void>& callback)
{
    {
        const std::lock_guard lock(m_mutex);
        if (!m_stopNotified)
        {
            // Each callback has its own try block, so that one that throws does not skip the others.
            return m_stopNotifications.Connect(
                [callback, name = m_name]
                {
                    try
                    {
                        callback();
                    }
                    catch (...)
                    {
                        LogCaughtException(name);
                    }
                });
        }
    }
    callback();
    return {};
}

void ThreadedTask::Stop()
{
    const std::lock_guard lock(m_mutex);
    if (!m_stopping)
    {
        m_stopping = true;
        m_context->stop();
    }
}

void ThreadedTask::Join()
{
    if (IsCurrent())
    {
        s_log.LogError("Task \"%s\" cannot join itself", m_name.c_str());
        return;
    }
    std::unique_lock lock(m_mutex);
    if (m_ended || m_joining)
    {
        m_endChanged.wait(lock, [this] { return m_joining ? m_joined : m_ended; });
        return;
    }
    m_joining = true;
    lock.unlock();
    pthread_join(m_thread, nullptr);
    lock.lock();
    m_joined = true;
    m_endChanged.notify_all();
}

boost::asio::io_context& ThreadedTask::IoContext()
{
    const std::lock_guard lock(m_mutex);
    m_contextLent = true;
    if (!m_context) // the task has ended: this context is valid and runs no handler
    {
        m_context = std::make_unique<Context>();
    }
    return *m_context;
}

void ThreadedTask::ArmTimer(TimerSlot& slot, std::chrono::milliseconds first, std::chrono::milliseconds repeat,
                            const Callback<void>& callback)
{
    const auto armed = std::make_shared<const Callback<void>>(callback);
    const Clock::time_point due = Clock::now() + first;
    std::shared_ptr<const Callback<void>> replaced; // destroyed after the lock is released
    const std::lock_guard lock(m_mutex);
    replaced = RemoveTimer(slot);
    if (m_stopping)
    {
        return;
    }
    slot.m_key = TimerKey(due, ++m_timersArmed);
    m_timers.emplace(*slot.m_key, ArmedTimer{&slot, armed, repeat});
    if (m_timers.begin()->first != *slot.m_key)
    {
        return;
    }
    if (IsCurrent())
    {
        SetAlarm();
    }
    else
    {
        boost::asio::post(*m_context,
                          [this]
                          {
                              const std::lock_guard again(m_mutex);
                              SetAlarm();
                          });
    }
}

void ThreadedTask::CancelTimer(TimerSlot& slot)
{
    std::shared_ptr<const Callback<void>> removed; // destroyed after the lock is released
    const std::lock_guard lock(m_mutex);
    removed = RemoveTimer(slot);
}

/// Removes an armed timer. Requires the mutex. If the steady_timer then expires early, OnAlarm() sets it again.
std::shared_ptr<const Callback<void>> ThreadedTask::RemoveTimer(TimerSlot& slot)
{
    if (!slot.m_key)
    {
        return nullptr;
    }
    const auto found = m_timers.find(*slot.m_key);
    slot.m_key.reset();
    std::shared_ptr<const Callback<void>> callback = std::move(found->second.m_callback);
    m_timers.erase(found);
    return callback;
}

/// Sets the steady_timer to the earliest timer. Requires the task's thread and the mutex.
void ThreadedTask::SetAlarm()
{
    if (m_stopping || m_timers.empty())
    {
        return;
    }
    std::optional<boost::asio::steady_timer>& alarm = m_context->m_alarm;
    if (!alarm)
    {
        alarm.emplace(*m_context);
    }
    alarm->expires_at(m_timers.begin()->first.first);
    alarm->async_wait(
        [this](const boost::system::error_code& error)
        {
            if (!error)
            {
                OnAlarm();
            }
        });
}

/// Fires one timer. Others due at the same time follow in handlers of their own, so that queued entries run in between.
void ThreadedTask::OnAlarm()
{
    std::shared_ptr<const Callback<void>> callback;
    {
        const std::lock_guard lock(m_mutex);
        if (m_stopping || m_timers.empty())
        {
            return;
        }
        const auto first = m_timers.begin();
        const Clock::time_point now = Clock::now();
        if (first->first.first <= now)
        {
            ArmedTimer timer = std::move(first->second);
            callback = timer.m_callback;
            const Clock::time_point next = first->first.first + timer.m_repeat;
            m_timers.erase(first);
            timer.m_slot->m_key.reset();
            if (timer.m_repeat.count() > 0)
            {
                // A repeating timer of a task that was busy fires once for all missed times.
                timer.m_slot->m_key = TimerKey(next > now ? next : now + timer.m_repeat, ++m_timersArmed);
                const TimerKey key = *timer.m_slot->m_key;
                m_timers.emplace(key, std::move(timer));
            }
        }
        SetAlarm();
    }
    if (callback)
    {
        (*callback)();
    }
}

} // namespace IL
