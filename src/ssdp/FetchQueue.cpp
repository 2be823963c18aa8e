#include "ssdp/FetchQueue.h"

#include "runtime/MonotonicClock.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

namespace SonarixService
{

FetchQueue::FetchQueue(NotifyTargetTaskIF* task)
    : m_timer("SsdpFetchQueueTimer", task)
{
}

const char* FetchQueue::Add(Fetch fetch)
{
    if (m_fetches >= kMaxFetches)
    {
        return "as many descriptions are being fetched as may";
    }
    Host& host = m_hosts[fetch.host]; // made here, it is below its bound
    if (host.fetches >= kMaxFetchesOfHost)
    {
        return "as many descriptions of its host are being fetched as may";
    }
    ++host.fetches;
    ++m_fetches;
    m_waiting.push_back({std::move(fetch), MonotonicClock::NowMs()});
    GiveTurns();
    return nullptr;
}

void FetchQueue::Ended(IPv4 host, bool wasReached)
{
    --m_transfers;
    Forget(host);
    Remember(host, wasReached);
    GiveTurns();
}

void FetchQueue::RetryWait(bool begins)
{
    if (begins)
    {
        --m_transfers;
        GiveTurns();
    }
    else
    {
        ++m_transfers;
    }
}

void FetchQueue::GiveTurns()
{
    GiveUpLate();
    while (m_transfers < kMaxTransfers && !m_waiting.empty())
    {
        const auto next = Next();
        const Fetch fetch = std::move(next->fetch);
        m_waiting.erase(next);
        m_hosts[fetch.host].lastTurn = ++m_turns;
        ++m_transfers;
        if (!fetch.start())
        {
            --m_transfers;
            Forget(fetch.host);
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
        Forget(fetch.host);
        fetch.giveUp();
    }
}

std::list<FetchQueue::Waiting>::iterator FetchQueue::Next()
{
    const auto place = [this](const Waiting& waiting)
    {
        const IPv4 host = waiting.fetch.host;
        const bool isUnreached = std::find(m_unreached.begin(), m_unreached.end(), host) != m_unreached.end();
        return std::tuple(isUnreached, m_hosts[host].lastTurn);
    };
    return std::min_element(m_waiting.begin(), m_waiting.end(),
                            [&place](const Waiting& left, const Waiting& right) { return place(left) < place(right); });
}

void FetchQueue::Forget(IPv4 host)
{
    --m_fetches;
    const auto found = m_hosts.find(host);
    if (--found->second.fetches == 0)
    {
        m_hosts.erase(found);
    }
}

void FetchQueue::Remember(IPv4 host, bool wasReached)
{
    std::erase(m_unreached, host);
    if (!wasReached)
    {
        m_unreached.push_back(host);
        if (m_unreached.size() > kMaxUnreached)
        {
            m_unreached.pop_front();
        }
    }
}

void FetchQueue::ArmTimer()
{
    m_timer.Cancel();
    if (!m_waiting.empty())
    {
        const std::int64_t waitMs = m_waiting.front().sinceMs + kMaxWaitMs - MonotonicClock::NowMs();
        m_timer.PostIn(static_cast<unsigned>(std::max<std::int64_t>(waitMs, 0)), [this] { GiveTurns(); });
    }
}

} // namespace SonarixService
