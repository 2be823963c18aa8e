#pragma once

#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"
#include "runtime/ThreadMutex.h"
#include "schemas/SonarixPb.pb.h"

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

class MdnsServiceIF;

/// The mDNS source of the service. Owns the mDNS task and the MdnsService on it, and sends products to the subscribers.
/// While the network is down it stores requests to publish; NetworkWentUp() replays them in a fixed order.
/// Task: operations run on the caller's task; several tasks may call. Products are sent on the mDNS task.
/// Owner: the controller, until the process ends. The destructor waits for the end of the mDNS task but does not stop
/// that task.
/// Never blocks on the network. Holds its mutex to copy data and during the replay, where each call only posts.
///
/// Limitations: stored requests have no limit in time or number.
class MdnsDiscoveryProtocol final : public MdnsDiscoveryProtocolIF,
                                    public std::enable_shared_from_this<MdnsDiscoveryProtocolIF>
{
public:
    static inline FactoryOverride<std::shared_ptr<MdnsDiscoveryProtocolIF> (*)()> s_factoryOverride;
    static std::shared_ptr<MdnsDiscoveryProtocolIF> Create();

    /// Starts discovery. A later Start() has no effect before a Stop().
    MdnsDiscoveryProtocol();
    ~MdnsDiscoveryProtocol() override;
    MdnsDiscoveryProtocol(const MdnsDiscoveryProtocol&) = delete;
    MdnsDiscoveryProtocol& operator=(const MdnsDiscoveryProtocol&) = delete;

    void Start() override;
    void Stop() override;
    CallbackConnection RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback) override;
    CallbackConnection RegisterForServiceRestartNotification(const Callback<>& callback) override;
    void GetProductList(const std::string& serviceType, const Callback<const Sonarix::ProductList>& callback) override;
    bool AddService(const SonarixPb::Service& service) override;
    void UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result) override;
    void RemoveService(const SonarixPb::Service& service) override;
    void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) override;
    void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) override;
    void NetworkWentUp() override;
    void NetworkWentDown() override;

private:
    using BroadcastOperation = void (MdnsServiceIF::*)(const SonarixPb::DeviceInfo&);
    using Parked = std::map<std::string, SonarixPb::Service>; ///< by name + type + domain

    std::shared_ptr<MdnsServiceIF> Service();
    /// Calls `broadcast` on the service, or stores `info` in `deferred` if the network is down.
    void Broadcast(const char* function, const SonarixPb::DeviceInfo& info,
                   std::optional<SonarixPb::DeviceInfo>& deferred, BroadcastOperation broadcast);
    void ProductStateCallback(const Sonarix::Product& product);
    void RegistrationStatusCallback(MdnsServiceIF& service, const CallbackConnection& connection, bool enabled);

    CallbackRegistry<const Sonarix::Product> m_productRegistry;
    CallbackRegistry<> m_restartRegistry;
    NotifyTargetTaskIF* m_task;

    CThreadMutex m_mutex; ///< protects all members below
    bool m_networkIsUp = false;
    std::shared_ptr<MdnsServiceIF> m_mdnsService;  ///< null when stopped
    std::list<CallbackConnection> m_registrations; ///< the subscriptions to m_mdnsService
    Parked m_pendingRemoves;                       ///< removals parked while the network is down
    Parked m_pendingAdds;                          ///< adds and updates parked while the network is down
    std::optional<SonarixPb::DeviceInfo> m_deferredDevice;
    std::optional<SonarixPb::DeviceInfo> m_deferredAccessory;
};

} // namespace SonarixService
