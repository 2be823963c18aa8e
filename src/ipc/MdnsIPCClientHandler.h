#pragma once

#include "ipc/IPCClientHandler.h"

#include <cstddef>
#include <deque>
#include <list>
#include <optional>
#include <utility>
#include <vector>

namespace Sonarix
{
class Product;
}

namespace SonarixService
{

class MdnsDiscoveryProtocolIF;

/// One client of "SonarixMdnsService": lists the devices of a service type, publishes and removes service records, and
/// sends reports of the service types that the client has added or announced.
/// Task: the server's. HandleDeviceUpdate() runs on the mDNS task and sends from there; SendSonarixNotification() and
/// Shutdown() may be called from any thread.
/// Owner: the server, and the callbacks that the handler has registered.
/// Never blocks. Stores the client's records, one per service type, and adds them again when mDNS restarts. A
/// disconnect does not remove the records from the network.
class MdnsIPCClientHandler final : public IPCClientHandler
{
public:
    /// `name` is the log channel. If `protocol` is null, list and add requests are answered with an error.
    MdnsIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                         std::shared_ptr<Network::ConnectorSocket> socket,
                         const std::shared_ptr<MdnsDiscoveryProtocolIF>& protocol);
    ~MdnsIPCClientHandler() override;

    CallbackConnection RegisterForDisconnect(const Callback<void>& callback) override;
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

    /// A list may have hundreds of KiB. At most kMaxRunningLists are requested from mDNS at a time, and further list
    /// requests are queued. A client with more than kMaxQueuedLists does not wait for its responses: it is
    /// disconnected.
    static constexpr std::size_t kMaxRunningLists = 4;
    static constexpr std::size_t kMaxQueuedLists = 1000;

    /// Removes the client's records from the network. Not called by the service itself, see the class comment.
    void RemoveAllServices();

private:
    struct ServiceRecord
    {
        std::string serviceType;
        std::optional<SonarixPb::Service> service;
    };

    void LogEntry(const char* operation) const override;
    void Subscribe(IPCMessageRouterIF& router) override;
    void Unsubscribe() override;
    void HandleDiscoveredDeviceListRequest(const SonarixPb::ServiceId& request, unsigned int tid);
    void RequestList(const std::string& serviceType, unsigned int tid);
    void DiscoveredDeviceListResponse(const std::string& serviceType, unsigned int tid,
                                      const Sonarix::ProductList& list);
    void HandleAddServiceRequest(const SonarixPb::Service& service, unsigned int tid);
    void HandleRemoveServiceRequest(const SonarixPb::Service& service, unsigned int tid);
    void HandleUpdateServiceTxtRecordsRequest(const SonarixPb::Service& service, unsigned int tid);
    void UpdateServiceTxtRecordsResponse(bool isSuccess, unsigned int tid);
    void HandleBroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info, unsigned int tid);
    void HandleDeviceUpdate(const Sonarix::Product& product);
    void AddBackAllServices();

    void StoreRecord(const SonarixPb::Service& service);
    bool SubscribeTo(const std::string& serviceType);
    bool IsSubscribedTo(const std::string& serviceType);

    const std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    std::optional<SonarixPb::DeviceInfo> m_initialAnnouncement; ///< the latest
    std::list<ServiceRecord> m_advertisedServices;              ///< at most one per service type
    std::size_t m_runningLists = 0;
    std::deque<std::pair<std::string, unsigned int>> m_queuedLists; ///< service type and tid
    CallbackConnection m_restartConnection;
    std::vector<std::string> m_deviceUpdateServices; ///< subscribed types, never removed; guarded by m_mutex
};

} // namespace SonarixService
