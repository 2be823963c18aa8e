#include "aggregator/DiscoveryServiceAggregator.h"

#include "aggregator/AggregatorLog.h"
#include "gateway/DiscoveryServiceOverPortico.h"
#include "runtime/TaskCheck.h"

#include <exception>
#include <utility>
#include <vector>

namespace SonarixService
{

namespace
{

/// True if only mDNS has reported `product`, with a service type other than that of the products.
bool IsUnwantedMdnsService(const Sonarix::Product& product)
{
    return product.protocols_size() == 1 && product.protocols(0) == SXCommon::MDNS &&
           product.serviceid().type() != "_kova-lanyard._tcp";
}

/// A list message that refers to the rows of the table. Each change of a row publishes the whole table, and copying
/// hundreds of rows would cost more than the rest of the change.
class ProductListView final
{
public:
    explicit ProductListView(const std::vector<const Sonarix::Product*>& rows)
    {
        for (const Sonarix::Product* const row : rows)
        {
            m_list.mutable_products()->UnsafeArenaAddAllocated(const_cast<Sonarix::Product*>(row)); // Get() is const
        }
    }
    ~ProductListView()
    {
        while (m_list.products_size() > 0)
        {
            m_list.mutable_products()->UnsafeArenaReleaseLast();
        }
    }
    ProductListView(const ProductListView&) = delete;
    ProductListView& operator=(const ProductListView&) = delete;

    const Sonarix::ProductList& Get() const
    {
        return m_list;
    }

private:
    Sonarix::ProductList m_list;
};

} // namespace

std::shared_ptr<DiscoveryServiceAggregatorIF>
DiscoveryServiceAggregator::Create(NotifyTargetTaskIF* task,
                                   const std::shared_ptr<DiscoveryServiceControllerIF>& controller)
{
    const Factory factory = s_factoryOverride.Get();
    return factory != nullptr ? factory(task, controller)
                              : std::make_shared<DiscoveryServiceAggregator>(task, controller);
}

DiscoveryServiceAggregator::DiscoveryServiceAggregator(NotifyTargetTaskIF* task,
                                                       std::shared_ptr<DiscoveryServiceControllerIF> controller)
    : m_task(task)
    , m_sources(
          m_task, std::move(controller),
          [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_SSDP); },
          [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_MDNS); },
          [this](const Sonarix::ProductList& list) { MergeRefreshedProducts(list); })
    , m_table(m_task)
    , m_own(m_task, m_table)
    , m_remoteProducts(
          m_task, m_table, m_own, [this] { NotifyProductList(); },
          [this] { m_offlineProducts.HandleReapOfflineProducts(); })
    , m_offlineProducts(m_task, m_table, m_remoteProducts)
{
    m_overPortico = DiscoveryServiceOverPortico::Create(m_task);
    m_sources.PeriodicGetProductList();
    if (m_overPortico)
    {
        m_childUpdateConnection = m_overPortico->RegisterForProductUpdate(m_liveness.OnTask<Sonarix::Product>(
            m_task, [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_CHILD_ENDPOINT); }));
        m_childRemovedConnection = m_overPortico->RegisterForProductRemoved(
            m_liveness.OnTask(m_task, this, &DiscoveryServiceAggregator::HandleRemoveChild));
    }
    DiscoveryServiceAggregator::InitializeProtocols(SXCommon::UNKNOWN_MODE, {});
}

DiscoveryServiceAggregator::~DiscoveryServiceAggregator() = default;

void DiscoveryServiceAggregator::Shutdown()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "Shutdown");
    m_sources.Shutdown();
    m_overPortico.reset();
    m_productListRegistry.DisconnectAll();
    m_own.DisconnectAll();
}

CallbackConnection DiscoveryServiceAggregator::RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback)
{
    return m_own.RegisterForMyProductInfo(callback);
}

CallbackConnection DiscoveryServiceAggregator::RegisterForProductList(const Callback<Sonarix::ProductList>& callback)
{
    return m_productListRegistry.Connect(callback);
}

void DiscoveryServiceAggregator::InitializeProtocols(const ProductMode& mode, const std::string& ipAddress)
{
    const ProductMode previous = m_own.Mode();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "New ProductMode: " << SXCommon::ProductMode_Name(mode));
    m_own.SetMode(mode);
    const bool isNewAddress = m_own.SetAddress(ipAddress);
    HandleOurProductModeChange(previous, mode);
    m_own.ApplyMandatorySelfSXInfoSources();
    m_sources.Subscribe();
    if (isNewAddress || mode != previous)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Some data about our ProductInfo changed, sending SXInfo Notification");
        m_own.NotifyMyProductInfo();
    }
}

void DiscoveryServiceAggregator::GetProductList(Sonarix::ProductList& list)
{
    list = AggregateSourcesIntoProductList();
}

void DiscoveryServiceAggregator::GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                                                  const Callback<SXCommon::SonarixError>& /*error*/)
{
    response(m_own.GetCombinedProductInfo());
}

void DiscoveryServiceAggregator::HandleProductInfoAdvertisement(const Sonarix::ProductInfo& info)
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    if (info.guid() != m_own.Guid())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
               "Ignoring advertisements of products not my own...How did this even happen");
        return;
    }
    m_own.HandleSelfProductUpdate(info);
    if (m_own.Mode() == SXCommon::UNKNOWN_MODE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Product mode is UNKNOWN_MODE. Loop-back connecting to ourselves: ");
        m_remoteProducts.ConnectToRemoteProduct(m_own.Guid());
    }
}

void DiscoveryServiceAggregator::SetSupportedWifiBands(const std::set<std::string>& bands)
{
    m_own.SetSupportedWifiBands(bands);
}

void DiscoveryServiceAggregator::HandleProductUpdate(const Sonarix::Product& product, DiscoveryProtocol protocol)
{
    TASK_CHECK(m_task);
    if (product.productinfo().ecosystem() != "ORB2")
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "A non Kova device sent us an update! Dropping it!");
        return;
    }
    if (IsUnwantedMdnsService(product))
    {
        return;
    }
    if (m_own.Mode() == SXCommon::UNKNOWN_MODE && protocol == SOURCE_MDNS)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "We do not have a current product mode. Caching mDNS product update for later processing.");
        m_cachedMdnsUpdates.push_back(product);
        return;
    }

    const std::string& guid = product.productinfo().guid();
    DPRINTF(s_aggregatorLog, DPrint::LEVEL_INFO,
            "HandleProductUpdate: guid %s is %s. Allow HeartbeatTracking? %s. Already Tracked? %s.", guid.c_str(),
            product.state() == SXCommon::ONLINE ? "ONLINE" : "OFFLINE",
            protocol != SOURCE_CHILD_ENDPOINT ? "yes" : "no", m_table.Find(guid) != nullptr ? "yes" : "no");

    m_own.LogChildMode();
    if (guid == m_own.Guid())
    {
        m_own.HandleDiscoveredSelf(product.productinfo());
    }
    if (protocol == SOURCE_CHILD_ENDPOINT)
    {
        HandleAddChild(product);
        return;
    }
    m_table.Track(product);
    if (product.state() == SXCommon::OFFLINE &&
        OfflineProducts::IsPronouncedDead(guid, m_table.Rows(), m_table.OfflineStamps()))
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Product " << guid << " already pronounced dead by reaper. Don't try connecting to it");
    }
    m_remoteProducts.ConnectToRemoteProduct(guid); // despite the log line: the product may be back
}

void DiscoveryServiceAggregator::MergeRefreshedProducts(const Sonarix::ProductList& list)
{
    TASK_CHECK(m_task);
    for (const Sonarix::Product& product : list.products())
    {
        if (m_table.Refresh(product))
        {
            m_remoteProducts.ConnectToRemoteProduct(product.productinfo().guid());
        }
    }
}

void DiscoveryServiceAggregator::HandleAddChild(const Sonarix::Product& product)
{
    const std::string& guid = product.productinfo().guid();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
           "Adding child product with guid " << guid << " and state " << SXCommon::ProductState_Name(product.state()));
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "Child Product: " << JsonForLog(product, true));
    m_table.AddChild(product);
    m_own.NotifyMyProductInfo();
    NotifyProductList();
}

void DiscoveryServiceAggregator::HandleRemoveChild(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    const std::string& guid = product.productinfo().guid();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Removing child product with guid " << guid);
    if (!m_table.RemoveChild(guid))
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_WARNING,
               "Child product with guid " << guid << " not found in our children list. Not removing.");
        return;
    }
    m_own.NotifyMyProductInfo();
    NotifyProductList();
}

void DiscoveryServiceAggregator::HandleOurProductModeChange(const ProductMode& previous, const ProductMode& current)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
           "Product mode changed from " << SXCommon::ProductMode_Name(previous) << " to "
                                        << SXCommon::ProductMode_Name(current));
    if (previous == current)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Product mode did not change. No need to update cache!");
        return;
    }
    const bool hadLoopBack = m_remoteProducts.HasClient(m_own.Guid());
    m_table.KeepOnly(m_own.Guid());
    m_remoteProducts.DropAll(); // also if the own product has no row, and the rows of other products stay
    if (Sonarix::Product* const own = m_table.Find(m_own.Guid()))
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Updating our product mode in the cache!");
        own->mutable_productinfo()->mutable_configurations()->set_currentproductmode(current);
    }
    if (hadLoopBack)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "We had a loopback client. We need to re-create to it!");
        m_own.ClearChildren();
        m_remoteProducts.ConnectToRemoteProduct(m_own.Guid()); // the sub-protocol depends on the mode
    }
    m_offlineProducts.CancelTimer();

    if (previous == SXCommon::UNKNOWN_MODE && !m_cachedMdnsUpdates.empty())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Playing-back any mDNS updates we received while initializing");
        PlayBackMdnsUpdates();
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Done playing-back any mDNS updates we received while initializing");
    }
}

void DiscoveryServiceAggregator::PlayBackMdnsUpdates()
{
    std::vector<Sonarix::Product> updates;
    updates.swap(m_cachedMdnsUpdates);
    for (const Sonarix::Product& update : updates)
    {
        try
        {
            HandleProductUpdate(update, SOURCE_MDNS);
        }
        catch (const std::exception& failure)
        {
            // An exception from a bad report about this product must not stop the processing of the later reports.
            DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, failure.what());
        }
    }
    updates.clear();
    updates.swap(m_cachedMdnsUpdates); // keeps the storage
}

Sonarix::ProductList DiscoveryServiceAggregator::AggregateSourcesIntoProductList() const
{
    Sonarix::ProductList list;
    for (const Sonarix::Product* const product : m_table.CollectRows())
    {
        *list.add_products() = *product;
    }
    return list;
}

void DiscoveryServiceAggregator::NotifyProductList()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    const ProductListView list(m_table.CollectRows());
    m_productListRegistry.Send(list.Get(), CallbackConnection());
}

} // namespace SonarixService
