#include "Mdns/avahi/ResolveQueue.h"

#include "Mdns/avahi/MdnsBackendIF.h"

#include <utility>

namespace MDNS
{

ResolveQueue::Request::Request(ServiceId serviceId, Callback<std::string, Service> resolved, Attempt whichAttempt)
    : id(std::move(serviceId))
    , attempt(whichAttempt)
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

ResolveQueue::RequestPtr ResolveQueue::Add(ServiceId id, Callback<std::string, Service> resolved, Attempt attempt)
{
    auto request = std::make_shared<Request>(std::move(id), std::move(resolved), attempt);
    if (m_running.size() < kMaxRunning && Waiting() == 0)
    {
        return StartNow(request) ? request : nullptr;
    }
    WaitingOf(attempt).push_back(request);
    return request;
}

void ResolveQueue::Answer(const RequestPtr& request, const std::string& host, const Service& service)
{
    if (!End(request))
    {
        return;
    }
    const Callback<std::string, Service> resolved = std::exchange(request->m_resolved, {});
    const std::vector<RequestPtr> failed = StartWaiting();
    resolved(host, service);
    CallNotSeen(failed);
}

void ResolveQueue::Cancel(const RequestPtr& request)
{
    request->m_resolved.Clear(); // its start may have failed, with CallNotSeen() still to come
    if (End(request))
    {
        CallNotSeen(StartWaiting());
    }
}

void ResolveQueue::CancelAll()
{
    std::vector<RequestPtr> ending = std::exchange(m_running, {});
    for (std::deque<RequestPtr>* const waiting : {&m_firstAttempts, &m_retries})
    {
        ending.insert(ending.end(), waiting->begin(), waiting->end());
        waiting->clear();
    }
    for (const RequestPtr& request : ending)
    {
        request->m_state = Request::State::ENDED;
        request->m_resolved.Clear();
        std::exchange(request->m_resolver, {}).Disconnect();
    }
}

std::size_t ResolveQueue::Running() const
{
    return m_running.size();
}

std::size_t ResolveQueue::Waiting() const
{
    return m_firstAttempts.size() + m_retries.size();
}

bool ResolveQueue::End(const RequestPtr& request)
{
    switch (std::exchange(request->m_state, Request::State::ENDED))
    {
    case Request::State::WAITING:
        std::erase(WaitingOf(request->attempt), request);
        return true;
    case Request::State::RUNNING:
        std::erase(m_running, request);
        std::exchange(request->m_resolver, {}).Disconnect();
        return true;
    case Request::State::ENDED:
        break;
    }
    return false;
}

bool ResolveQueue::StartNow(const RequestPtr& request)
{
    request->m_state = Request::State::RUNNING;
    m_running.push_back(request);
    const CallbackConnection resolver = m_start(request);
    if (request->m_state == Request::State::ENDED) // m_start has answered or cancelled it
    {
        resolver.Disconnect();
        return true;
    }
    if (!resolver.IsConnected())
    {
        End(request);
        return false;
    }
    request->m_resolver = resolver;
    return true;
}

std::vector<ResolveQueue::RequestPtr> ResolveQueue::StartWaiting()
{
    std::vector<RequestPtr> failed;
    if (std::exchange(m_isStarting, true))
    {
        return failed;
    }
    while (m_running.size() < kMaxRunning && Waiting() > 0)
    {
        std::deque<RequestPtr>& waiting = m_firstAttempts.empty() ? m_retries : m_firstAttempts;
        const RequestPtr request = waiting.front();
        waiting.pop_front();
        if (!StartNow(request))
        {
            failed.push_back(request);
        }
    }
    m_isStarting = false;
    return failed;
}

void ResolveQueue::CallNotSeen(const std::vector<RequestPtr>& failed)
{
    for (const RequestPtr& request : failed)
    {
        const Callback<std::string, Service> resolved = std::exchange(request->m_resolved, {});
        resolved(kNotSeen, Service{request->id, {}, {}});
    }
}

std::deque<ResolveQueue::RequestPtr>& ResolveQueue::WaitingOf(Attempt attempt)
{
    return attempt == Attempt::FIRST ? m_firstAttempts : m_retries;
}

} // namespace MDNS
