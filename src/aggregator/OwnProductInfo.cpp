// The product's own information: what only it may know about itself, and what a change of its mode does.

#include "aggregator/AggregatorLog.h"
#include "aggregator/DiscoveryServiceAggregator.h"
#include "aggregator/ProductMerge.h"
#include <PorticoClientIF.h>

#include <exception>
#include <stdexcept>
#include <utility>

namespace SonarixService
{

namespace
{

void SetWifiBands(SXCommon::Capabilities& capabilities, const std::set<std::string>& bands)
{
    capabilities.clear_supportedwifibands();
    for (const std::string& band : bands)
    {
        capabilities.add_supportedwifibands(band);
    }
}

/// Empties the map but for `guid`. Where it lacks that guid, it is left as it is.
template <class Map>
void KeepOnly(Map& map, const std::string& guid)
{
    const auto kept = map.find(guid);
    if (kept != map.end())
    {
        auto value = std::move(kept->second);
        map.clear();
        map[guid] = std::move(value);
    }
}

} // namespace

void DiscoveryServiceAggregator::ApplyMandatorySelfSXInfoSources(Sonarix::ProductInfo& info) const
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    info.CopyFrom(m_myProductInfo); // nothing happens where they are the same object
    info.clear_children();
    info.mutable_capabilities();
    for (const auto& [guid, child] : m_children)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Adding child with guid |" << guid << "| to the combined product info");
        *info.add_children() = child.productinfo();
    }
    *info.mutable_multiroom() = m_multiroomVersions;
    info.set_ipaddress(m_ipAddress);
    SetWifiBands(*info.mutable_capabilities(), m_supportedWifiBands);
    info.mutable_configurations()->set_currentproductmode(m_currentProductMode);
}

Sonarix::ProductInfo DiscoveryServiceAggregator::GetCombinedProductInfo() const
{
    Sonarix::ProductInfo info;
    ApplyMandatorySelfSXInfoSources(info);
    return info;
}

void DiscoveryServiceAggregator::NotifyMyProductInfo()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "sending my product info notification");
    const Sonarix::ProductInfo info = GetCombinedProductInfo();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "My Product Info: " << JsonForLog(info, false));
    m_myProductInfoRegistry.Send(info, CallbackConnection());
}

void DiscoveryServiceAggregator::HandleSelfProductUpdate(const Sonarix::ProductInfo& info)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    if (!info.has_guid() || info.guid().empty() || info.guid() != m_guid)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Received a product info of a different product, ignoring! "
                   << "Guid: |" << info.guid() << "|");
        return;
    }

    // Only we may know these of ourselves; whoever reports them is at fault, and nothing has changed yet.
    if (info.has_capabilities())
    {
        throw std::logic_error("my product info has capabilities - that's bad!");
    }
    if (!info.children().empty())
    {
        throw std::logic_error("my product info has children - that's bad");
    }
    if (info.has_configurations())
    {
        throw std::logic_error("my product info has configurations - that's bad");
    }

    m_myProductInfo.MergeFrom(info);
    ReduceIconsAndServices(m_myProductInfo);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
           "Sending my merged product info update to subscribers: " << m_myProductInfo.DebugString());
    m_myProductInfo.clear_multiroom();
    *m_myProductInfo.mutable_multiroom() = m_multiroomVersions;
    NotifyMyProductInfo();
}

void DiscoveryServiceAggregator::HandleProductInfoAdvertisement(const Sonarix::ProductInfo& info)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    if (info.guid() != m_guid)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
               "Ignoring advertisements of products not my own...How did this even happen");
        return;
    }
    HandleSelfProductUpdate(info);
    if (m_currentProductMode == SXCommon::UNKNOWN_MODE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Product mode is UNKNOWN_MODE. Loop-back connecting to ourselves: ");
        ConnectToRemoteProduct(m_guid);
    }
}

void DiscoveryServiceAggregator::SetSupportedWifiBands(const std::set<std::string>& bands)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Number of supported WiFi frequencies: " << bands.size());
    m_supportedWifiBands = bands;
    SetWifiBands(*m_myProductInfo.mutable_capabilities(), bands);
    NotifyMyProductInfo();
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
    m_myProductInfo.mutable_configurations()->set_currentproductmode(current);

    const bool hadLoopBack = m_remoteClients.contains(m_guid);
    ForgetOtherProducts();
    const auto own = m_products.find(m_guid);
    if (own != m_products.end())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Updating our product mode in the cache!");
        own->second.mutable_productinfo()->mutable_configurations()->set_currentproductmode(current);
    }
    if (hadLoopBack)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "We had a loopback client. We need to re-create to it!");
        m_myProductInfo.clear_children();
        ConnectToRemoteProduct(m_guid); // anew, since the sub-protocol depends on the mode
    }
    m_reapTimer.Cancel();

    if (previous == SXCommon::UNKNOWN_MODE && !m_cachedMdnsUpdates.empty())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Playing-back any mDNS updates we received while initializing");
        PlayBackMdnsUpdates();
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Done playing-back any mDNS updates we received while initializing");
    }
}

void DiscoveryServiceAggregator::ForgetOtherProducts()
{
    // Each map on its own: without an own row the rows of others stay, although all clients go.
    KeepOnly(m_products, m_guid);
    m_remoteClients.clear();
    KeepOnly(m_remoteInfoConnections, m_guid);
    m_remoteInfoConnections[m_guid].Disconnect();
    KeepOnly(m_offlineStamps, m_guid);
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
            // A bad report about ourselves must not cost the ones behind it.
            DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, failure.what());
        }
    }
    updates.clear();
    updates.swap(m_cachedMdnsUpdates); // keeps the storage
}

DiscoveryServiceAggregator::ProductMode
DiscoveryServiceAggregator::GetCurrentProductMode(const Sonarix::ProductInfo& info)
{
    return info.configurations().has_currentproductmode() ? info.configurations().currentproductmode()
                                                          : SXCommon::UNKNOWN_MODE;
}

bool DiscoveryServiceAggregator::IsInChildMode(const Sonarix::ProductInfo& info)
{
    const ProductMode mode = GetCurrentProductMode(info);
    if (mode == SXCommon::UNKNOWN_MODE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "We do not have a current product mode!! Assuming not a child");
        return false;
    }
    return (static_cast<unsigned int>(mode) & ~static_cast<unsigned int>(SXCommon::ACCESSORY)) == 0;
}

} // namespace SonarixService
