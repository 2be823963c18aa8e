#pragma once

#include "schemas/SonarixPb.pb.h" // an enumeration of a schema cannot be declared ahead

#include <memory>

namespace SonarixService
{

/// The local socket services, as the controller sees them.
class DiscoveryServiceIPCServerIF
{
public:
    virtual ~DiscoveryServiceIPCServerIF() = default;
    virtual void Initialize() = 0;
    virtual void Shutdown() = 0;
    virtual void SendSonarixNotification(SonarixPb::DeviceState state,
                                         const std::shared_ptr<SonarixPb::DeviceInfo>& device) = 0;
};

} // namespace SonarixService
