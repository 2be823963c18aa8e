#pragma once

#include <atomic>
#include <thread>

struct AvahiThreadedPoll;

namespace MDNS
{

/// Knows which thread may touch the Avahi objects of one poll: the poll thread, for which Avahi holds the poll's lock
/// while it runs callbacks, or the thread that holds a Lock. Avahi asserts where its poll thread takes the lock, and
/// hangs where a thread takes it twice.
///
/// Design: a callback that comes on a thread without a Lock comes on the poll thread, so that the poll thread is
/// known from its first callback on, and every callback starts with InCallback(). Avahi also calls back from within
/// the calls that make a client or an entry group, on the caller's thread; the caller holds a Lock then.
class AvahiPollThread final
{
public:
    void InCallback()
    {
        const std::thread::id self = std::this_thread::get_id();
        if (m_holder.load() != self)
        {
            m_pollThread = self;
        }
    }

    bool IsCurrent() const
    {
        return m_pollThread.load() == std::this_thread::get_id();
    }

    /// After the poll thread's end, when another thread may get its id.
    void Ended()
    {
        m_pollThread = std::thread::id();
    }

    /// Holds the poll's lock for a scope, unless this thread has it already.
    class Lock final
    {
    public:
        Lock(AvahiPollThread& thread, AvahiThreadedPoll* poll);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        AvahiPollThread& m_thread;
        AvahiThreadedPoll* const m_poll; ///< null: nothing was taken
    };

private:
    std::atomic<std::thread::id> m_pollThread{std::thread::id()};
    std::atomic<std::thread::id> m_holder{std::thread::id()}; ///< who holds a Lock
};

} // namespace MDNS
