#include "Mdns/RetrySchedule.h"

#include <algorithm>

namespace SonarixService
{

RetrySchedule::RetrySchedule(std::uint64_t seed)
    : m_random(seed)
{
}

void RetrySchedule::Plan(const Key& key, unsigned int failures, std::int64_t nowMs)
{
    Forget(key);
    constexpr unsigned int kDoublings = 4; // 5 s << 4 exceeds kLongestPause
    const unsigned int doublings = std::min(std::max(failures, 1U) - 1, kDoublings);
    const std::int64_t pause = std::min<std::int64_t>(kFirstPause.count() << doublings, kLongestPause.count());
    const std::int64_t fifth = pause / 5;
    const auto jitter = static_cast<std::int64_t>(m_random.Below(static_cast<std::uint64_t>(2 * fifth + 1)));
    const std::int64_t time = nowMs + pause - fifth + jitter;
    m_times.emplace(key, time);
    m_order.emplace(time, key);
}

void RetrySchedule::Forget(const Key& key)
{
    const auto planned = m_times.find(key);
    if (planned != m_times.end())
    {
        m_order.erase({planned->second, key});
        m_times.erase(planned);
    }
}

void RetrySchedule::ForgetType(int type)
{
    auto planned = m_times.lower_bound({type, ""});
    while (planned != m_times.end() && planned->first.first == type)
    {
        m_order.erase({planned->second, planned->first});
        planned = m_times.erase(planned);
    }
}

std::vector<RetrySchedule::Key> RetrySchedule::TakeDue(std::int64_t nowMs)
{
    std::vector<Key> due;
    while (!m_order.empty() && m_order.begin()->first <= nowMs)
    {
        due.push_back(m_order.begin()->second);
        Forget(due.back());
    }
    return due;
}

std::optional<std::int64_t> RetrySchedule::NextMs() const
{
    return m_order.empty() ? std::nullopt : std::optional(m_order.begin()->first);
}

} // namespace SonarixService
