#include "gateway/DiscoveryServicePorticoClient.h"

#include "gateway/DeviceInfoConversion.h"
#include "interfaces/DiscoveryServiceAggregatorIF.h"
#include "interfaces/DiscoveryServiceControllerIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "schemas/HubApi.pb.h"
#include "schemas/NetManager.pb.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"
#include <MfgData.h>
#include <PorticoClientIF.h>
#include <PorticoError.pb.h>
#include <ProdConfigData.h>

#include <set>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServicePorticoClient");

constexpr double kVersion = 1.0;

const std::string kInfoPath = "/sonarix/info";
const std::string kProductsPath = "/sonarix/products";
const std::string kAdvertisementPath = "/startDiscoveryAdvertisement";
const std::string kNetworkStatusPath = "/network/status";
const std::string kStationUsagePath = "/network/wifi/stationUsage";

} // namespace

std::shared_ptr<DiscoveryServicePorticoClientIF> DiscoveryServicePorticoClient::Create(
    NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller,
    const std::shared_ptr<PorticoClientIF>& portico, const std::shared_ptr<DiscoveryServiceAggregatorIF>& aggregator)
{
    const Factory factory = s_factoryOverride.Get();
    return factory != nullptr ? factory(task, controller, portico, aggregator)
                              : std::make_shared<DiscoveryServicePorticoClient>(task, controller, portico, aggregator);
}

DiscoveryServicePorticoClient::DiscoveryServicePorticoClient(NotifyTargetTaskIF* task,
                                                             std::shared_ptr<DiscoveryServiceControllerIF> controller,
                                                             std::shared_ptr<PorticoClientIF> portico,
                                                             std::shared_ptr<DiscoveryServiceAggregatorIF> aggregator)
    : m_task(task)
    , m_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"))
    , m_isAccessory(ProdConfigData::IsDeviceInAccessoryMode())
    , m_controller(std::move(controller))
    , m_portico(std::move(portico))
    , m_aggregator(std::move(aggregator))
{
    // Dropping a CallbackConnection does not disconnect it: both subscriptions end with the aggregator.
    m_aggregator->RegisterForMyProductInfo(m_liveness.OnTask<Sonarix::ProductInfo>(
        m_task,
        [this](const Sonarix::ProductInfo& info)
        {
            TASK_CHECK(m_task);
            DPRINT(s_log, DPrint::LEVEL_INFO, "sending my product info notification");
            SendMyProductInfoNotification(info);
        }));
    // The handler is not posted, because the sender runs on this task: in a burst of answers, each would queue a copy
    // of the whole list behind the remaining answers.
    m_aggregator->RegisterForProductList(m_liveness.Guard(
        [this](const Sonarix::ProductList& list)
        {
            TASK_CHECK(m_task);
            DPRINT(s_log, DPrint::LEVEL_INFO, "sending product list notification");
            m_portico->SendNotification(kProductsPath, list, kVersion);
        }));
}

DiscoveryServicePorticoClient::~DiscoveryServicePorticoClient() = default;

void DiscoveryServicePorticoClient::Initialize()
{
    using Self = DiscoveryServicePorticoClient;
    using NetManager::Protobuf::NetworkStatus;
    using NetManager::Protobuf::StationUsage;

    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Initialize");

    // The first value of each source comes by GET, later values by notification. Both have the same handler.
    m_networkStatusConnection = m_portico->RegisterNotification<NetworkStatus>(
        kNetworkStatusPath, m_liveness.OnTask(m_task, this, &Self::HandleNetworkStatus), Portico::EndpointScope::PUBLIC,
        kVersion);

    m_stationUsageConnection.Disconnect();
    m_stationUsageConnection = m_portico->RegisterNotification<StationUsage>(
        kStationUsagePath, m_liveness.OnTask(m_task, this, &Self::HandleWiFiStationUsage),
        Portico::EndpointScope::PUBLIC, kVersion);

    m_stationUsageGetConnection.Disconnect();
    m_stationUsageGetConnection = m_portico->SendGet<StationUsage, Portico::Error>(
        kStationUsagePath, m_liveness.OnTask(m_task, this, &Self::HandleWiFiStationUsage),
        m_liveness.OnTask(m_task, this, &Self::HandleWiFiStationUsageError), kVersion);

    m_portico->SendGet<NetworkStatus, Portico::Error>(
        kNetworkStatusPath, m_liveness.OnTask(m_task, this, &Self::HandleNetworkStatus),
        m_liveness.OnTask(m_task, this, &Self::HandleNetworkStatusError), kVersion);

    m_getInfoConnection =
        m_portico->RegisterGet(kInfoPath, m_liveness.OnTask(m_task, this, &Self::HandleGetMyProductInfo),
                               Portico::EndpointScope::PUBLIC, kVersion, "Unknown", 0);
    m_getProductsConnection =
        m_portico->RegisterGet(kProductsPath, m_liveness.OnTask(m_task, this, &Self::HandleGetProductList),
                               Portico::EndpointScope::PRIVATE, kVersion, "Unknown", 0);
    // Overwrites the handle of the list endpoint on purpose: Shutdown() must not disconnect that endpoint.
    m_getProductsConnection = m_portico->RegisterPost<HUBAPI::AdvertisementInfo>(
        kAdvertisementPath, m_liveness.OnTask(m_task, this, &Self::HandleAdvertisement),
        Portico::EndpointScope::PRIVATE, kVersion, "Unknown", 0);
}

void DiscoveryServicePorticoClient::HandleNetworkStatus(const NetManager::Protobuf::NetworkStatus& status)
{
    TASK_CHECK(m_task);
    const std::string ip = status.has_primaryipaddress() ? status.primaryipaddress() : std::string();
    DPRINT(s_log, DPrint::LEVEL_INFO,
           std::boolalpha << "NetworkStatus: has_primary: " << status.has_primary()
                          << ", primary: " << NetManager::Protobuf::NetworkType_Name(status.primary())
                          << ", isPrimaryUp: " << status.isprimaryup() << ", primaryIpAddress: |" << ip << "| ");

    m_controller->SetNetworkStatus(status);

    const bool wasPrimaryUp = m_isPrimaryUp;
    m_isPrimaryUp = status.isprimaryup();

    const SXCommon::ProductMode mode = DetermineNewProductMode(m_isAccessory, m_isPrimaryUp, ip);
    if (mode == SXCommon::UNKNOWN_MODE)
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "We do not (yet) have a new ProductMode. Informing aggregator about our new ip. Hopefully it handles "
               "UNKNOWN_MODE properly");
    }
    m_aggregator->InitializeProtocols(mode, ip);

    if (!status.has_primary() || ip.empty())
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               "We do not have a primary yet. Cannot make any decisions about our mode until we do!");
        return;
    }

    const std::shared_ptr<MdnsDiscoveryProtocolIF> mdns = m_controller->GetMdnsDiscoveryProtocol();
    if (!wasPrimaryUp && m_isPrimaryUp && m_isAccessory && mdns)
    {
        SonarixPb::DeviceInfo device;
        device.set_guid(m_guid);
        device.set_ipaddress(status.primaryipaddress());
        mdns->BroadcastInitialAccessoryAnnouncement(device);
    }
}

SXCommon::ProductMode DiscoveryServicePorticoClient::DetermineNewProductMode(bool isAccessory, bool isPrimaryUp,
                                                                             const std::string& ip) const
{
    if (isAccessory)
    {
        return SXCommon::ACCESSORY;
    }
    if (!ip.empty())
    {
        return isPrimaryUp ? SXCommon::HOST : SXCommon::SETUP;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "Primary IP address is empty, cannot determine product mode.");
    return SXCommon::UNKNOWN_MODE;
}

void DiscoveryServicePorticoClient::HandleNetworkStatusError(const Portico::Error& error)
{
    TASK_CHECK(m_task);
    // The failed GET is not repeated: the next status comes by notification.
    DPRINT(s_log, DPrint::LEVEL_WARNING,
           "Error (" << error.code() << "-" << error.subcode() << ") " << error.message());
}

void DiscoveryServicePorticoClient::HandleWiFiStationUsage(const NetManager::Protobuf::StationUsage& usage)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    std::set<std::string> bands;
    for (const int band : usage.stationbands())
    {
        bands.insert(NetManager::Protobuf::WiFiRadioBand_Name(static_cast<NetManager::Protobuf::WiFiRadioBand>(band)));
    }
    m_aggregator->SetSupportedWifiBands(bands);
}

void DiscoveryServicePorticoClient::HandleWiFiStationUsageError(const Portico::Error& error)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, ProtoToMarkup::ToJson(error, true, false, false));
}

void DiscoveryServicePorticoClient::HandleGetMyProductInfo(const Answer& response, const Answer& error)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    m_aggregator->GetMyProductInfo(response, error);
}

void DiscoveryServicePorticoClient::HandleGetProductList(const Answer& response, const Answer& /*error*/)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    Sonarix::ProductList list;
    m_aggregator->GetProductList(list);
    response(list);
}

void DiscoveryServicePorticoClient::HandleAdvertisement(const HUBAPI::AdvertisementInfo& info, const Answer& response,
                                                        const Answer& error)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "");
    const SonarixPb::DeviceInfo device = DeviceInfoFromAdvertisement(info);

    if (const std::shared_ptr<MdnsDiscoveryProtocolIF> mdns = m_controller->GetMdnsDiscoveryProtocol())
    {
        mdns->BroadcastInitialDeviceAnnouncement(device);
        response(info);
    }
    else
    {
        Portico::Error unavailable;
        unavailable.set_code(503);
        unavailable.set_subcode(0);
        unavailable.set_message("MDNS Service not available.");
        error(unavailable);
    }
    m_aggregator->HandleProductInfoAdvertisement(ProductInfoFromDeviceInfo(device));
}

void DiscoveryServicePorticoClient::SendMyProductInfoNotification(const Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "Sending product info notification");
    m_portico->SendNotification(kInfoPath, info, kVersion);
}

void DiscoveryServicePorticoClient::SendSonarixNotification(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, product.DebugString());
    Sonarix::ProductList list;
    *list.add_products() = product;
    m_portico->SendNotification(kProductsPath, list, kVersion);
}

void DiscoveryServicePorticoClient::Shutdown()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Shutdown");
    m_aggregator->Shutdown();
    m_networkStatusConnection.Disconnect();
    m_getInfoConnection.Disconnect();
    m_getProductsConnection.Disconnect();
    m_spareConnection.Disconnect();
    m_portico->Shutdown();
}

} // namespace SonarixService
