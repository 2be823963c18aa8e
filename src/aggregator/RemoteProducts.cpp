#include "aggregator/RemoteProducts.h"

#include "aggregator/AggregatorLog.h"
#include "aggregator/OwnProductInfo.h"
#include "aggregator/ProductTable.h"
#include "runtime/TaskCheck.h"
#include <PorticoClientIF.h>

#include <cstddef>
#include <utility>

namespace SonarixService
{

namespace
{

const std::string kInfoPath = "/sonarix/info";
constexpr double kVersion = 1.0;
/// The gateway closes a connection that queues more than 4 MiB of list, so a larger answer of one neighbour could
/// hide the whole list from all subscribers. The information of a product with 100 children has about this size.
constexpr std::size_t kMaxAnswerBytes = 64U << 10U;

} // namespace

RemoteProducts::RemoteProducts(NotifyTargetTaskIF* task, ProductTable& table, const OwnProductInfo& own,
                               Notify onListChanged, Notify onProductHeard)
    : m_task(task)
    , m_table(table)
    , m_own(own)
    , m_onListChanged(std::move(onListChanged))
    , m_onProductHeard(std::move(onProductHeard))
{
}

void RemoteProducts::ConnectToRemoteProduct(const std::string& guid)
{
    TASK_CHECK(m_task);
    DPRINTF(s_aggregatorLog, DPrint::LEVEL_INFO, "ConnectToRemoteProduct: %s", guid.c_str());
    if (!m_remoteClients.contains(guid))
    {
        const auto heartbeat = m_liveness.OnTask<const std::string, const PORTICO_CLIENT_ERRORS>(
            m_task, [this](const std::string& product, const PORTICO_CLIENT_ERRORS& status)
            { HandleHeartbeatStatus(product, status); });
        const std::string protocol = DetermineGatewayProtocol(m_own.Mode());
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "Creating GW client for guid |" << guid << "| and protocol |" << protocol << "|");
        const std::shared_ptr<PorticoClientIF> client = CreateRemoteProductClient(guid, heartbeat, protocol);
        m_remoteClients[guid] = client;
        m_remoteInfoConnections[guid] = client->RegisterNotification<Sonarix::ProductInfo>(
            kInfoPath, m_liveness.OnTask(m_task, this, &RemoteProducts::HandleRemoteProductInfo),
            Portico::EndpointScope::PUBLIC, kVersion);
    }
    SendRemoteProductInfoGet(guid);
}

void RemoteProducts::SendRemoteProductInfoGet(const std::string& guid)
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "For guid |" << guid << "|");
    // operator[] stores a null client for an unknown guid. Until the entry is reaped or the mode changes,
    // ConnectToRemoteProduct treats it as connected.
    const std::shared_ptr<PorticoClientIF> client = m_remoteClients[guid];
    if (!client)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR, "No PorticoClient for guid |" << guid << "|");
        return;
    }
    client->SendGet<Sonarix::ProductInfo, SXCommon::SonarixError>(
        kInfoPath, m_liveness.OnTask(m_task, this, &RemoteProducts::HandleRemoteProductInfo),
        m_liveness.OnTask<SXCommon::SonarixError>(m_task, [this, guid](const SXCommon::SonarixError& error)
                                                  { HandleRemoteProductInfoError(error, guid); }),
        kVersion);
}

void RemoteProducts::HandleRemoteProductInfo(const Sonarix::ProductInfo& info)
{
    TASK_CHECK(m_task);
    const std::string& guid = info.guid(); // of the answer, which can differ from the guid of the client
    DPRINTF(s_aggregatorLog, DPrint::LEVEL_INFO, "HandleRemoteProductInfo: guid %s", guid.c_str());
    if (const std::size_t bytes = info.ByteSizeLong(); bytes > kMaxAnswerBytes)
    {
        DPRINTF(s_aggregatorLog, DPrint::LEVEL_ERROR, "The information of %s has %zu bytes, more than %zu: ignored",
                guid.c_str(), bytes, kMaxAnswerBytes);
        return;
    }
    Sonarix::Product& row = m_table.SetOnline(info);
    if (guid == m_own.Guid())
    {
        m_own.ApplyMandatorySelfSXInfoSources(*row.mutable_productinfo());
    }
    m_onProductHeard();
    m_onListChanged();
}

void RemoteProducts::HandleRemoteProductInfoError(const SXCommon::SonarixError& error, const std::string& guid)
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
           "Error getting remote product info (delays device going online) from remote guid: "
               << guid << ". Reason: |" << error.message() << "| subcode: |" << error.subcode() << "|");
}

void RemoteProducts::HandleHeartbeatStatus(const std::string& guid, PORTICO_CLIENT_ERRORS status)
{
    TASK_CHECK(m_task);
    const std::string name = m_table.Row(guid).productinfo().friendlyname();

    if (status == HEARTBEAT_OFFLINE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Heartbeat says device " << name << " is OFFLINE. Guid: " << guid);
        if (m_table.SetOffline(guid))
        {
            m_onListChanged();
        }
        m_table.StampOffline(guid);
    }
    else if (status == HEARTBEAT_ONLINE)
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Heartbeat says device " << name << " is ONLINE. Guid: " << guid);
    }

    if (status == HEARTBEAT_OFFLINE || status == HEARTBEAT_ONLINE)
    {
        SendRemoteProductInfoGet(guid); // after OFFLINE, only an answer makes the row ONLINE again
    }
    m_onProductHeard();
}

bool RemoteProducts::HasClient(const std::string& guid) const
{
    TASK_CHECK(m_task);
    return m_remoteClients.contains(guid);
}

void RemoteProducts::StopTrackingHeartbeat(const std::string& guid)
{
    TASK_CHECK(m_task);
    m_remoteClients.erase(guid);
    m_remoteInfoConnections.erase(guid);
}

void RemoteProducts::DropAll()
{
    TASK_CHECK(m_task);
    m_remoteClients.clear();
    if (m_remoteInfoConnections.contains(m_own.Guid()))
    {
        std::erase_if(m_remoteInfoConnections, [this](const auto& entry) { return entry.first != m_own.Guid(); });
    }
    m_remoteInfoConnections[m_own.Guid()].Disconnect();
}

std::string RemoteProducts::DetermineGatewayProtocol(const SXCommon::ProductMode& mode)
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

std::shared_ptr<PorticoClientIF>
RemoteProducts::CreateRemoteProductClient(const std::string& guid, const Portico::HeartbeatCallback& heartbeatCallback,
                                          const std::string& protocol)
{
    return Portico::PorticoClient::Create("DiscoveryServiceAggregator-" + guid, "localhost", 8084, protocol, guid,
                                          nullptr, heartbeatCallback, Portico::CommonClientCreationInfo());
}

} // namespace SonarixService
