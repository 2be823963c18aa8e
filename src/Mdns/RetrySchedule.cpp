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
    m_order.emplace(time, key);
}

void RetrySchedule::Forget(const Key& key)
{
    std::erase_if(m_order, [&key](const auto& planned) { return planned.second == key; });
}

void RetrySchedule::ForgetType(int type)
{
    std::erase_if(m_order, [type](const auto& planned) { return planned.second.first == type; });
}

std::vector<RetrySchedule::Key> RetrySchedule::TakeDue(std::int64_t nowMs)
{
    std::vector<Key> due;
    while (!m_order.empty() && m_order.begin()->first <= nowMs)
    {
        due.push_back(m_order.begin()->second);
        m_order.erase(m_order.begin());
    }
    return due;
}

std::optional<std::int64_t> RetrySchedule::NextMs() const
{
    return m_order.empty() ? std::nullopt : std::optional(m_order.begin()->first);
}

} // namespace SonarixService
