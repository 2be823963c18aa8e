#include "tools/simulated/Schedule.h"

#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <utility>

Schedule::Schedule(NotifyTargetTaskIF* task)
    : m_timer("Schedule", task)
{
}

Schedule::~Schedule() = default;

void Schedule::In(unsigned int milliseconds, Action action)
{
    m_heap.push_back({MonotonicClock::NowMs() + milliseconds, m_number++, std::move(action)});
    std::push_heap(m_heap.begin(), m_heap.end(), IsLater);
    Arm();
}

bool Schedule::IsLater(const Entry& left, const Entry& right)
{
    return std::pair(left.dueMs, left.number) > std::pair(right.dueMs, right.number);
}

void Schedule::Arm()
{
    if (m_heap.empty() || (m_armedForMs != 0 && m_armedForMs <= m_heap.front().dueMs))
    {
        return;
    }
    m_armedForMs = m_heap.front().dueMs;
    const std::int64_t rest = std::max<std::int64_t>(0, m_armedForMs - MonotonicClock::NowMs());
    m_timer.PostIn(static_cast<unsigned int>(rest), [this] { RunDue(); });
}

void Schedule::RunDue()
{
    m_armedForMs = 0;
    const std::int64_t now = MonotonicClock::NowMs();
    while (!m_heap.empty() && m_heap.front().dueMs <= now)
    {
        std::pop_heap(m_heap.begin(), m_heap.end(), IsLater);
        const Action action = std::move(m_heap.back().action);
        m_heap.pop_back();
        action();
    }
    Arm();
}
