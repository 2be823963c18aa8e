#include "tools/hub-service/HubClient.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "schemas/NetManager.pb.h"
#include "schemas/Sonarix.pb.h"
#include <PorticoClient.h>
#include <PorticoError.pb.h>

#include <iostream>
#include <utility>

namespace
{

const DPrint s_log("HubService");

constexpr const char* kInfoPath = "/sonarix/info";
constexpr const char* kStatusPath = "/network/status";
constexpr const char* kAdvertisePath = "/startDiscoveryAdvertisement";

std::string Describe(const std::string& errorBody)
{
    Portico::Error error;
    try
    {
        ProtoToMarkup::FromJson(errorBody, &error);
    }
    catch (const ProtoToMarkup::MarkupError&)
    {
        return errorBody;
    }
    return "error " + std::to_string(error.code()) + "-" + std::to_string(error.subcode()) + ": " + error.message();
}

} // namespace

HubClient::HubClient(NotifyTargetTaskIF* task, HUBAPI::AdvertisementInfo info)
    : m_task(task)
    , m_info(std::move(info))
{
}

void HubClient::Start(const std::string& host, int port)
{
    IL::BreakThread(
        [this, host, port]
        {
            m_gateway = host + ":" + std::to_string(port);
            m_advertiser.emplace(m_task, m_info.devicename(), [this] { PostDescription(); });
            Portico::ConnectCallback onConnect([this](const bool& isConnected) { HandleConnection(isConnected); },
                                               m_task);
            m_client =
                Portico::PorticoClient::Create("HubService", host, port, "tarsier", "", &onConnect, std::nullopt, {});
            Subscribe();
        },
        m_task);
}

void HubClient::HandleConnection(bool isConnected)
{
    TASK_CHECK(m_task);
    m_isConnected = isConnected;
    if (isConnected)
    {
        RequestValues();
        return;
    }
    std::cerr << "hub-service: no gateway at " << m_gateway << "; is it running?\n";
    m_advertiser->ForgetNetwork();
}

void HubClient::Subscribe()
{
    const AsyncCallback<Sonarix::ProductInfo> onInfo(
        [this](const Sonarix::ProductInfo& info) { m_advertiser->HandleOwnName(NameIn(info)); }, m_task);
    const AsyncCallback<NetManager::Protobuf::NetworkStatus> onStatus(
        [this](const NetManager::Protobuf::NetworkStatus& status)
        { m_advertiser->HandleNetwork(status.isprimaryup()); },
        m_task);
    m_client->RegisterNotification<Sonarix::ProductInfo>(kInfoPath, onInfo, Portico::EndpointScope::PUBLIC, 1.0);
    m_client->RegisterNotification<NetManager::Protobuf::NetworkStatus>(kStatusPath, onStatus,
                                                                        Portico::EndpointScope::PUBLIC, 1.0);
}

/// The gateway may not repeat notifications from before the subscription, so both values are also requested. Errors are
/// ignored: a process that starts later sends a notification.
void HubClient::RequestValues()
{
    const AsyncCallback<Sonarix::ProductInfo> onInfo(
        [this](const Sonarix::ProductInfo& info) { m_advertiser->HandleOwnName(NameIn(info)); }, m_task);
    const AsyncCallback<NetManager::Protobuf::NetworkStatus> onStatus(
        [this](const NetManager::Protobuf::NetworkStatus& status)
        { m_advertiser->HandleNetwork(status.isprimaryup()); },
        m_task);
    const Callback<Portico::Error> ignored;
    m_client->SendGet<Sonarix::ProductInfo, Portico::Error>(kInfoPath, onInfo, ignored, 1.0);
    m_client->SendGet<NetManager::Protobuf::NetworkStatus, Portico::Error>(kStatusPath, onStatus, ignored, 1.0);
}

/// Returns an empty name if the record lacks fields that only the post sets: then the service was restarted, and the
/// name comes from a cached mDNS record.
std::string HubClient::NameIn(const Sonarix::ProductInfo& info) const
{
    const bool isPosted = (m_info.serialnumber().empty() || !info.serialnumber().empty()) &&
                          (m_info.country().empty() || !info.country().empty());
    return isPosted ? info.friendlyname() : std::string();
}

void HubClient::PostDescription()
{
    TASK_CHECK(m_task);
    const AsyncCallback<std::string, std::string> onDone(
        [this](const std::string&, const std::string& errorBody) { HandlePosted(errorBody); }, m_task);
    m_client->SendText(Portico::Verb::POST, kAdvertisePath, ProtoToMarkup::ToJson(m_info, true, false, false), onDone,
                       1.0);
}

void HubClient::HandlePosted(const std::string& errorBody)
{
    TASK_CHECK(m_task);
    if (errorBody.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, "advertised as \"" << m_info.devicename() << "\"");
        m_lastError.clear();
    }
    else if (const std::string error = Describe(errorBody); m_isConnected && error != m_lastError)
    {
        m_lastError = error;
        std::cerr << "hub-service: " << kAdvertisePath << ": " << error << "; retrying\n";
    }
    m_advertiser->HandlePosted(errorBody.empty());
}
