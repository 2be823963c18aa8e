#pragma once

#include "aggregator/DiscoverySources.h"
#include "aggregator/OfflineProducts.h"
#include "aggregator/OwnProductInfo.h"
#include "aggregator/ProductTable.h"
#include "aggregator/RemoteProducts.h"
#include "interfaces/DiscoveryServiceAggregatorIF.h"
#include "runtime/CallbackConnection.h"
#include "runtime/CallbackRegistry.h"
#include "runtime/FactoryOverride.h"
#include "runtime/Liveness.h"
#include "schemas/Sonarix.pb.h"

#include <memory>
#include <set>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace SonarixService
{

class DiscoveryServiceControllerIF;
class DiscoveryServiceOverPorticoIF;

/// Merges the reports of all sources into one list of products, and publishes it. A discovery source only says that a
/// product may exist; the product's own answer makes it ONLINE, the heartbeat of the connection to it OFFLINE.
/// Task: everything on the given task (checked in debug builds), the constructor on the main thread while the task is
/// held. Owner: the gateway client, which destroys it on that task or after the task's end. After destruction no
/// callback touches it. Blocks for at most 1 s, at the refresh every 6 hours. Never removes a row because of its age,
/// never coalesces notifications.
///
/// Design: ProductTable has the rows, OwnProductInfo the information of this product, RemoteProducts the connections to
/// the others, OfflineProducts the end of such a connection, DiscoverySources the subscriptions and the refresh. This
/// class has the filters, the children, the change of the own mode and the notification.
class DiscoveryServiceAggregator final : public DiscoveryServiceAggregatorIF,
                                         public std::enable_shared_from_this<DiscoveryServiceAggregatorIF>
{
public:
    /// The source of a report. SXCommon::DiscoveryProtocol has other values.
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
    static inline FactoryOverride<Factory> s_factoryOverride;

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

    void HandleProductUpdate(const Sonarix::Product& product, DiscoveryProtocol protocol);
    void MergeRefreshedProducts(const Sonarix::ProductList& list);
    void HandleAddChild(const Sonarix::Product& product);
    void HandleRemoveChild(const Sonarix::Product& product);
    void HandleOurProductModeChange(const ProductMode& previous, const ProductMode& current);
    void PlayBackMdnsUpdates();
    Sonarix::ProductList AggregateSourcesIntoProductList() const;
    void NotifyProductList();

    NotifyTargetTaskIF* m_task;
    DiscoverySources m_sources;
    std::shared_ptr<DiscoveryServiceOverPorticoIF> m_overPortico; ///< private endpoint for child products
    CallbackConnection m_childUpdateConnection;
    CallbackConnection m_childRemovedConnection;
    ProductTable m_table;
    OwnProductInfo m_own;
    CallbackRegistry<Sonarix::ProductList> m_productListRegistry;
    RemoteProducts m_remoteProducts;
    OfflineProducts m_offlineProducts;
    std::vector<Sonarix::Product> m_cachedMdnsUpdates; ///< held back until the own mode is known
    Liveness m_liveness;
};

} // namespace SonarixService
