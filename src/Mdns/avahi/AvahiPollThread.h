#pragma once

#include <atomic>
#include <thread>

struct AvahiThreadedPoll;

namespace MDNS
{

/// Tracks which thread may access the Avahi objects of one poll: the poll thread, because Avahi holds the poll's lock
/// while it runs callbacks, or a thread that holds a Lock. Avahi asserts if the poll thread takes the lock, and
/// deadlocks if another thread takes it twice.
///
/// Design: every callback starts with InCallback(). If the calling thread holds no Lock, it is the poll thread, so the
/// poll thread is known from its first callback on. Avahi also invokes callbacks inside the functions that create a
/// client or an entry group, on the caller's thread. The caller holds a Lock there.
class AvahiPollThread final
{
public:
    void InCallback();

    bool IsCurrent() const
    {
        return m_pollThread.load() == std::this_thread::get_id();
    }

    /// Forgets the poll thread. To be called after that thread has ended, because another thread may get the same id.
    void Ended()
    {
        m_pollThread = std::thread::id();
    }

    /// First line of each function that requires the poll's lock. Ends the process if this thread is not the poll
    /// thread and holds no Lock. Does nothing in builds with NDEBUG.
#ifdef NDEBUG
    void CheckLocked(const char*) const {}
#else
    void CheckLocked(const char* function) const;
#endif

    /// Takes the poll's lock for a scope, unless this thread holds it already.
    class Lock final
    {
    public:
        Lock(AvahiPollThread& thread, AvahiThreadedPoll* poll);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

    private:
        AvahiPollThread& m_thread;
        AvahiThreadedPoll* const m_poll; ///< null: this Lock has not taken the poll's lock
    };

private:
    bool IsHolder() const
    {
        return m_holder.load() == std::this_thread::get_id();
    }

    std::atomic<std::thread::id> m_pollThread{std::thread::id()};
    std::atomic<std::thread::id> m_holder{std::thread::id()}; ///< the thread that holds a Lock
};

} // namespace MDNS
