#pragma once

#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"
#include "schemas/SonarixPb.pb.h" // an enumeration of a schema cannot be declared ahead

#include <memory>

namespace SonarixService
{

/// One connected client of either local service. On the server's task, but for SendSonarixNotification() and
/// Shutdown(), which may be called from any thread.
class DiscoveryServiceIPCClientHandlerIF
{
public:
    virtual ~DiscoveryServiceIPCClientHandlerIF() = default;

    /// Begins to serve the client. Once.
    virtual void Initialize() = 0;
    /// Ends the connection, on the server's task, later.
    virtual void Shutdown() = 0;
    /// `callback` is called once, when the client has gone or was shut down.
    virtual CallbackConnection RegisterForDisconnect(const Callback<void>& callback) = 0;
    /// Tells the client of a device, whatever it has asked for.
    virtual void SendSonarixNotification(SonarixPb::DeviceState state,
                                         const std::shared_ptr<SonarixPb::DeviceInfo>& device) = 0;
};

} // namespace SonarixService
