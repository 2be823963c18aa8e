#include "tools/network-status/Publisher.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include <PorticoClient.h>

#include <utility>

namespace
{

const DPrint s_log("NetworkStatus");

constexpr const char* kStatusPath = "/network/status";
constexpr const char* kUsagePath = "/network/wifi/stationUsage";

} // namespace

Publisher::Publisher(NotifyTargetTaskIF* task, NetManager::Protobuf::NetworkStatus status,
                     NetManager::Protobuf::StationUsage usage)
    : m_task(task)
    , m_status(std::move(status))
    , m_usage(std::move(usage))
{
}

void Publisher::Start(const std::string& host, int port)
{
    IL::BreakThread(
        [this, host, port]
        {
            using Response = PorticoClientIF::Response;
            Portico::ConnectCallback onConnect([this](const bool& isConnected) { HandleConnection(isConnected); },
                                               m_task);
            m_client = Portico::PorticoClient::Create("NetworkService", host, port, "tarsier", "", &onConnect,
                                                      std::nullopt, {});
            const AsyncCallback<Response, Response> getStatus(
                [this](const Response& response, const Response&) { response(m_status); }, m_task);
            const AsyncCallback<Response, Response> getUsage(
                [this](const Response& response, const Response&) { response(m_usage); }, m_task);
            m_client->RegisterGet(kStatusPath, getStatus, Portico::EndpointScope::PRIVATE, 1.0, "Unknown", 0);
            m_client->RegisterGet(kUsagePath, getUsage, Portico::EndpointScope::PRIVATE, 1.0, "Unknown", 0);
        },
        m_task);
}

void Publisher::Update(const NetManager::Protobuf::NetworkStatus& status)
{
    IL::BreakThread([this, status] { HandleUpdate(status); }, m_task);
}

void Publisher::HandleConnection(bool isConnected)
{
    TASK_CHECK(m_task);
    if (isConnected)
    {
        m_client->SendNotification(kStatusPath, m_status, 1.0);
        m_client->SendNotification(kUsagePath, m_usage, 1.0);
    }
}

void Publisher::HandleUpdate(const NetManager::Protobuf::NetworkStatus& status)
{
    TASK_CHECK(m_task);
    if (status.SerializeAsString() == m_status.SerializeAsString())
    {
        return;
    }
    m_status = status;
    DPRINT(s_log, DPrint::LEVEL_INFO, m_status.ShortDebugString());
    if (m_client)
    {
        m_client->SendNotification(kStatusPath, m_status, 1.0);
    }
}
