#include "Mdns/MdnsServiceFactory.h"

#include "Mdns/MdnsService.h"

#include <atomic>

namespace SonarixService::MdnsServiceFactory
{

namespace
{

std::atomic<detail::MdnsServiceFactoryIF*> s_override{nullptr};

} // namespace

std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone)
{
    if (detail::MdnsServiceFactoryIF* const factory = s_override.load())
    {
        return factory->Create(task, useBackend, forceNone);
    }
    const auto service = std::make_shared<MdnsService>(task, useBackend, forceNone);
    service->StartService();
    return service;
}

void SetOverride(detail::MdnsServiceFactoryIF* factory)
{
    s_override = factory;
}

} // namespace SonarixService::MdnsServiceFactory
