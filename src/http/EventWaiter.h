#pragma once

#include <mutex>

/// A sleep that another thread can end. One thread at a time calls Wait(); any thread may call Wake(). After Wake(),
/// every Wait() returns at once until Reset().
class EventWaiter final
{
public:
    enum Result
    {
        FAILED = 0, ///< no eventfd, or poll() failed; logged
        WOKEN = 1,
        TIMED_OUT = 2,
    };

    EventWaiter() = default;
    ~EventWaiter() = default;
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    Result Wait(unsigned seconds); ///< at most 24 days, the limit of poll()
    void Wake();
    void Reset();

private:
    /// Guards the other members: a Wake() between Wait()'s test of m_woken and its poll() is not lost, and Wake() never
    /// writes to a descriptor number that has been reused.
    std::mutex m_mutex;
    int m_descriptor = -1; ///< eventfd, opened and closed by Wait(); -1 after Wake() has written to it
    bool m_woken = false;
    bool m_waiting = false;
};
