#include "Mdns/PublisherFactory.h"

#include "Mdns/NonePublisher.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "runtime/DPrint.h"

#include <atomic>
#include <utility>

namespace MDNS::PublisherFactory
{

namespace
{

const DPrint s_log("mDNS");
std::atomic<detail::PublisherFactoryIF*> s_override{nullptr};

} // namespace

std::shared_ptr<Publisher> Create(bool useBackend, bool forceNone, Callback<> connected, Callback<> restart)
{
    if (detail::PublisherFactoryIF* const factory = s_override.load())
    {
        return factory->Create(useBackend, forceNone, std::move(connected), std::move(restart));
    }
    if (useBackend && !forceNone)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Publishing will use Avahi");
        return AvahiImpl::Create(std::move(connected), std::move(restart));
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Publishing is disabled");
    return std::make_shared<NonePublisher>();
}

void SetOverride(detail::PublisherFactoryIF* factory)
{
    s_override = factory;
}

} // namespace MDNS::PublisherFactory
