#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "schemas/SonarixPb.pb.h" // protobuf enums cannot be forward-declared

#include <memory>

namespace SonarixService
{

/// One connected client of a local service.
/// Task: the server's. SendSonarixNotification() and Shutdown() may be called from any thread.
class DiscoveryServiceIPCClientHandlerIF
{
public:
    virtual ~DiscoveryServiceIPCClientHandlerIF() = default;

    /// Starts to serve the client. Called once.
    virtual void Initialize() = 0;
    /// Posts the end of the connection to the server's task.
    virtual void Shutdown() = 0;
    /// `callback` is called once, when the client disconnects or after Shutdown().
    virtual CallbackConnection RegisterForDisconnect(const Callback<void>& callback) = 0;
    /// Sends a device notification, regardless of the client's subscriptions.
    virtual void SendSonarixNotification(SonarixPb::DeviceState state,
                                         const std::shared_ptr<SonarixPb::DeviceInfo>& device) = 0;
};

} // namespace SonarixService
