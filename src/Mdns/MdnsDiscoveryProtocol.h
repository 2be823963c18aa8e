#pragma once

#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/ThreadMutex.h"
#include "schemas/SonarixPb.pb.h"

#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>

class NotifyTargetTaskIF;

namespace SonarixService
{

class MdnsServiceIF;

/// What the rest of the service sees of mDNS. Owns the mDNS task and the mDNS logic on it, fans products out to
/// subscribers, and holds back what wants to reach the network while the network is down: it is replayed, in a fixed
/// order, by NetworkWentUp().
/// Task: operations run on the caller's task, from several; products come on the mDNS task.
/// Owner: the controller, for the life of the process. The destructor waits for the end of the mDNS task, which it
/// does not stop by itself.
/// Never blocks on the network and holds its mutex for copies, and for the replay, whose calls only post.
///
/// Limitations: parked requests have no limit in time or number.
class MdnsDiscoveryProtocol final : public MdnsDiscoveryProtocolIF,
                                    public std::enable_shared_from_this<MdnsDiscoveryProtocolIF>
{
public:
    using Factory = std::shared_ptr<MdnsDiscoveryProtocolIF> (*)();

    static std::shared_ptr<MdnsDiscoveryProtocolIF> Create();
    static void SetFactoryOverride(Factory factory); ///< null in the product

    /// Starts discovery: a later Start() does real work only after a Stop().
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
    using Parked = std::map<std::string, SonarixPb::Service>; ///< by name, type and domain, joined

    std::shared_ptr<MdnsServiceIF> MdnsService();
    /// Keeps `info` in `deferred` while the network is down. Gives whether it is up, and the service.
    std::pair<bool, std::shared_ptr<MdnsServiceIF>> PassOrDefer(const SonarixPb::DeviceInfo& info,
                                                                std::optional<SonarixPb::DeviceInfo>& deferred);
    void AddRegistration(const CallbackConnection& connection, const std::shared_ptr<MdnsServiceIF>& service);

    CallbackRegistry<const Sonarix::Product> m_productRegistry;
    CallbackRegistry<> m_restartRegistry;
    NotifyTargetTaskIF* m_task;

    CThreadMutex m_mutex; ///< guards everything below, for copies and for the replay
    bool m_networkIsUp = false;
    std::shared_ptr<MdnsServiceIF> m_mdnsService;  ///< null when stopped
    std::list<CallbackConnection> m_registrations; ///< the subscriptions held on m_mdnsService
    Parked m_pendingRemoves;                       ///< removals parked while the network is down
    Parked m_pendingAdds;                          ///< adds and updates parked while the network is down
    std::optional<SonarixPb::DeviceInfo> m_deferredDevice;
    std::optional<SonarixPb::DeviceInfo> m_deferredAccessory;
};

} // namespace SonarixService
