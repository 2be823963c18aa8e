#include "Mdns/avahi/ResolveQueue.h"

#include "Mdns/MdnsClient.h"

#include <utility>

namespace MDNS
{

ResolveQueue::Ask::Ask(ServiceId askedId, Callback<std::string, Service> resolved, Order askedOrder)
    : id(std::move(askedId))
    , order(askedOrder)
    , m_resolved(std::move(resolved))
{
}

ResolveQueue::ResolveQueue(Start start)
    : m_start(std::move(start))
{
}

ResolveQueue::~ResolveQueue()
{
    CancelAll();
}

ResolveQueue::AskPtr ResolveQueue::Add(ServiceId id, Callback<std::string, Service> resolved, Order order)
{
    const auto ask = std::make_shared<Ask>(std::move(id), std::move(resolved), order);
    if (m_running.size() < kMaxRunning && Waiting() == 0)
    {
        return StartNow(ask) ? ask : nullptr;
    }
    WaitingOf(order).push_back(ask);
    return ask;
}

void ResolveQueue::Answer(const AskPtr& ask, const std::string& host, const Service& service)
{
    if (!End(ask))
    {
        return;
    }
    const Callback<std::string, Service> resolved = std::exchange(ask->m_resolved, {});
    const std::vector<AskPtr> failed = StartWaiting();
    resolved(host, service);
    CallNotSeen(failed);
}

void ResolveQueue::Cancel(const AskPtr& ask)
{
    ask->m_resolved.Clear(); // also of one whose start has just failed, and who has not been told yet
    if (End(ask))
    {
        CallNotSeen(StartWaiting());
    }
}

void ResolveQueue::CancelAll()
{
    std::vector<AskPtr> ending = std::exchange(m_running, {});
    for (std::deque<AskPtr>* const waiting : {&m_first, &m_again})
    {
        ending.insert(ending.end(), waiting->begin(), waiting->end());
        waiting->clear();
    }
    for (const AskPtr& ask : ending)
    {
        ask->m_state = Ask::State::ENDED;
        ask->m_resolved.Clear();
        std::exchange(ask->m_resolver, {}).Disconnect();
    }
}

std::size_t ResolveQueue::Running() const
{
    return m_running.size();
}

std::size_t ResolveQueue::Waiting() const
{
    return m_first.size() + m_again.size();
}

bool ResolveQueue::End(const AskPtr& ask)
{
    switch (std::exchange(ask->m_state, Ask::State::ENDED))
    {
    case Ask::State::WAITING:
        std::erase(WaitingOf(ask->order), ask);
        return true;
    case Ask::State::RUNNING:
        std::erase(m_running, ask);
        std::exchange(ask->m_resolver, {}).Disconnect();
        return true;
    case Ask::State::ENDED:
        break;
    }
    return false;
}

bool ResolveQueue::StartNow(const AskPtr& ask)
{
    ask->m_state = Ask::State::RUNNING;
    m_running.push_back(ask);
    const CallbackConnection resolver = m_start(ask);
    if (ask->m_state == Ask::State::ENDED) // answered or cancelled from within the call
    {
        resolver.Disconnect();
        return true;
    }
    if (!resolver.IsConnected())
    {
        End(ask);
        return false;
    }
    ask->m_resolver = resolver;
    return true;
}

std::vector<ResolveQueue::AskPtr> ResolveQueue::StartWaiting()
{
    std::vector<AskPtr> failed;
    if (std::exchange(m_isStarting, true))
    {
        return failed;
    }
    while (m_running.size() < kMaxRunning && Waiting() > 0)
    {
        std::deque<AskPtr>& waiting = m_first.empty() ? m_again : m_first;
        const AskPtr ask = waiting.front();
        waiting.pop_front();
        if (!StartNow(ask))
        {
            failed.push_back(ask);
        }
    }
    m_isStarting = false;
    return failed;
}

void ResolveQueue::CallNotSeen(const std::vector<AskPtr>& failed)
{
    for (const AskPtr& ask : failed)
    {
        const Callback<std::string, Service> resolved = std::exchange(ask->m_resolved, {});
        resolved(kNotSeen, Service{ask->id, {}, {}});
    }
}

std::deque<ResolveQueue::AskPtr>& ResolveQueue::WaitingOf(Order order)
{
    return order == Order::FIRST ? m_first : m_again;
}

} // namespace MDNS
