#include "aggregator/OwnProductInfo.h"

#include "aggregator/AggregatorLog.h"
#include "aggregator/ProductMerge.h"
#include "aggregator/ProductTable.h"
#include "aggregator/VersionFiles.h"
#include "runtime/TaskCheck.h"
#include <MfgData.h>

#include <stdexcept>

namespace SonarixService
{

namespace
{

void SetWifiBands(SXCommon::Capabilities& capabilities, const std::set<std::string>& bands)
{
    capabilities.mutable_supportedwifibands()->Assign(bands.begin(), bands.end());
}

} // namespace

OwnProductInfo::OwnProductInfo(const NotifyTargetTaskIF* task, const ProductTable& table)
    : m_task(task)
    , m_table(table)
    , m_etcDir(ResolveEtcDir())
    , m_multiroomVersions(ReadMultiroomVersions(m_etcDir))
    , m_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"))
{
    *m_myProductInfo.mutable_multiroom() = m_multiroomVersions;
    m_myProductInfo.set_guid(m_guid);
    SXCommon::Capabilities capabilities;
    if (ReadCapabilities(m_etcDir, capabilities))
    {
        *m_myProductInfo.mutable_capabilities() = capabilities;
    }
    SetMode(SXCommon::UNKNOWN_MODE);
}

const std::string& OwnProductInfo::Guid() const
{
    return m_guid;
}

OwnProductInfo::ProductMode OwnProductInfo::Mode() const
{
    return m_currentProductMode;
}

void OwnProductInfo::SetMode(const ProductMode& mode)
{
    m_myProductInfo.mutable_configurations()->set_currentproductmode(mode);
    m_currentProductMode = mode;
}

bool OwnProductInfo::SetAddress(const std::string& ipAddress)
{
    if (ipAddress == m_ipAddress)
    {
        return false;
    }
    DPRINT_AS(s_aggregatorLog, DPrint::LEVEL_INFO, "InitializeProtocols",
              "IP Address changed from |" << m_ipAddress << "| to |" << ipAddress << "|");
    m_ipAddress = ipAddress;
    return true;
}

void OwnProductInfo::SetSupportedWifiBands(const std::set<std::string>& bands)
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Number of supported WiFi frequencies: " << bands.size());
    m_supportedWifiBands = bands;
    SetWifiBands(*m_myProductInfo.mutable_capabilities(), bands);
    NotifyMyProductInfo();
}

void OwnProductInfo::ClearChildren()
{
    m_myProductInfo.clear_children();
}

void OwnProductInfo::ApplyMandatorySelfSXInfoSources(Sonarix::ProductInfo& info) const
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    info.CopyFrom(m_myProductInfo); // no effect if `info` is the stored record
    info.clear_children();
    info.mutable_capabilities();
    for (const auto& [guid, child] : m_table.Children())
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

void OwnProductInfo::ApplyMandatorySelfSXInfoSources()
{
    ApplyMandatorySelfSXInfoSources(m_myProductInfo);
}

Sonarix::ProductInfo OwnProductInfo::GetCombinedProductInfo() const
{
    Sonarix::ProductInfo info;
    ApplyMandatorySelfSXInfoSources(info);
    return info;
}

void OwnProductInfo::NotifyMyProductInfo()
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "sending my product info notification");
    const Sonarix::ProductInfo info = GetCombinedProductInfo();
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "My Product Info: " << JsonForLog(info, false));
    m_myProductInfoRegistry.Send(info, CallbackConnection());
}

void OwnProductInfo::HandleSelfProductUpdate(const Sonarix::ProductInfo& info)
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    if (!info.has_guid() || info.guid().empty() || info.guid() != m_guid)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG,
               "Received a product info of a different product, ignoring! "
                   << "Guid: |" << info.guid() << "|");
        return;
    }

    // Only this product itself knows the fields that are checked here. A report that sets one is a fault of its sender.
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

void OwnProductInfo::HandleDiscoveredSelf(const Sonarix::ProductInfo& info)
{
    Sonarix::ProductInfo before;
    CopyAddress(m_myProductInfo, before);
    HandleSelfProductUpdate(info);
    CopyAddress(before, m_myProductInfo);
}

CallbackConnection OwnProductInfo::RegisterForMyProductInfo(const Callback<Sonarix::ProductInfo>& callback)
{
    callback(GetCombinedProductInfo());
    return m_myProductInfoRegistry.Connect(callback);
}

void OwnProductInfo::DisconnectAll()
{
    m_myProductInfoRegistry.DisconnectAll();
}

void OwnProductInfo::LogChildMode() const
{
    const bool isChild = IsInChildMode(m_myProductInfo);
    DPRINT_AS(s_aggregatorLog, DPrint::LEVEL_DEBUG, "HandleProductUpdate",
              "amIAChild: " << (isChild ? "True" : "False")
                            << " mode: " << SXCommon::ProductMode_Name(GetCurrentProductMode(m_myProductInfo)));
}

OwnProductInfo::ProductMode OwnProductInfo::GetCurrentProductMode(const Sonarix::ProductInfo& info)
{
    return info.configurations().has_currentproductmode() ? info.configurations().currentproductmode()
                                                          : SXCommon::UNKNOWN_MODE;
}

bool OwnProductInfo::IsInChildMode(const Sonarix::ProductInfo& info)
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
