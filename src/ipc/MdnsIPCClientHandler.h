#pragma once

#include "ipc/DiscoveryServiceIPCClientHandlerIF.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/DPrint.h"
#include "runtime/ThreadMutex.h"

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class IPCMessageRouterIF;
class NotifyTargetTaskIF;

namespace Network
{
class ConnectorSocket;
}

namespace Sonarix
{
class Product;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

class MdnsDiscoveryProtocolIF;

/// One client of "SonarixMdnsService": asks for the devices of a service type, publishes records and withdraws them,
/// and is told of the devices of the types that it has added or announced.
/// Task: the server's; device reports come on the mDNS task, and are sent from there.
/// Owner: the server, and what is on its way to it.
/// Never waits. Remembers what its client has published, one record for each type, and hands it in again when mDNS
/// starts anew. What a client has published stays on the network when it goes.
class MdnsIPCClientHandler final : public DiscoveryServiceIPCClientHandlerIF,
                                   public std::enable_shared_from_this<MdnsIPCClientHandler>
{
public:
    /// `name` is its log channel. `protocol` may be empty: then lists and additions are answered with an error.
    MdnsIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                         std::shared_ptr<Network::ConnectorSocket> socket,
                         const std::shared_ptr<MdnsDiscoveryProtocolIF>& protocol);
    ~MdnsIPCClientHandler() override;
    MdnsIPCClientHandler(const MdnsIPCClientHandler&) = delete;
    MdnsIPCClientHandler& operator=(const MdnsIPCClientHandler&) = delete;

    void Initialize() override;
    void Shutdown() override;
    CallbackConnection RegisterForDisconnect(const Callback<void>& callback) override;
    void SendSonarixNotification(SonarixPb::DeviceState state,
                                 const std::shared_ptr<SonarixPb::DeviceInfo>& device) override;

    /// So many lists are asked for at once; more requests wait for their turn, and a client that has still more, and so
    /// does not wait for answers, is let go: each list may be hundreds of KiB.
    static constexpr std::size_t kMaxListsUnderWay = 4;
    static constexpr std::size_t kMaxListsWaiting = 1000;

    /// Withdraws what the client has published. Nobody does so by itself: see above.
    void RemoveAllServices();

private:
    struct ServiceRecord
    {
        std::string serviceType;
        std::optional<SonarixPb::Service> service;
    };

    void AttachRequests(IPCMessageRouterIF& router);
    void HandleDiscoveredDeviceListRequest(const SonarixPb::ServiceId& request, unsigned int tid);
    void AskForList(const std::string& serviceType, unsigned int tid);
    void DiscoveredDeviceListResponse(const std::string& serviceType, unsigned int tid,
                                      const Sonarix::ProductList& list);
    void HandleAddServiceRequest(const SonarixPb::Service& service, unsigned int tid);
    void HandleRemoveServiceRequest(const SonarixPb::Service& service);
    void HandleUpdateServiceTxtRecordsRequest(const SonarixPb::Service& service, unsigned int tid);
    void UpdateServiceTxtRecordsResponse(bool isSuccess, unsigned int tid);
    void HandleBroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info);
    void HandleDeviceUpdate(const Sonarix::Product& product);
    void HandleDisconnect();
    void AddBackAllServices();

    void Remember(const SonarixPb::Service& service);
    bool SubscribeTo(const std::string& serviceType);
    bool IsSubscribedTo(const std::string& serviceType);
    std::shared_ptr<IPCMessageRouterIF> Router();

    const DPrint m_log;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<Network::ConnectorSocket> m_socket; ///< until Initialize()
    CallbackRegistry<> m_disconnectRegistry;
    const std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    std::optional<SonarixPb::DeviceInfo> m_initialAnnouncement; ///< the last one
    std::list<ServiceRecord> m_advertisedServices;              ///< at most one for each type
    std::size_t m_listsUnderWay = 0;
    std::deque<std::pair<std::string, unsigned int>> m_listsWaiting; ///< type and tid
    CallbackConnection m_productStateConnection;
    CallbackConnection m_restartConnection;
    CThreadMutex m_mutex;                            ///< guards what follows, which the mDNS task reads
    std::shared_ptr<IPCMessageRouterIF> m_router;    ///< empty before Initialize() and after the disconnect
    std::vector<std::string> m_deviceUpdateServices; ///< the types that the client is told of; it only grows
};

} // namespace SonarixService
