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

} // namespace MDNS
