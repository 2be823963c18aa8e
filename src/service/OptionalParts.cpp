#include "service/OptionalParts.h"

#include "ipc/DiscoveryServiceIPCServer.h"
#include "ssdp/SsdpDiscoveryProtocol.h"

#include <atomic>

namespace SonarixService::OptionalParts
{

namespace
{

std::atomic<SsdpFactory> s_ssdpFactory{nullptr};
std::atomic<IPCServerFactory> s_ipcServerFactory{nullptr};

} // namespace

std::shared_ptr<SsdpDiscoveryProtocolIF> CreateSsdpDiscoveryProtocol()
{
    const SsdpFactory factory = s_ssdpFactory.load();
    return factory != nullptr ? factory() : std::make_shared<SsdpDiscoveryProtocol>();
}

std::shared_ptr<DiscoveryServiceIPCServerIF>
CreateIPCServer(const std::shared_ptr<DiscoveryServiceControllerIF>& controller)
{
    const IPCServerFactory factory = s_ipcServerFactory.load();
    return factory != nullptr ? factory(controller) : std::make_shared<DiscoveryServiceIPCServer>(controller);
}

void SetSsdpFactoryOverride(SsdpFactory factory)
{
    s_ssdpFactory = factory;
}

void SetIPCServerFactoryOverride(IPCServerFactory factory)
{
    s_ipcServerFactory = factory;
}

} // namespace SonarixService::OptionalParts
