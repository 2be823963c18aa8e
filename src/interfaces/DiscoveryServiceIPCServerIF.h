#pragma once

#include "schemas/SonarixPb.pb.h" // enumerations of a schema have no forward declaration

#include <memory>

namespace SonarixService
{

/// The server of the local sockets. Used by the controller.
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
