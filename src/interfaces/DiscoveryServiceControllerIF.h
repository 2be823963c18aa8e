#pragma once

#include <memory>

namespace NetManager::Protobuf
{
class NetworkStatus;
}

namespace SonarixService
{

class SsdpDiscoveryProtocolIF;
class MdnsDiscoveryProtocolIF;

/// The controller as the objects that it owns see it. SetNetworkStatus on the controller's task; the two accessors
/// from any thread, since what they give is fixed with the construction.
class DiscoveryServiceControllerIF
{
public:
    virtual ~DiscoveryServiceControllerIF() = default;

    /// The whole status of the network service; starts or stops discovery at an edge.
    virtual void SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status) = 0;

    /// Empty where an override of its creation wants to do without.
    virtual std::shared_ptr<SsdpDiscoveryProtocolIF> GetSsdpDiscoveryProtocol() = 0;
    virtual std::shared_ptr<MdnsDiscoveryProtocolIF> GetMdnsDiscoveryProtocol() = 0;
};

} // namespace SonarixService
