#include "AvahiCallbackAdapter.h"
#include "AvahiConvert.h"
#include "AvahiErrorLine.h"
#include "AvahiImpl.h"
#include "CleanupConnection.h"

#include <avahi-client/client.h>
#include <avahi-client/lookup.h>
#include <avahi-common/domain.h>

#include <utility>

namespace MDNS
{

namespace
{

const DPrint s_log("mDNS");

} // namespace

CallbackConnection AvahiImpl::Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed)
{
    if (!IsText({-1, Protocol::UNSPEC, {}, type, {}}))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_browser_new", AVAHI_ERR_INVALID_SERVICE_TYPE);
        return {};
    }
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    auto [browser, connection] = detail::AdapterOf<AvahiServiceBrowserCallback>::Create(
        [self = shared_from_this(), added = std::move(added), removed = std::move(removed)](
            AvahiServiceBrowser*, AvahiIfIndex interface, proto_cvtr protocol, AvahiBrowserEvent event,
            nullable_str name, nullable_str serviceType, nullable_str domain, AvahiLookupResultFlags) {
            self->BrowseResult(added, removed, event, {interface, protocol, name, serviceType, domain});
        },
        [this, &type](AvahiServiceBrowserCallback callback, void* userData)
        {
            return avahi_service_browser_new(m_client, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, type.c_str(), nullptr,
                                             AvahiLookupFlags{}, callback, userData);
        });
    if (browser == nullptr)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_browser_new", avahi_client_errno(m_client));
        return {};
    }
    return MakeCleanupConnection(
        [self = shared_from_this(), handle = browser]
        {
            const AvahiPollThread::Lock cleanupLock(self->m_pollThread, self->m_poll);
            const int result = avahi_service_browser_free(handle);
            if (result < 0)
            {
                AVAHI_ERROR_LINE(s_log, "avahi_service_browser_free", result);
            }
        },
        connection);
}

void AvahiImpl::BrowseResult(const Callback<ServiceId>& added, const Callback<ServiceId>& removed, int event,
                             const ServiceId& id)
{
    m_pollThread.InCallback();
    switch (event)
    {
    case AVAHI_BROWSER_NEW:
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Got service: %s, %s, %s", id.name.c_str(), id.type.c_str(),
                id.domain.c_str());
        added(id);
        break;
    case AVAHI_BROWSER_REMOVE:
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "bye bye: %s, %s, %s", id.name.c_str(), id.type.c_str(), id.domain.c_str());
        removed(id);
        break;
    case AVAHI_BROWSER_CACHE_EXHAUSTED:
        DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "CACHE EXHAUSTED");
        break;
    case AVAHI_BROWSER_ALL_FOR_NOW:
        DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "All for now");
        break;
    case AVAHI_BROWSER_FAILURE:
        AVAHI_ERROR_LINE(s_log, "BrowseResult", avahi_client_errno(m_client));
        m_restart();
        break;
    default:
        break;
    }
}

CallbackConnection AvahiImpl::Resolve(ServiceId id, Callback<std::string, Service> resolved)
{
    if (!IsText(id))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
        return {};
    }
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    auto [resolver, connection] = detail::AdapterOf<AvahiServiceResolverCallback>::Create(
        [self = shared_from_this(), resolved = std::move(resolved)](
            AvahiServiceResolver* sender, AvahiIfIndex interface, proto_cvtr protocol, AvahiResolverEvent event,
            nullable_str name, nullable_str type, nullable_str domain, nullable_str host, const AvahiAddress* address,
            std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags)
        {
            self->ResolveResult(resolved, sender, event, host, ToAddrInfo(address, port),
                                {{interface, protocol, name, type, domain}, {}, ToTxtMap(txt)});
        },
        [this, &id](AvahiServiceResolverCallback callback, void* userData)
        {
            return avahi_service_resolver_new(m_client, id.interface, ToAvahi(id.protocol), id.name.c_str(),
                                              id.type.c_str(), id.domain.c_str(), AVAHI_PROTO_INET, AvahiLookupFlags{},
                                              callback, userData);
        });
    if (resolver == nullptr)
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_resolver_new", avahi_client_errno(m_client));
        return {};
    }
    return MakeCleanupConnection(
        [self = shared_from_this(), handle = resolver]
        {
            const AvahiPollThread::Lock cleanupLock(self->m_pollThread, self->m_poll);
            const int result = avahi_service_resolver_free(handle);
            if (result < 0)
            {
                AVAHI_ERROR_LINE(s_log, "avahi_service_resolver_free", result);
            }
        },
        connection);
}

void AvahiImpl::ResolveResult(const Callback<std::string, Service>& resolved, AvahiServiceResolver* resolver, int event,
                              const std::string& host, const Network::AddrInfo& address, Service service)
{
    m_pollThread.InCallback();
    switch (event)
    {
    case AVAHI_RESOLVER_FAILURE:
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "ResolveResult failed for {%s, %s, %s}: %s at %s line %d",
                service.name.c_str(), service.type.c_str(), service.domain.c_str(),
                avahi_strerror(avahi_client_errno(avahi_service_resolver_get_client(resolver))), __FILE_NAME__,
                __LINE__);
        service.txt.clear();
        resolved(kNotSeen, service);
        break;
    case AVAHI_RESOLVER_FOUND:
        if (!avahi_is_valid_service_type_strict(service.type.c_str()))
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "Resolved service \"%s\" with unknown service type: %s, %s (%s)",
                    service.name.c_str(), service.type.c_str(), service.domain.c_str(),
                    Network::IpAddress(address, Network::IpAddress::Family::STREAM).ToString().c_str());
            return;
        }
        service.address = Network::IpAddress(address, FamilyOfType(service.type));
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Resolved service: %s, %s, %s, %s (%s)", service.name.c_str(),
                service.type.c_str(), service.domain.c_str(), host.c_str(), service.address.ToString().c_str());
        resolved(host, service);
        break;
    default:
        break;
    }
}

} // namespace MDNS
