#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/Task.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <pthread.h>
#include <string>
#include <utility>

namespace boost::asio
{
class io_context;
} // namespace boost::asio

namespace IL
{

/// A task with a thread: one io_context serves its queue, its timers and its sockets. The threaded engine owns it and
/// never destroys it. Every public operation is safe from any thread.
///
/// Design: entries and timers are kept in this class's containers under one mutex; the io_context only wakes the
/// thread. So a stop can drop what is queued, and a cancelled timer does not fire although it was due. One
/// steady_timer, set to the earliest timer, is created when the first timer is armed: an idle task without timers and
/// sockets holds no descriptor.
class ThreadedTask final : public NotifyTargetTaskIF
{
public:
    using Clock = std::chrono::steady_clock;
    using TimerKey = std::pair<Clock::time_point, std::uint64_t>; ///< equal times fire in the order of arming

    /// Key of an armed timer in m_timers; guarded by the task's mutex.
    struct TimerSlot
    {
        std::optional<TimerKey> m_key;
    };

    /// Starts the thread; throws std::system_error if it cannot be created.
    explicit ThreadedTask(const std::string& name);
    ~ThreadedTask() override;
    ThreadedTask(const ThreadedTask&) = delete;
    ThreadedTask& operator=(const ThreadedTask&) = delete;

    void Post(std::shared_ptr<CallbackEntry> entry) override;
    CallbackConnection ConnectStopNotification(const Callback<void>& callback) override;
    const std::string& Name() const override
    {
        return m_name;
    }
    bool IsCurrent() const override;
    bool HasEnded() const override;

    void Stop();
    void Join();
    boost::asio::io_context& IoContext();

    void ArmTimer(TimerSlot& slot, std::chrono::milliseconds first, std::chrono::milliseconds repeat,
                  const Callback<void>& callback);
    void CancelTimer(TimerSlot& slot);

private:
    struct Context;
    struct ArmedTimer
    {
        TimerSlot* m_slot;
        std::shared_ptr<const Callback<void>> m_callback;
        std::chrono::milliseconds m_repeat;
    };

    static void* ThreadMain(void* self);
    void Run();
    void End();
    void DispatchNext();
    void OnAlarm();
    void SetAlarm();
    std::shared_ptr<const Callback<void>> RemoveTimer(TimerSlot& slot);

    const std::string m_name;
    CallbackRegistry<> m_stopNotifications;

    mutable std::mutex m_mutex;
    std::unique_ptr<Context> m_context; ///< null after the task's end, unless given out by IoContext()
    bool m_contextLent = false;
    std::deque<std::shared_ptr<CallbackEntry>> m_queue;
    std::map<TimerKey, ArmedTimer> m_timers;
    std::uint64_t m_timersArmed = 0;
    bool m_stopping = false;
    bool m_stopNotified = false;

    pthread_t m_thread{};
    std::condition_variable m_endChanged;
    bool m_ended = false;
    bool m_joining = false; ///< a thread is in pthread_join; otherwise the task's thread detaches itself at its end
    bool m_joined = false;
};

} // namespace IL
