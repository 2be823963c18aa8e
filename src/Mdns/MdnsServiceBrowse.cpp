// MdnsService: browsing and resolving.
#include "Mdns/MdnsService.h"
#include "Mdns/ServiceTypes.h"
#include "Mdns/TxtKeys.h"
#include "Mdns/avahi/BackendFactory.h"
#include "Mdns/avahi/MdnsBackendIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <algorithm>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsService");

/// Logs all unusable TXT records of a service in one line.
void LogUnusableRecords(const MDNS::Service& s)
{
    if (!s_log.IsLog(DPrint::LEVEL_WARNING))
    {
        return;
    }
    Sonarix::ProductInfo ignored;
    const std::string unusable = GetProductInfoFromService(&ignored, s);
    if (!unusable.empty())
    {
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s of %s: TXT records that cannot be used are left out: %s",
                s.name.c_str(), s.type.c_str(), unusable.c_str());
    }
}

} // namespace

void MdnsService::StartServiceBrowsers()
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "StartServiceBrowsers");
    for (const auto& [type, serviceType] : kServiceTypes)
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() Start Serivce browser: %s ", "StartServiceBrowsers",
                serviceType.c_str());
        const auto sb = std::make_shared<serviceBrowser>();
        sb->type = type;
        sb->serviceType = serviceType;
        CreateBrowser(sb);
        m_browsers.insert_or_assign(type, sb);
    }
    m_reResolveTimer->Stop();
}

void MdnsService::CreateBrowser(const Record& sb)
{
    const auto self = shared_from_this();
    const AsyncCallback<> connected([self, sb] { self->ClientConnected(sb); }, m_task);
    const AsyncCallback<> restart([self, sb] { self->ReconnectClient(sb); }, m_task);
    sb->browser = MDNS::BrowserFactory::Create(m_useBackend, m_forceNone, connected, restart);
}

void MdnsService::ClientConnected(const Record& sb)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s ", "ClientConnected", sb->serviceType.c_str());
    if (!sb->browser || sb->connected)
    {
        return;
    }
    sb->connected = true;
    const auto self = shared_from_this();
    const AsyncCallback<MDNS::ServiceId> added([self, sb](const MDNS::ServiceId& id) { self->Discovered(id, sb); },
                                               m_task);
    const AsyncCallback<MDNS::ServiceId> removed([self, sb](const MDNS::ServiceId& id) { self->Removed(id, sb); },
                                                 m_task);
    sb->browseConnection = sb->browser->Browse(sb->serviceType, added, removed);
}

void MdnsService::Discovered(const MDNS::ServiceId& id, const Record& sb)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s ", "Discovered", sb->serviceType.c_str());
    if (!sb->browser || !sb->connected)
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s not connected !! ", "Discovered",
                sb->serviceType.c_str());
        return;
    }
    ResolverEntry& entry = sb->resolvers[id.name];
    entry.id = id;
    entry.failures = 0;
    if (sb->type == CLOCK)
    {
        RestartReResolveTimer(sb);
    }
    StartResolve(entry, sb);
    CheckServiceCount();
}

void MdnsService::StartResolve(ResolverEntry& entry, const Record& sb)
{
    entry.connection.Disconnect(); // cancels a running resolve of the same name
    entry.resolveNumber = ++m_lastResolveNumber;
    const AsyncCallback<std::string, MDNS::Service> resolved(
        [self = shared_from_this(), sb, number = entry.resolveNumber](
            const std::string& hostname, const MDNS::Service& s) { self->Resolved(hostname, s, sb, number); },
        m_task);
    m_retries.Forget({sb->type, entry.id.name});
    entry.connection =
        entry.failures == 0 ? sb->browser->Resolve(entry.id, resolved) : sb->browser->ResolveAgain(entry.id, resolved);
    if (entry.connection == nullptr)
    {
        ResolveFailed(entry, sb);
    }
    SetRetryTimer();
}

void MdnsService::ResolveFailed(ResolverEntry& entry, const Record& sb)
{
    ++entry.failures;
    m_retries.Plan({sb->type, entry.id.name}, entry.failures, MonotonicClock::NowMs());
}

void MdnsService::RetryDue()
{
    TASK_CHECK(m_task);
    m_retryTimerMs.reset();
    for (const auto& [type, name] : m_retries.TakeDue(MonotonicClock::NowMs()))
    {
        const Record& sb = m_browsers.at(type); // m_retries only holds keys of existing entries
        ResolverEntry& entry = sb->resolvers.at(name);
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s() s.id: %s ServiceType: %s failures: %u", "RetryDue", name.c_str(),
                sb->serviceType.c_str(), entry.failures);
        StartResolve(entry, sb);
    }
    SetRetryTimer();
}

void MdnsService::SetRetryTimer()
{
    const std::optional<std::int64_t> next = m_retries.NextMs();
    if (next == m_retryTimerMs)
    {
        return;
    }
    m_retryTimerMs = next;
    m_retryTimer->Stop();
    if (next)
    {
        const std::int64_t pause = std::max<std::int64_t>(*next - MonotonicClock::NowMs(), 1);
        m_retryTimer->SetTimeouts(static_cast<unsigned int>(pause), 0);
        m_retryTimer->Start([self = shared_from_this()] { self->RetryDue(); });
    }
}

void MdnsService::CheckServiceCount()
{
    std::size_t count = 0;
    for (const auto& [type, sb] : m_browsers)
    {
        count += sb->resolvers.size();
    }
    if (count >= kManyServices && !m_isManyLogged)
    {
        m_isManyLogged = true;
        DPRINTF(s_log, DPrint::LEVEL_WARNING,
                "%zu services are known; avahi-daemon keeps about %zu by default and drops the rest "
                "without a log line: raise cache-entries-max in avahi-daemon.conf, see \"Many products\" in the manual",
                count, kDaemonCacheRecords / kRecordsOfService);
    }
    else if (count < kManyNoMore)
    {
        m_isManyLogged = false;
    }
}

void MdnsService::RestartReResolveTimer(const Record& sb)
{
    m_reResolveTimer->Stop();
    m_reResolveTimer->Start([self = shared_from_this(), sb] { self->ReResolveClock(sb); });
}

void MdnsService::Resolved(const std::string& hostname, const MDNS::Service& s, const Record& sb,
                           std::uint64_t resolveNumber)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() hostname: %s s.id: %s ServiceType: %s ", "Resolved", hostname.c_str(),
            s.name.c_str(), sb->serviceType.c_str());
    const auto resolver = sb->resolvers.find(s.name);
    if (resolver == sb->resolvers.end() || resolver->second.resolveNumber != resolveNumber)
    {
        return; // cancelled while this result was queued
    }
    ResolverEntry& entry = resolver->second;
    const CallbackConnection resolve = entry.connection;
    if (hostname == MDNS::kNotSeen)
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() non-existent device", "Resolved");
        ResolveFailed(entry, sb);
        SetRetryTimer();
        if (!std::exchange(entry.isOfflineSent, true))
        {
            m_productRegistry.Send(s, SonarixPb::OFFLINE, CallbackConnection());
        }
        resolve.Disconnect();
        return;
    }
    entry.failures = 0;
    entry.isOfflineSent = false;
    m_retries.Forget({sb->type, s.name});
    SetRetryTimer();
    const auto [known, isNew] = m_discovered.try_emplace(s.name);
    const bool isChanged = isNew || known->second.txt != s.txt;
    known->second = s;
    if (isChanged)
    {
        LogUnusableRecords(s);
    }
    m_productRegistry.Send(s, SonarixPb::ONLINE, CallbackConnection());
    resolve.Disconnect(); // frees the backend's resolver
}

void MdnsService::ReResolveClock(const Record& sb)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s ", "ReResolveClock", sb->serviceType.c_str());
    for (auto& [name, entry] : sb->resolvers)
    {
        if (name != m_ownClockName)
        {
            StartResolve(entry, sb);
        }
    }
    RestartReResolveTimer(sb);
}

void MdnsService::Removed(const MDNS::ServiceId& id, const Record& sb)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() s.id: %s ServiceType: %s %zu %zu ", "Removed", id.name.c_str(),
            sb->serviceType.c_str(), m_discovered.size(), sb->resolvers.size());
    const auto resolver = sb->resolvers.find(id.name);
    if (resolver != sb->resolvers.end())
    {
        resolver->second.connection.Disconnect();
        sb->resolvers.erase(resolver);
        m_retries.Forget({sb->type, id.name});
        SetRetryTimer();
        CheckServiceCount();
    }
    if (sb->type == CLOCK && sb->resolvers.empty())
    {
        m_reResolveTimer->Stop();
    }
    const auto known = m_discovered.find(id.name);
    if (known == m_discovered.end())
    {
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "No callbacks for removed Service");
        return;
    }
    // The OFFLINE product carries the last known TXT records, because subscribers need the GUID.
    const MDNS::Service service{id, std::move(known->second.address), std::move(known->second.txt)};
    m_productRegistry.Send(service, SonarixPb::OFFLINE, CallbackConnection());
    m_discovered.erase(id.name);
}

void MdnsService::ReconnectClient(const Record& sb)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s ", "ReconnectClient", sb->serviceType.c_str());
    if (m_isStopped) // the backend failed while the stop was queued
    {
        return;
    }
    DisconnectClient(sb);
    sb->browser.reset();
    CreateBrowser(sb);
}

void MdnsService::DisconnectClient(const Record& sb)
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s() ServiceType: %s ", "DisconnectClient", sb->serviceType.c_str());
    if (sb->type == CLOCK)
    {
        m_reResolveTimer->Stop();
    }
    sb->browseConnection.Disconnect();
    sb->browseConnection = {};
    if (sb->browser)
    {
        sb->browser->CancelResolves(); // cancelling them one by one would start waiting ones
    }
    for (const auto& [name, entry] : sb->resolvers)
    {
        entry.connection.Disconnect();
    }
    sb->resolvers.clear();
    m_retries.ForgetType(sb->type);
    SetRetryTimer();
    CheckServiceCount();
    if (sb->browser && sb->connected)
    {
        sb->browser->Stop();
    }
    sb->connected = false;
}

} // namespace SonarixService
