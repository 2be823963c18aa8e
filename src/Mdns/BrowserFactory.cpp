#include "Mdns/BrowserFactory.h"

#include "Mdns/NoneBrowser.h"
#include "Mdns/avahi/AvahiImpl.h"
#include "runtime/DPrint.h"

#include <atomic>
#include <utility>

namespace MDNS::BrowserFactory
{

namespace
{

const DPrint s_log("mDNS");
std::atomic<detail::BrowserFactoryIF*> s_override{nullptr};

} // namespace

std::shared_ptr<Browser> Create(bool useBackend, bool forceNone, Callback<> connected, Callback<> restart)
{
    if (detail::BrowserFactoryIF* const factory = s_override.load())
    {
        return factory->Create(useBackend, forceNone, std::move(connected), std::move(restart));
    }
    if (useBackend && !forceNone)
    {
        DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Browsing will use Avahi");
        return AvahiImpl::Create(std::move(connected), std::move(restart));
    }
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Browsing is disabled");
    return std::make_shared<NoneBrowser>();
}

void SetOverride(detail::BrowserFactoryIF* factory)
{
    s_override = factory;
}

} // namespace MDNS::BrowserFactory
