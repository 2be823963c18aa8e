#include "Mdns/avahi/BackendFactory.h"

#include "Mdns/avahi/AvahiImpl.h"
#include "Mdns/avahi/NoneBrowser.h"
#include "Mdns/avahi/NonePublisher.h"
#include "runtime/DPrint.h"

#include <utility>

namespace MDNS
{

namespace
{

const DPrint s_log("mDNS");

template <class Backend, class NoneBackend>
std::shared_ptr<Backend> CreateBackend(detail::BackendFactoryIF<Backend>* factory, const char* activity,
                                       bool useBackend, bool forceNone, Callback<> connected, Callback<> restart)
{
    if (factory != nullptr)
    {
        return factory->Create(useBackend, forceNone, std::move(connected), std::move(restart));
    }
    if (useBackend && !forceNone)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s will use Avahi", activity);
        return AvahiImpl::Create(std::move(connected), std::move(restart));
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s is disabled", activity);
    return std::make_shared<NoneBackend>();
}

} // namespace

std::shared_ptr<Browser> BrowserFactory::Create(bool useBackend, bool forceNone, Callback<> connected,
                                                Callback<> restart)
{
    return CreateBackend<Browser, NoneBrowser>(s_factoryOverride.Get(), "Browsing", useBackend, forceNone,
                                               std::move(connected), std::move(restart));
}

std::shared_ptr<Publisher> PublisherFactory::Create(bool useBackend, bool forceNone, Callback<> connected,
                                                    Callback<> restart)
{
    return CreateBackend<Publisher, NonePublisher>(s_factoryOverride.Get(), "Publishing", useBackend, forceNone,
                                                   std::move(connected), std::move(restart));
}

} // namespace MDNS
