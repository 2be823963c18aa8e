#pragma once

#include "interfaces/DiscoveryServiceIPCServerIF.h"
#include "ipc/DiscoveryServiceIPCClientHandlerIF.h"
#include "ipc/IPCServerListenerIF.h"
#include "runtime/FactoryOverride.h"
#include "runtime/ThreadMutex.h"

#include <list>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

class DiscoveryServiceControllerIF;

/// The two local services, "SonarixMdnsService" and "SonarixSsdpService": their listeners and connected clients.
/// Task: its own, "DiscoveryServiceIPCServerTask", accepts and serves all clients. The public operations run on the
/// caller's thread.
/// Owner: the controller. The two hold each other by shared pointers.
/// Blocks only in Shutdown(), until its task has ended. If a socket cannot be bound, that service has no clients.
class DiscoveryServiceIPCServer final : public DiscoveryServiceIPCServerIF,
                                        public std::enable_shared_from_this<DiscoveryServiceIPCServer>
{
public:
    using Factory =
        std::shared_ptr<DiscoveryServiceIPCServerIF> (*)(const std::shared_ptr<DiscoveryServiceControllerIF>&);

    static inline FactoryOverride<Factory> s_factoryOverride;

    /// Returns null if the factory override returns null: callers must test the result.
    static std::shared_ptr<DiscoveryServiceIPCServerIF>
    Create(const std::shared_ptr<DiscoveryServiceControllerIF>& controller);

    explicit DiscoveryServiceIPCServer(const std::shared_ptr<DiscoveryServiceControllerIF>& controller);
    ~DiscoveryServiceIPCServer() override;
    DiscoveryServiceIPCServer(const DiscoveryServiceIPCServer&) = delete;
    DiscoveryServiceIPCServer& operator=(const DiscoveryServiceIPCServer&) = delete;

    /// Binds the sockets. Called once.
    void Initialize() override;
    /// Disconnects all clients and joins the task. Called once, not on that task.
    void Shutdown() override;
    /// Sends a device notification to all clients of both services. Any thread.
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
    CThreadMutex m_clientsMutex; ///< guards the following members; never held during a call into a client
    std::list<Handler> m_clients;
    bool m_isShutDown = false;
};

} // namespace SonarixService
