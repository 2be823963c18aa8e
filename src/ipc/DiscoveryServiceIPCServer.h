#pragma once

#include "interfaces/DiscoveryServiceIPCServerIF.h"
#include "ipc/DiscoveryServiceIPCClientHandlerIF.h"
#include "ipc/IPCServerListenerIF.h"
#include "runtime/ThreadMutex.h"

#include <list>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

class DiscoveryServiceControllerIF;

/// The two local services, "SonarixMdnsService" and "SonarixSsdpService": listeners, and the clients that they brought.
/// Task: its own, "DiscoveryServiceIPCServerTask", for accepting and for all clients; operations run on the caller's.
/// Owner: the controller, which it holds strongly in turn.
/// Waits in Shutdown() only, for its task. A service whose socket cannot be bound has no clients, and the rest goes on.
class DiscoveryServiceIPCServer final : public DiscoveryServiceIPCServerIF,
                                        public std::enable_shared_from_this<DiscoveryServiceIPCServer>
{
public:
    explicit DiscoveryServiceIPCServer(const std::shared_ptr<DiscoveryServiceControllerIF>& controller);
    ~DiscoveryServiceIPCServer() override;
    DiscoveryServiceIPCServer(const DiscoveryServiceIPCServer&) = delete;
    DiscoveryServiceIPCServer& operator=(const DiscoveryServiceIPCServer&) = delete;

    /// Listens. Once.
    void Initialize() override;
    /// Disconnects all clients and ends the task. Not on that task. Once.
    void Shutdown() override;
    /// Tells every client of both services, from any thread.
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

private:
    using Handler = std::shared_ptr<DiscoveryServiceIPCClientHandlerIF>;
    using Listener = IPCServerListenerIF<DiscoveryServiceIPCClientHandlerIF>;

    Handler CreateMdnsClientHandler(const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket);
    Handler CreateSsdpClientHandler(const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket);
    void HandleNewClient(const Handler& handler);
    void RemoveClient(const Handler& handler);

    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<DiscoveryServiceControllerIF> m_controller;
    const std::shared_ptr<Listener> m_mdnsListener;
    const std::shared_ptr<Listener> m_ssdpListener;
    CThreadMutex m_clientsMutex; ///< guards what follows, for copies
    std::list<Handler> m_clients;
    bool m_isShutDown = false;
};

} // namespace SonarixService
