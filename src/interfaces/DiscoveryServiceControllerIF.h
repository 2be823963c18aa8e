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

/// The controller's interface for the objects that it owns.
/// Task: SetNetworkStatus() runs on the controller's task. The two accessors are safe from any thread: their results
/// never change.
class DiscoveryServiceControllerIF
{
public:
    virtual ~DiscoveryServiceControllerIF() = default;

    /// Replaces the last status of the network service. Starts or stops discovery at an edge.
    virtual void SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status) = 0;

    /// Both accessors return null if a factory override returned null.
    virtual std::shared_ptr<SsdpDiscoveryProtocolIF> GetSsdpDiscoveryProtocol() = 0;
    virtual std::shared_ptr<MdnsDiscoveryProtocolIF> GetMdnsDiscoveryProtocol() = 0;
};

} // namespace SonarixService
