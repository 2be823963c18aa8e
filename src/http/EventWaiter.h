#pragma once

#include <mutex>

/// A sleep that another thread can end. One thread waits at a time; any may wake. Once woken, every later Wait()
/// ends at once, until Reset().
class EventWaiter final
{
public:
    enum Result
    {
        FAILED = 0, ///< no sleep could be set up; logged
        WOKEN = 1,
        TIMED_OUT = 2,
    };

    EventWaiter() = default;
    ~EventWaiter() = default;
    EventWaiter(const EventWaiter&) = delete;
    EventWaiter& operator=(const EventWaiter&) = delete;

    Result Wait(unsigned seconds); ///< 24 days at most
    void Wake();
    void Reset();

private:
    /// Guards the rest, so that no Wake() falls between the look at the flag and the poll, or meets a descriptor
    /// that is another's by now.
    std::mutex m_mutex;
    int m_descriptor = -1; ///< an eventfd of Wait()'s, which closes it; -1 once written
    bool m_woken = false;
    bool m_waiting = false;
};
