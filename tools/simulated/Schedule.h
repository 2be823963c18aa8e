#pragma once

#include "runtime/Timers.h"

#include <cstdint>
#include <functional>
#include <vector>

class NotifyTargetTaskIF;

/// Runs many delayed actions with one timer.
/// Task: all calls and actions run on `task`. Owner: objects that the actions capture outlive the schedule.
class Schedule final
{
public:
    using Action = std::function<void()>;

    explicit Schedule(NotifyTargetTaskIF* task);
    ~Schedule();
    Schedule(const Schedule&) = delete;
    Schedule& operator=(const Schedule&) = delete;

    /// Actions of the same millisecond run in the order of the calls. An action cannot be cancelled.
    void In(unsigned int milliseconds, Action action);

private:
    struct Entry
    {
        std::int64_t dueMs;
        std::uint64_t number;
        Action action;
    };

    static bool IsLater(const Entry& left, const Entry& right);
    void Arm();
    void RunDue();

    std::vector<Entry> m_heap; ///< the next action in front
    std::uint64_t m_number = 0;
    std::int64_t m_armedForMs = 0; ///< 0: not armed
    MessageTimer m_timer;
};
