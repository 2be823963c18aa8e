#pragma once

#include <memory>

namespace SonarixService
{

class DiscoveryServiceControllerIF;
class DiscoveryServiceIPCServerIF;
class SsdpDiscoveryProtocolIF;

/// The creation functions of SSDP discovery and of the local socket server. Either pointer may be empty, and whoever
/// holds one tests it at every use: an override may want to do without. Safe from any thread.
namespace OptionalParts
{

using SsdpFactory = std::shared_ptr<SsdpDiscoveryProtocolIF> (*)();
using IPCServerFactory =
    std::shared_ptr<DiscoveryServiceIPCServerIF> (*)(const std::shared_ptr<DiscoveryServiceControllerIF>& controller);

std::shared_ptr<SsdpDiscoveryProtocolIF> CreateSsdpDiscoveryProtocol();
std::shared_ptr<DiscoveryServiceIPCServerIF>
CreateIPCServer(const std::shared_ptr<DiscoveryServiceControllerIF>& controller);

void SetSsdpFactoryOverride(SsdpFactory factory);           ///< null in the product
void SetIPCServerFactoryOverride(IPCServerFactory factory); ///< null in the product

} // namespace OptionalParts

} // namespace SonarixService
