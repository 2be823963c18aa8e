#pragma once

#include "gateway/BoundHandler.h"
#include "interfaces/DiscoveryServiceAggregatorIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace SonarixService
{

class DiscoveryServiceControllerIF;
class DiscoveryServiceOverPorticoIF;
class MdnsDiscoveryProtocolIF;
class SsdpDiscoveryProtocolIF;

/// The table of known products, and the product's own information. Discovery sources say that a product may be
/// there; a gateway connection to it finds out: its own answer makes it ONLINE, the connection's heartbeat OFFLINE.
/// Task: everything on the task given, the constructor before that task takes anything from here; no lock.
/// Owner: the gateway client, which destroys it on that task or after the task's end. Holds the controller strongly
/// on purpose. Once destroyed, a callback that was on its way touches nothing.
/// Never waits for the network, but for one second at the refresh every six hours; never removes a row on account
/// of age; never coalesces notifications.
///
/// Design: the constructor subscribes, and a shared pointer to this object does not exist yet. Every callback that
/// leaves this object is therefore bound to the plain pointer and a token that goes with the object (OnTask).
class DiscoveryServiceAggregator final : public DiscoveryServiceAggregatorIF,
                                         public std::enable_shared_from_this<DiscoveryServiceAggregatorIF>
{
public:
    /// Where a report came from; not the schema's SXCommon::DiscoveryProtocol.
    enum DiscoveryProtocol
    {
        SOURCE_CHILD_ENDPOINT = 0,
        SOURCE_MDNS = 1,
        SOURCE_SSDP = 2,
    };

    using Factory = std::shared_ptr<DiscoveryServiceAggregatorIF> (*)(
        NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller);

    static std::shared_ptr<DiscoveryServiceAggregatorIF>
    Create(NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller);
    static void SetFactoryOverride(Factory factory); ///< null in the product

    DiscoveryServiceAggregator(NotifyTargetTaskIF* task, std::shared_ptr<DiscoveryServiceControllerIF> controller);
    ~DiscoveryServiceAggregator() override;
    DiscoveryServiceAggregator(const DiscoveryServiceAggregator&) = delete;
    DiscoveryServiceAggregator& operator=(const DiscoveryServiceAggregator&) = delete;

    void Shutdown() override;
    CallbackConnection RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback) override;
    CallbackConnection RegisterForProductList(const Callback<Sonarix::ProductList>& callback) override;
    void InitializeProtocols(const SXCommon::ProductMode& mode, const std::string& ipAddress) override;
    void GetProductList(Sonarix::ProductList& list) override;
    void GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                          const Callback<SXCommon::SonarixError>& error) override;
    void HandleProductInfoAdvertisement(const Sonarix::ProductInfo& info) override;
    void SetSupportedWifiBands(const std::set<std::string>& bands) override;

private:
    using ProductMode = SXCommon::ProductMode;
    using Table = std::map<std::string, Sonarix::Product>;
    using Stamps = std::map<std::string, std::time_t>;

    /// `function` as a callback that runs on the task, and not after this object's end.
    template <class... Args, class Function>
    AsyncCallback<Args...> OnTask(Function function)
    {
        return AsyncCallback<Args...>(
            [token = std::weak_ptr<const bool>(m_alive), function](const Args&... args)
            {
                if (!token.expired())
                {
                    function(args...);
                }
            },
            m_task);
    }

    // The table: DiscoveryServiceAggregator.cpp
    void HandleProductUpdate(const Sonarix::Product& product, DiscoveryProtocol protocol);
    void TrackProduct(const Sonarix::Product& product);
    void HandleAddChild(const Sonarix::Product& product);
    void HandleRemoveChild(const Sonarix::Product& product);
    std::vector<const Sonarix::Product*> CollectRows() const;
    Sonarix::ProductList AggregateSourcesIntoProductList() const;
    void NotifyProductList();

    // The own information: OwnProductInfo.cpp
    void ApplyMandatorySelfSXInfoSources(Sonarix::ProductInfo& info) const;
    Sonarix::ProductInfo GetCombinedProductInfo() const;
    void NotifyMyProductInfo();
    void HandleSelfProductUpdate(const Sonarix::ProductInfo& info);
    void HandleOurProductModeChange(const ProductMode& previous, const ProductMode& current);
    void ForgetOtherProducts();
    void PlayBackMdnsUpdates();
    static ProductMode GetCurrentProductMode(const Sonarix::ProductInfo& info);
    static bool IsInChildMode(const Sonarix::ProductInfo& info);

    // Connections to products: RemoteProducts.cpp
    void ConnectToRemoteProduct(const std::string& guid);
    void SendRemoteProductInfoGet(const std::string& guid);
    void HandleRemoteProductInfo(const Sonarix::ProductInfo& info);
    void HandleRemoteProductInfoError(const SXCommon::SonarixError& error, const std::string& guid);
    void HandleHeartbeatStatus(const std::string& guid, PORTICO_CLIENT_ERRORS status);
    static std::string DetermineGatewayProtocol(const ProductMode& mode);
    static std::shared_ptr<PorticoClientIF>
    CreateRemoteProductClient(const std::string& guid, const Portico::HeartbeatCallback& heartbeatCallback,
                              const std::string& protocol);

    // Reaping and refresh: OfflineProducts.cpp
    static bool HasOfflineStampExpired(const std::time_t& stamp);
    static bool IsPronouncedDead(const std::string& guid, const Table& table, const Stamps& stamps);
    static std::map<std::string, bool> CollectExpiredOfflineStamps(const Stamps& stamps);
    static std::uint64_t ComputeMsToNextClosestTimeoutMs(const Stamps& stamps);
    void PeriodicReapOfflineProducts();
    void HandleReapOfflineProducts();
    void StopTrackingHeartbeat(const std::string& guid);
    void PeriodicGetProductList();
    void HandlePeriodicGetProductList();
    void RefreshFromSsdp();
    void RefreshFromMdns();
    void MergeRefreshedProducts(const Sonarix::ProductList& list);

    NotifyTargetTaskIF* m_task;
    std::string m_etcDir;
    std::shared_ptr<DiscoveryServiceControllerIF> m_controller; ///< for the two sources only
    SXCommon::MultiroomVersions m_multiroomVersions;
    MessageTimer m_reapTimer;
    MessageTimer m_periodicResolverTimer;
    std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol; ///< empty where this build has none
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    std::shared_ptr<DiscoveryServiceOverPorticoIF> m_overPortico;
    CallbackConnection m_mdnsConnection;
    CallbackConnection m_ssdpConnection;
    CallbackConnection m_childUpdateConnection;
    CallbackConnection m_childRemovedConnection;
    std::string m_guid;
    ProductMode m_currentProductMode;
    std::string m_ipAddress;
    std::set<std::string> m_supportedWifiBands;
    Sonarix::ProductInfo m_myProductInfo; ///< never handed out as it stands: GetCombinedProductInfo
    Table m_children;
    CallbackRegistry<Sonarix::ProductInfo> m_myProductInfoRegistry;
    Table m_products;
    CallbackRegistry<Sonarix::ProductList> m_productListRegistry;
    std::map<std::string, std::shared_ptr<PorticoClientIF>> m_remoteClients;
    std::map<std::string, CallbackConnection> m_remoteInfoConnections;
    Stamps m_offlineStamps;                            ///< first OFFLINE heartbeat since the product's last answer
    std::vector<Sonarix::Product> m_cachedMdnsUpdates; ///< held back until the own mode is known

    LivenessToken m_alive; ///< last, so that it goes first
};

} // namespace SonarixService
