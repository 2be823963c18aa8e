// Connections to products: when one exists, what it asks, and what an answer or a heartbeat does to the table.

#include "aggregator/AggregatorLog.h"
#include "aggregator/DiscoveryServiceAggregator.h"
#include "aggregator/ProductMerge.h"
#include "runtime/MonotonicClock.h"
#include <PorticoClientIF.h>

#include <cstddef>

namespace SonarixService
{

namespace
{

const std::string kInfoPath = "/sonarix/info";
constexpr double kVersion = 1.0;
/// A product with a hundred children takes that much. The gateway ends a connection over 4 MiB of list, so that one
/// neighbour's answer could keep the whole list from everybody.
constexpr std::size_t kMaxAnswerBytes = 64U << 10U;

} // namespace

void DiscoveryServiceAggregator::ConnectToRemoteProduct(const std::string& guid)
{
    DPRINTF(s_aggregatorLog, DPrint::LEVEL_INFO, "ConnectToRemoteProduct: %s", guid.c_str());
    if (!m_remoteClients.contains(guid))
    {
        const auto heartbeat = OnTask<const std::string, const PORTICO_CLIENT_ERRORS>(
            [this](const std::string& product, const PORTICO_CLIENT_ERRORS& status)
            { HandleHeartbeatStatus(product, status); });
        const std::string protocol = DetermineGatewayProtocol(m_currentProductMode);
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Creating GW client for guid |" << guid << "| and protocol |" << protocol << "|");
        const std::shared_ptr<PorticoClientIF> client = CreateRemoteProductClient(guid, heartbeat, protocol);
        m_remoteClients[guid] = client;
        m_remoteInfoConnections[guid] = client->RegisterNotification<Sonarix::ProductInfo>(
            kInfoPath,
            OnTask<Sonarix::ProductInfo>([this](const Sonarix::ProductInfo& info) { HandleRemoteProductInfo(info); }),
            Portico::EndpointScope::PUBLIC, kVersion);
    }
    SendRemoteProductInfoGet(guid);
}

void DiscoveryServiceAggregator::SendRemoteProductInfoGet(const std::string& guid)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "For guid |" << guid << "|");
    // A guid without a client gets an empty place, which counts as a client until an expiry or a mode change.
    const std::shared_ptr<PorticoClientIF> client = m_remoteClients[guid];
    if (!client)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, "No PorticoClient for guid |" << guid << "|");
        return;
    }
    client->SendGet<Sonarix::ProductInfo, SXCommon::SonarixError>(
        kInfoPath,
        OnTask<Sonarix::ProductInfo>([this](const Sonarix::ProductInfo& info) { HandleRemoteProductInfo(info); }),
        OnTask<SXCommon::SonarixError>([this, guid](const SXCommon::SonarixError& error)
                                       { HandleRemoteProductInfoError(error, guid); }),
        kVersion);
}

void DiscoveryServiceAggregator::HandleRemoteProductInfo(const Sonarix::ProductInfo& info)
{
    const std::string& guid = info.guid(); // who answered, whoever was asked
    DPRINTF(s_aggregatorLog, DPrint::LEVEL_INFO, "HandleRemoteProductInfo: guid %s", guid.c_str());
    if (const std::size_t bytes = info.ByteSizeLong(); bytes > kMaxAnswerBytes)
    {
        DPRINTF(s_aggregatorLog, DPrint::LEVEL_ERROR, "The information of %s takes %zu bytes, more than %zu: left out",
                guid.c_str(), bytes, kMaxAnswerBytes);
        return;
    }
    m_offlineStamps.erase(guid);

    Sonarix::Product& entry = m_products[guid];
    Sonarix::ProductInfo merged = MergeProductInfo(entry.productinfo(), info);
    entry.set_state(SXCommon::ONLINE);
    *entry.mutable_productinfo() = std::move(merged);
    if (guid == m_guid)
    {
        ApplyMandatorySelfSXInfoSources(*entry.mutable_productinfo());
    }

    HandleReapOfflineProducts();
    NotifyProductList();
}

void DiscoveryServiceAggregator::HandleRemoteProductInfoError(const SXCommon::SonarixError& error,
                                                              const std::string& guid)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
           "Error getting remote product info (delays device going online) from remote guid: "
               << guid << ". Reason: |" << error.message() << "| subcode: |" << error.subcode() << "|");
}

void DiscoveryServiceAggregator::HandleHeartbeatStatus(const std::string& guid, PORTICO_CLIENT_ERRORS status)
{
    Sonarix::Product& entry = m_products[guid];
    const std::string name = entry.productinfo().friendlyname();

    if (status == HEARTBEAT_OFFLINE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Heartbeat says device " << name << " is OFFLINE. Guid: " << guid);
        if (entry.state() != SXCommon::OFFLINE)
        {
            entry.set_state(SXCommon::OFFLINE);
            NotifyProductList();
        }
        m_offlineStamps.try_emplace(guid, MonotonicClock::NowSec());
    }
    else if (status == HEARTBEAT_ONLINE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Heartbeat says device " << name << " is ONLINE. Guid: " << guid);
    }

    if (status == HEARTBEAT_OFFLINE || status == HEARTBEAT_ONLINE)
    {
        SendRemoteProductInfoGet(guid); // the way back, too
    }
    HandleReapOfflineProducts();
}

std::string DiscoveryServiceAggregator::DetermineGatewayProtocol(const ProductMode& mode)
{
    switch (mode)
    {
    case SXCommon::SETUP:
    case SXCommon::ACCESSORY:
        return "tarsier_mTLS";
    case SXCommon::UNKNOWN_MODE:
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Mode unknown, defaulting to PORTICO_INTERNAL_PROTOCOL");
        break;
    case SXCommon::HOST:
        break;
    }
    return "tarsier";
}

std::shared_ptr<PorticoClientIF> DiscoveryServiceAggregator::CreateRemoteProductClient(
    const std::string& guid, const Portico::HeartbeatCallback& heartbeatCallback, const std::string& protocol)
{
    return Portico::PorticoClient::Create("DiscoveryServiceAggregator-" + guid, "localhost", 8084, protocol, guid,
                                          nullptr, heartbeatCallback, Portico::CommonClientCreationInfo());
}

} // namespace SonarixService
