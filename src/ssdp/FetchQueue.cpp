#include "ssdp/FetchQueue.h"

#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace SonarixService
{

FetchQueue::FetchQueue(NotifyTargetTaskIF* task)
    : m_task(task)
    , m_timer("SsdpFetchQueueTimer", task)
{
}

const char* FetchQueue::Add(Fetch fetch)
{
    TASK_CHECK(m_task);
    if (m_fetches >= kMaxFetches)
    {
        return "too many descriptions are being fetched";
    }
    Host& host = m_hosts[fetch.host]; // a new entry is below the limit
    if (host.fetches >= kMaxFetchesOfHost)
    {
        return "too many descriptions of its host are being fetched";
    }
    ++host.fetches;
    ++m_fetches;
    m_waiting.push_back({std::move(fetch), MonotonicClock::NowMs()});
    StartNext();
    return nullptr;
}

void FetchQueue::Ended(IPv4 host, bool wasReached)
{
    TASK_CHECK(m_task);
    --m_running;
    Remove(host);
    std::erase(m_unreached, host);
    if (!wasReached)
    {
        m_unreached.push_back(host);
        if (m_unreached.size() > kMaxUnreached)
        {
            m_unreached.pop_front();
        }
    }
    StartNext();
}

void FetchQueue::StartNext()
{
    TASK_CHECK(m_task);
    GiveUpLate();
    while (m_running < kMaxRunning && !m_waiting.empty())
    {
        const auto next = Next();
        const Fetch fetch = std::move(next->fetch);
        m_waiting.erase(next);
        m_hosts[fetch.host].lastStart = ++m_starts;
        ++m_running;
        if (!fetch.start())
        {
            --m_running;
            Remove(fetch.host);
        }
    }
    ArmTimer();
}

void FetchQueue::GiveUpLate()
{
    const std::int64_t nowMs = MonotonicClock::NowMs();
    while (!m_waiting.empty() && nowMs - m_waiting.front().sinceMs >= kMaxWaitMs)
    {
        const Fetch fetch = std::move(m_waiting.front().fetch);
        m_waiting.pop_front();
        Remove(fetch.host);
        fetch.giveUp();
    }
}

std::list<FetchQueue::Waiting>::iterator FetchQueue::Next()
{
    const auto rank = [this](const Waiting& waiting)
    {
        const IPv4 host = waiting.fetch.host;
        const bool isUnreached = std::find(m_unreached.begin(), m_unreached.end(), host) != m_unreached.end();
        return std::tuple(isUnreached, m_hosts[host].lastStart);
    };
    return std::min_element(m_waiting.begin(), m_waiting.end(),
                            [&rank](const Waiting& left, const Waiting& right) { return rank(left) < rank(right); });
}

void FetchQueue::Remove(IPv4 host)
{
    --m_fetches;
    const auto found = m_hosts.find(host);
    if (--found->second.fetches == 0)
    {
        m_hosts.erase(found);
    }
}

void FetchQueue::ArmTimer()
{
    m_timer.Cancel();
    if (!m_waiting.empty())
    {
        const std::int64_t waitMs = m_waiting.front().sinceMs + kMaxWaitMs - MonotonicClock::NowMs();
        m_timer.PostIn(static_cast<unsigned>(std::max<std::int64_t>(waitMs, 0)), [this] { StartNext(); });
    }
}

} // namespace SonarixService
