#pragma once

#include "ipc/IPCClientHandler.h"

namespace SonarixPb
{
class DiscoveredDeviceList;
}

namespace SonarixService
{

class SsdpDiscoveryProtocolIF;

/// One client of "SonarixSsdpService": lists the devices that SSDP has found, and sends each report, unfiltered.
/// Task: the server's, device reports included. SendSonarixNotification() and Shutdown() may be called from any thread.
/// Owner: the server, and the callbacks that the handler has registered.
/// Never blocks, except on the mutex of SSDP's table while a list is copied.
class SsdpIPCClientHandler final : public IPCClientHandler
{
public:
    /// `name` is the log channel. If `protocol` is null, list requests are answered with an error.
    SsdpIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                         std::shared_ptr<Network::ConnectorSocket> socket,
                         const std::shared_ptr<SsdpDiscoveryProtocolIF>& protocol);
    ~SsdpIPCClientHandler() override;

    CallbackConnection RegisterForDisconnect(const Callback<void>& callback) override;
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

private:
    void LogEntry(const char* operation) const override;
    void Subscribe(IPCMessageRouterIF& router) override;
    void HandleDiscoveredDeviceListRequest(const SonarixPb::DiscoveredDeviceList& request, unsigned int tid);
    void HandleDeviceUpdate(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device);

    const std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol;
};

} // namespace SonarixService
