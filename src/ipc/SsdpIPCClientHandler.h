#pragma once

#include "ipc/DiscoveryServiceIPCClientHandlerIF.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/DPrint.h"
#include "runtime/ThreadMutex.h"

#include <memory>
#include <string>

class IPCMessageRouterIF;
class NotifyTargetTaskIF;

namespace Network
{
class ConnectorSocket;
}

namespace SonarixPb
{
class DiscoveredDeviceList;
}

namespace SonarixService
{

class SsdpDiscoveryProtocolIF;

/// One client of "SonarixSsdpService": reads the list of devices and is told of each change, unfiltered.
/// Task: the server's, device reports too.
/// Owner: the server, and what is on its way to it.
/// Never waits, but for the list of devices, which is copied under the table's mutex.
class SsdpIPCClientHandler final : public DiscoveryServiceIPCClientHandlerIF,
                                   public std::enable_shared_from_this<SsdpIPCClientHandler>
{
public:
    /// `name` is its log channel. `protocol` may be empty: then lists are answered with an error.
    SsdpIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                         std::shared_ptr<Network::ConnectorSocket> socket,
                         const std::shared_ptr<SsdpDiscoveryProtocolIF>& protocol);
    ~SsdpIPCClientHandler() override;
    SsdpIPCClientHandler(const SsdpIPCClientHandler&) = delete;
    SsdpIPCClientHandler& operator=(const SsdpIPCClientHandler&) = delete;

    void Initialize() override;
    void Shutdown() override;
    CallbackConnection RegisterForDisconnect(const Callback<void>& callback) override;
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

private:
    void HandleDiscoveredDeviceListRequest(const SonarixPb::DiscoveredDeviceList& request, unsigned int tid);
    void HandleDeviceUpdate(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device);
    void HandleDisconnect();
    void Notify(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device);
    std::shared_ptr<IPCMessageRouterIF> Router();

    const DPrint m_log;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<Network::ConnectorSocket> m_socket; ///< until Initialize()
    const std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol;
    CallbackRegistry<> m_disconnectRegistry;
    CallbackConnection m_productStateConnection;
    CThreadMutex m_mutex;                         ///< guards what follows
    std::shared_ptr<IPCMessageRouterIF> m_router; ///< empty before Initialize() and after the disconnect
};

} // namespace SonarixService
