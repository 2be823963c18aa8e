#include "ssdp/GSSDPHandlerFactory.h"

#include "ssdp/GSSDPHandler.h"

#include <atomic>

namespace SonarixService::GSSDPHandlerFactory
{

namespace
{

std::atomic<detail::GSSDPHandlerFactoryIF*> s_override{nullptr};

} // namespace

std::shared_ptr<GSSDPHandlerIF> Create(const std::string& iface)
{
    if (detail::GSSDPHandlerFactoryIF* const factory = s_override.load())
    {
        return factory->Create(iface);
    }
    return std::make_shared<GSSDPHandler>(iface.c_str());
}

void SetOverride(detail::GSSDPHandlerFactoryIF* factory)
{
    s_override = factory;
}

} // namespace SonarixService::GSSDPHandlerFactory
