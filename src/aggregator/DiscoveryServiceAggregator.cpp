#include "aggregator/DiscoveryServiceAggregator.h"

#include "aggregator/AggregatorLog.h"
#include "aggregator/ProductMerge.h"
#include "aggregator/VersionFiles.h"
#include "gateway/DiscoveryServiceOverPortico.h"
#include "interfaces/DiscoveryServiceControllerIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include <MfgData.h>
#include <PorticoClientIF.h>

#include <atomic>
#include <optional>
#include <utility>
#include <vector>

namespace SonarixService
{

namespace
{

std::atomic<DiscoveryServiceAggregator::Factory> s_factoryOverride{nullptr};

/// Seen by mDNS alone, and under a service type that is not a product's.
bool IsUnwantedMdnsService(const Sonarix::Product& product)
{
    return product.protocols_size() == 1 && product.protocols(0) == SXCommon::MDNS &&
           product.serviceid().type() != "_kova-lanyard._tcp";
}

std::optional<std::string> Address(const Sonarix::ProductInfo& info)
{
    return info.has_ipaddress() ? std::optional<std::string>(info.ipaddress()) : std::nullopt;
}

void PutBackAddress(Sonarix::ProductInfo& info, const std::optional<std::string>& address)
{
    if (address)
    {
        info.set_ipaddress(*address);
    }
    else
    {
        info.clear_ipaddress();
    }
}

/// A list whose rows stay the table's. Each change of a row publishes all of them, and a copy of hundreds, made and
/// freed for each, costs more than the rest of the change.
class LentProductList final
{
public:
    explicit LentProductList(const std::vector<const Sonarix::Product*>& rows)
    {
        for (const Sonarix::Product* const row : rows)
        {
            m_list.mutable_products()->UnsafeArenaAddAllocated(const_cast<Sonarix::Product*>(row)); // lent as const
        }
    }
    ~LentProductList()
    {
        while (m_list.products_size() > 0)
        {
            m_list.mutable_products()->UnsafeArenaReleaseLast();
        }
    }
    LentProductList(const LentProductList&) = delete;
    LentProductList& operator=(const LentProductList&) = delete;

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
    if (const Factory factory = s_factoryOverride.load())
    {
        return factory(task, controller);
    }
    return std::make_shared<DiscoveryServiceAggregator>(task, controller);
}

void DiscoveryServiceAggregator::SetFactoryOverride(Factory factory)
{
    s_factoryOverride = factory;
}

DiscoveryServiceAggregator::DiscoveryServiceAggregator(NotifyTargetTaskIF* task,
                                                       std::shared_ptr<DiscoveryServiceControllerIF> controller)
    : m_task(task)
    , m_etcDir(ResolveEtcDir())
    , m_controller(std::move(controller))
    , m_multiroomVersions(ReadMultiroomVersions(m_etcDir))
    , m_reapTimer("DiscoveryServiceAggregator-ReapOfflineClientTimer", m_task)
    , m_periodicResolverTimer("DiscoveryServiceAggregatorPeriodicResolver", m_task)
    , m_overPortico(DiscoveryServiceOverPortico::Create(m_task))
    , m_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"))
    , m_currentProductMode(SXCommon::UNKNOWN_MODE)
    , m_alive(std::make_shared<const bool>(true))
{
    *m_myProductInfo.mutable_multiroom() = m_multiroomVersions;
    m_myProductInfo.set_guid(m_guid);
    SXCommon::Capabilities capabilities;
    if (ReadCapabilities(m_etcDir, capabilities))
    {
        *m_myProductInfo.mutable_capabilities() = capabilities;
    }
    m_myProductInfo.mutable_configurations()->set_currentproductmode(SXCommon::UNKNOWN_MODE);

    PeriodicGetProductList();

    if (m_overPortico)
    {
        m_childUpdateConnection = m_overPortico->RegisterForProductUpdate(OnTask<Sonarix::Product>(
            [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_CHILD_ENDPOINT); }));
        m_childRemovedConnection = m_overPortico->RegisterForProductRemoved(
            OnTask<Sonarix::Product>([this](const Sonarix::Product& product) { HandleRemoveChild(product); }));
    }

    // A copy: the operation compares its argument with the member.
    DiscoveryServiceAggregator::InitializeProtocols(SXCommon::UNKNOWN_MODE, std::string(m_ipAddress));
}

DiscoveryServiceAggregator::~DiscoveryServiceAggregator() = default;

void DiscoveryServiceAggregator::Shutdown()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "Shutdown");
    m_mdnsConnection.Disconnect();
    m_ssdpConnection.Disconnect();
    m_ssdpProtocol.reset();
    m_mdnsProtocol.reset();
    m_overPortico.reset();
    m_productListRegistry.DisconnectAll();
    m_myProductInfoRegistry.DisconnectAll();
}

CallbackConnection DiscoveryServiceAggregator::RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback)
{
    callback(GetCombinedProductInfo());
    return m_myProductInfoRegistry.Connect(callback);
}

CallbackConnection DiscoveryServiceAggregator::RegisterForProductList(const Callback<Sonarix::ProductList>& callback)
{
    return m_productListRegistry.Connect(callback);
}

void DiscoveryServiceAggregator::InitializeProtocols(const ProductMode& mode, const std::string& ipAddress)
{
    const ProductMode previous = m_currentProductMode;
    bool isChanged = false;
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "New ProductMode: " << SXCommon::ProductMode_Name(mode));
    m_myProductInfo.mutable_configurations()->set_currentproductmode(mode);
    m_currentProductMode = mode;

    if (ipAddress != m_ipAddress)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "IP Address changed from |" << m_ipAddress << "| to |" << ipAddress << "|");
        m_ipAddress = ipAddress;
        isChanged = true;
    }

    HandleOurProductModeChange(previous, mode);
    ApplyMandatorySelfSXInfoSources(m_myProductInfo);
    isChanged = isChanged || mode != previous;

    if (!m_ssdpProtocol)
    {
        m_ssdpProtocol = m_controller->GetSsdpDiscoveryProtocol();
        if (m_ssdpProtocol)
        {
            m_ssdpConnection = m_ssdpProtocol->RegisterProductStateCallback(OnTask<const Sonarix::Product>(
                [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_SSDP); }));
        }
    }
    if (!m_mdnsProtocol)
    {
        m_mdnsProtocol = m_controller->GetMdnsDiscoveryProtocol();
        m_mdnsConnection.Disconnect();
        if (m_mdnsProtocol)
        {
            m_mdnsConnection = m_mdnsProtocol->RegisterProductStateCallback(OnTask<const Sonarix::Product>(
                [this](const Sonarix::Product& product) { HandleProductUpdate(product, SOURCE_MDNS); }));
        }
    }

    if (isChanged)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Some data about our ProductInfo changed, sending SXInfo Notification");
        NotifyMyProductInfo();
    }
}

void DiscoveryServiceAggregator::GetProductList(Sonarix::ProductList& list)
{
    list = AggregateSourcesIntoProductList();
}

void DiscoveryServiceAggregator::GetMyProductInfo(const Callback<Sonarix::ProductInfo>& response,
                                                  const Callback<SXCommon::SonarixError>& /*error*/)
{
    response(GetCombinedProductInfo());
}

void DiscoveryServiceAggregator::HandleProductUpdate(const Sonarix::Product& product, DiscoveryProtocol protocol)
{
    if (product.productinfo().ecosystem() != "ORB2")
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "A non Kova device sent us an update! Dropping it!");
        return;
    }
    if (IsUnwantedMdnsService(product))
    {
        return;
    }
    if (m_currentProductMode == SXCommon::UNKNOWN_MODE && protocol == SOURCE_MDNS)
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
            protocol != SOURCE_CHILD_ENDPOINT ? "yes" : "no", m_products.contains(guid) ? "yes" : "no");

    const bool isChild = IsInChildMode(m_myProductInfo); // told to the log, decides nothing
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
           "amIAChild: " << (isChild ? "True" : "False")
                         << " mode: " << SXCommon::ProductMode_Name(GetCurrentProductMode(m_myProductInfo)));

    if (guid == m_guid)
    {
        // Where we are is not for a discovery source to say.
        const std::optional<std::string> address = Address(m_myProductInfo);
        HandleSelfProductUpdate(product.productinfo());
        PutBackAddress(m_myProductInfo, address);
    }
    if (protocol == SOURCE_CHILD_ENDPOINT)
    {
        HandleAddChild(product);
        return;
    }
    TrackProduct(product);
    if (product.state() == SXCommon::OFFLINE && IsPronouncedDead(guid, m_products, m_offlineStamps))
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Product " << guid << " already pronounced dead by reaper. Don't try connecting to it");
    }
    ConnectToRemoteProduct(guid); // a product that was given up is asked once more, too
}

void DiscoveryServiceAggregator::TrackProduct(const Sonarix::Product& product)
{
    const std::string& guid = product.productinfo().guid();
    const auto tracked = m_products.find(guid);
    if (tracked == m_products.end())
    {
        Sonarix::Product& entry = m_products[guid];
        entry = product;
        entry.set_state(SXCommon::OFFLINE); // until it answers for itself
    }
    else
    {
        Sonarix::Product& entry = tracked->second;
        const SXCommon::ProductState state = entry.state();
        const std::optional<std::string> address = Address(entry.productinfo());
        entry = MergeProducts(entry, product);
        entry.set_state(state);
        PutBackAddress(*entry.mutable_productinfo(), address);
    }
}

void DiscoveryServiceAggregator::HandleAddChild(const Sonarix::Product& product)
{
    const std::string& guid = product.productinfo().guid();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
           "Adding child product with guid " << guid << " and state " << SXCommon::ProductState_Name(product.state()));
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "Child Product: " << JsonForLog(product, true));
    m_children[guid] = product;
    NotifyMyProductInfo();
    NotifyProductList();
}

void DiscoveryServiceAggregator::HandleRemoveChild(const Sonarix::Product& product)
{
    const std::string& guid = product.productinfo().guid();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Removing child product with guid " << guid);
    const auto child = m_children.find(guid);
    if (child == m_children.end())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_WARNING,
               "Child product with guid " << guid << " not found in our children list. Not removing.");
        return;
    }
    m_children.erase(child);
    NotifyMyProductInfo();
    NotifyProductList();
}

std::vector<const Sonarix::Product*> DiscoveryServiceAggregator::CollectRows() const
{
    std::vector<const Sonarix::Product*> rows;
    for (const auto& [guid, product] : m_products)
    {
        if (m_children.contains(guid))
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
                   "Skip adding product with guid " << guid << " to the combined list because it is our child");
            continue;
        }
        rows.push_back(&product);
    }
    for (const auto& [guid, product] : m_children)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Adding child product with guid " << guid << " to the combined list");
        rows.push_back(&product);
    }
    for (const Sonarix::Product* const product : rows)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Combined product Guid: |" << product->productinfo().guid() << "| "
                                          << " State: |" << SXCommon::ProductState_Name(product->state()) << "| ");
    }
    return rows;
}

Sonarix::ProductList DiscoveryServiceAggregator::AggregateSourcesIntoProductList() const
{
    Sonarix::ProductList list;
    for (const Sonarix::Product* const product : CollectRows())
    {
        *list.add_products() = *product;
    }
    return list;
}

void DiscoveryServiceAggregator::NotifyProductList()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    const LentProductList list(CollectRows());
    m_productListRegistry.Send(list.Get(), CallbackConnection());
}

} // namespace SonarixService
