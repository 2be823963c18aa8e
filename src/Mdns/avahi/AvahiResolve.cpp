// AvahiImpl: resolving.
#include "Mdns/avahi/AvahiCallbackAdapter.h"
#include "Mdns/avahi/AvahiConvert.h"
#include "Mdns/avahi/AvahiErrorLine.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "Mdns/avahi/CleanupConnection.h"

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

CallbackConnection AvahiImpl::Resolve(ServiceId id, Callback<std::string, Service> resolved)
{
    return QueueResolve(std::move(id), std::move(resolved), ResolveQueue::Attempt::FIRST);
}

CallbackConnection AvahiImpl::ResolveAgain(ServiceId id, Callback<std::string, Service> resolved)
{
    return QueueResolve(std::move(id), std::move(resolved), ResolveQueue::Attempt::RETRY);
}

CallbackConnection AvahiImpl::QueueResolve(ServiceId id, Callback<std::string, Service> resolved,
                                           ResolveQueue::Attempt attempt)
{
    if (!IsUtf8(id))
    {
        AVAHI_ERROR_LINE(s_log, "avahi_service_resolver_new", AVAHI_ERR_INVALID_SERVICE_NAME);
        return {};
    }
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    const ResolveQueue::RequestPtr request = m_resolves.Add(std::move(id), std::move(resolved), attempt);
    if (!request)
    {
        return {};
    }
    return MakeCleanupConnection(
        [self = shared_from_this(), request]
        {
            const AvahiPollThread::Lock cleanupLock(self->m_pollThread, self->m_poll);
            self->m_resolves.Cancel(request);
        });
}

void AvahiImpl::CancelResolves()
{
    const AvahiPollThread::Lock lock(m_pollThread, m_poll);
    m_resolves.CancelAll();
}

CallbackConnection AvahiImpl::StartResolver(const ResolveQueue::RequestPtr& request)
{
    m_pollThread.CheckLocked(__func__);
    auto [resolver, connection] = detail::AdapterOf<AvahiServiceResolverCallback>::Create(
        [self = shared_from_this(), request](AvahiServiceResolver* sender, AvahiIfIndex interface, proto_cvtr protocol,
                                             AvahiResolverEvent event, nullable_str name, nullable_str type,
                                             nullable_str domain, nullable_str host, const AvahiAddress* address,
                                             std::uint16_t port, AvahiStringList* txt, AvahiLookupResultFlags)
        {
            self->ResolveResult(request, sender, event, host, AddrInfoFromAvahi(address, port),
                                {{interface, protocol, name, type, domain}, {}, TxtFromStringList(txt)});
        },
        [this, &id = request->id](AvahiServiceResolverCallback callback, void* userData)
        {
            return avahi_service_resolver_new(m_client, id.interface, AvahiFromProtocol(id.protocol), id.name.c_str(),
                                              id.type.c_str(), id.domain.c_str(), AVAHI_PROTO_INET, AvahiLookupFlags{},
                                              callback, userData);
        });
    if (resolver == nullptr)
    {
        const int error = avahi_client_errno(m_client);
        AVAHI_ERROR_LINE(s_log, "avahi_service_resolver_new", error);
        if (error == AVAHI_ERR_TOO_MANY_OBJECTS && !std::exchange(m_isLimitLogged, true))
        {
            DPRINTF(s_log, DPrint::LEVEL_WARNING,
                    "avahi-daemon allows this client no more objects, so products are found late or not at all: raise "
                    "objects-per-client-max in avahi-daemon.conf, see \"Many products\" in the manual");
        }
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

void AvahiImpl::ResolveResult(const ResolveQueue::RequestPtr& request, AvahiServiceResolver* resolver, int event,
                              const std::string& host, const Network::AddrInfo& address, Service service)
{
    m_pollThread.InCallback();
    switch (event)
    {
    case AVAHI_RESOLVER_FAILURE: // after 5 s without a response (timeout of the daemon)
        DPRINTF(s_log, request->attempt == ResolveQueue::Attempt::FIRST ? DPrint::LEVEL_ERROR : DPrint::LEVEL_DEBUG,
                "ResolveResult failed for {%s, %s, %s}: %s at %s line %d", service.name.c_str(), service.type.c_str(),
                service.domain.c_str(), avahi_strerror(avahi_client_errno(avahi_service_resolver_get_client(resolver))),
                __FILE_NAME__, __LINE__);
        service.txt.clear();
        m_resolves.Answer(request, kNotSeen, service);
        break;
    case AVAHI_RESOLVER_FOUND:
        if (!avahi_is_valid_service_type_strict(service.type.c_str()))
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "Resolved service \"%s\" with unknown service type: %s, %s (%s)",
                    service.name.c_str(), service.type.c_str(), service.domain.c_str(),
                    Network::IpAddress(address, Network::IpAddress::Family::STREAM).ToString().c_str());
            m_resolves.Cancel(request);
            return;
        }
        service.address = Network::IpAddress(address, FamilyFromType(service.type));
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Resolved service: %s, %s, %s, %s (%s)", service.name.c_str(),
                service.type.c_str(), service.domain.c_str(), host.c_str(), service.address.ToString().c_str());
        m_resolves.Answer(request, host, service);
        break;
    default:
        break;
    }
}

} // namespace MDNS
