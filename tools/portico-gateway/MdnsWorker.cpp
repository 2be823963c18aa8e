#include "tools/portico-gateway/MdnsWorker.h"

#include "Mdns/avahi/BackendFactory.h"
#include "Mdns/avahi/MdnsBackendIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/Liveness.h"
#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"

#include <algorithm>
#include <utility>

namespace Gateway
{
namespace
{

constexpr const char* kTypes[] = {"_kova-lanyard._tcp", "_kova-accessory._tcp"};
constexpr const char* kGuidKey = "GUID";

} // namespace

MdnsWorker::MdnsWorker(NotifyTargetTaskIF* task)
    : m_task(task)
    , m_timer("PorticoGatewayMdns", task)
{
}

MdnsWorker::~MdnsWorker() = default;

void MdnsWorker::Find(const std::string& guid, AddressesCallback callback)
{
    TASK_CHECK(m_task);
    if (m_browser == nullptr && MonotonicClock::NowMs() >= m_noBackendUntilMs)
    {
        StartBackend();
    }
    if (m_browser == nullptr || m_queries.size() >= kMaxQueries)
    {
        callback({});
        return;
    }
    const std::int64_t now = MonotonicClock::NowMs();
    Query query{guid, std::move(callback), now + kLimit.count(), {}};
    for (const auto& [id, record] : m_records)
    {
        if (record.guid == guid && now >= record.retryAtMs) // the address may have changed
        {
            query.awaited.insert(id);
        }
    }
    const std::set<MDNS::ServiceId> awaited = query.awaited;
    m_queries.push_back(std::move(query));
    for (const MDNS::ServiceId& id : awaited)
    {
        Queue(id);
    }
    ResolveNext();
    AnswerQueries();
}

void MdnsWorker::Stop()
{
    TASK_CHECK(m_task);
    m_queries.clear();
    m_timer.Cancel();
    DropBackend();
}

void MdnsWorker::StartBackend()
{
    const unsigned int backend = ++m_backend;
    const AsyncCallback<> connected(
        Liveness::Weakly(shared_from_this(), [backend](MdnsWorker& self) { self.HandleConnected(backend); }), m_task);
    const AsyncCallback<> restart(
        Liveness::Weakly(shared_from_this(), [backend](MdnsWorker& self) { self.HandleFailure(backend); }), m_task);
    m_browsingSinceMs = MonotonicClock::NowMs();
    m_browser = MDNS::BrowserFactory::Create(true, false, connected, restart);
    if (m_browser == nullptr)
    {
        m_noBackendUntilMs = m_browsingSinceMs + kBackendPause.count();
    }
}

void MdnsWorker::DropBackend()
{
    ++m_backend;
    for (CallbackConnection& browse : m_browses)
    {
        browse.Disconnect();
    }
    m_browses.clear();
    for (auto& [id, record] : m_records)
    {
        record.resolve.Disconnect();
    }
    m_records.clear();
    m_toResolve.clear();
    m_resolving = 0;
    if (const std::shared_ptr<MDNS::Browser> browser = std::exchange(m_browser, nullptr))
    {
        browser->Stop();
    }
}

void MdnsWorker::HandleConnected(unsigned int backend)
{
    TASK_CHECK(m_task);
    if (backend != m_backend || !m_browses.empty())
    {
        return;
    }
    m_browsingSinceMs = MonotonicClock::NowMs();
    const AsyncCallback<MDNS::ServiceId> added(Liveness::Weakly(shared_from_this(),
                                                                [backend](MdnsWorker& self, const MDNS::ServiceId& id)
                                                                { self.HandleAdded(backend, id); }),
                                               m_task);
    const AsyncCallback<MDNS::ServiceId> removed(Liveness::Weakly(shared_from_this(),
                                                                  [backend](MdnsWorker& self, const MDNS::ServiceId& id)
                                                                  { self.HandleRemoved(backend, id); }),
                                                 m_task);
    for (const char* const type : kTypes)
    {
        m_browses.push_back(m_browser->Browse(type, added, removed));
    }
}

void MdnsWorker::HandleFailure(unsigned int backend)
{
    TASK_CHECK(m_task);
    if (backend != m_backend)
    {
        return;
    }
    DropBackend();
    const std::list<Query> queries = std::exchange(m_queries, {});
    for (const Query& query : queries)
    {
        query.callback({});
    }
}

void MdnsWorker::HandleAdded(unsigned int backend, const MDNS::ServiceId& id)
{
    TASK_CHECK(m_task);
    if (backend != m_backend || (m_records.size() >= kMaxRecords && m_records.count(id) == 0))
    {
        return;
    }
    Queue(id);
    ResolveNext();
}

void MdnsWorker::HandleRemoved(unsigned int backend, const MDNS::ServiceId& id)
{
    TASK_CHECK(m_task);
    const auto found = m_records.find(id);
    if (backend != m_backend || found == m_records.end())
    {
        return;
    }
    found->second.resolve.Disconnect();
    m_resolving -= found->second.isResolving ? 1U : 0U;
    m_records.erase(found);
    for (Query& query : m_queries)
    {
        query.awaited.erase(id);
    }
    ResolveNext();
    AnswerQueries();
}

void MdnsWorker::HandleResolved(unsigned int backend, const MDNS::ServiceId& id, const std::string& host,
                                const MDNS::Service& service)
{
    TASK_CHECK(m_task);
    const auto found = m_records.find(id);
    if (backend != m_backend || found == m_records.end() || !found->second.isResolving)
    {
        return;
    }
    Record& record = found->second;
    record.isResolving = false;
    record.resolve.Disconnect();
    --m_resolving;
    if (host == MDNS::kNotSeen)
    {
        record.retryAtMs = MonotonicClock::NowMs() + kResolvePause.count();
    }
    else
    {
        const auto guid = service.txt.find(kGuidKey);
        record.guid = guid != service.txt.end() ? guid->second : std::string();
        record.address = service.address.ipaddr();
    }
    for (Query& query : m_queries)
    {
        query.awaited.erase(id);
    }
    ResolveNext();
    AnswerQueries();
}

void MdnsWorker::Queue(const MDNS::ServiceId& id)
{
    Record& record = m_records[id];
    if (!record.isQueued && !record.isResolving)
    {
        record.isQueued = true;
        m_toResolve.push_back(id);
    }
}

void MdnsWorker::ResolveNext()
{
    const unsigned int backend = m_backend;
    while (m_resolving < kMaxResolves && !m_toResolve.empty())
    {
        const MDNS::ServiceId id = m_toResolve.front();
        m_toResolve.pop_front();
        const auto found = m_records.find(id);
        if (found == m_records.end() || !found->second.isQueued)
        {
            continue;
        }
        const AsyncCallback<std::string, MDNS::Service> resolved(
            Liveness::Weakly(shared_from_this(),
                             [backend, id](MdnsWorker& self, const std::string& host, const MDNS::Service& service)
                             { self.HandleResolved(backend, id, host, service); }),
            m_task);
        found->second.isQueued = false;
        found->second.isResolving = true;
        ++m_resolving;
        found->second.resolve = m_browser->Resolve(id, resolved);
        if (!found->second.resolve.IsConnected()) // the daemon refused it; the next query tries again
        {
            found->second.isResolving = false;
            --m_resolving;
            std::for_each(m_queries.begin(), m_queries.end(), [&id](Query& each) { each.awaited.erase(id); });
        }
    }
}

bool MdnsWorker::IsReady(const Query& query, std::int64_t now) const
{
    if (now >= query.deadlineMs)
    {
        return true;
    }
    if (!query.awaited.empty())
    {
        return false;
    }
    const bool isSettled = now - m_browsingSinceMs >= kLimit.count() && m_resolving == 0 && m_toResolve.empty();
    return isSettled || !AddressesOf(query.guid).empty();
}

void MdnsWorker::AnswerQueries()
{
    TASK_CHECK(m_task);
    const std::int64_t now = MonotonicClock::NowMs();
    std::int64_t next = 0;
    for (auto query = m_queries.begin(); query != m_queries.end();)
    {
        if (IsReady(*query, now))
        {
            query->callback(AddressesOf(query->guid));
            query = m_queries.erase(query);
            continue;
        }
        next = next == 0 ? query->deadlineMs : std::min(next, query->deadlineMs);
        ++query;
    }
    if (next != 0)
    {
        m_timer.PostIn(static_cast<unsigned int>(next - now), [this] { AnswerQueries(); });
    }
}

std::vector<std::string> MdnsWorker::AddressesOf(const std::string& guid) const
{
    std::vector<std::string> addresses;
    for (const auto& [id, record] : m_records)
    {
        const bool isKnown = std::find(addresses.begin(), addresses.end(), record.address) != addresses.end();
        if (record.guid == guid && !record.address.empty() && !isKnown)
        {
            addresses.push_back(record.address);
        }
    }
    return addresses;
}

} // namespace Gateway
