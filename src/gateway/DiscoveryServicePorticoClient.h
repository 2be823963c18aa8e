#pragma once

#include "gateway/BoundHandler.h"
#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "runtime/CallbackConnection.h"
#include "schemas/SXCommon.pb.h" // an enumeration of a schema cannot be declared ahead

#include <memory>
#include <string>

class NotifyTargetTaskIF;
class PorticoClientIF;

namespace google::protobuf
{
class Message;
}

namespace HUBAPI
{
class AdvertisementInfo;
}

namespace NetManager::Protobuf
{
class NetworkStatus;
class StationUsage;
} // namespace NetManager::Protobuf

namespace Portico
{
class Error;
}

namespace Sonarix
{
class ProductInfo;
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

class DiscoveryServiceAggregatorIF;
class DiscoveryServiceControllerIF;

/// The service's face towards the local API gateway: takes in the network status and works out the product mode,
/// serves the product table and the own record, notifies their changes, and turns a sibling's advertisement
/// request into an announcement.
/// Task: constructor and Initialize() on the main thread, everything else on the task given.
/// Owner: the controller; owns the aggregator, and holds the controller strongly on purpose.
/// Never waits for the network, and never asks a second time: what a first GET misses comes by notification.
class DiscoveryServicePorticoClient final : public DiscoveryServicePorticoClientIF
{
public:
    using Factory = std::shared_ptr<DiscoveryServicePorticoClientIF> (*)(
        NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller,
        const std::shared_ptr<PorticoClientIF>& portico,
        const std::shared_ptr<DiscoveryServiceAggregatorIF>& aggregator);

    static std::shared_ptr<DiscoveryServicePorticoClientIF>
    Create(NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller,
           const std::shared_ptr<PorticoClientIF>& portico,
           const std::shared_ptr<DiscoveryServiceAggregatorIF>& aggregator);
    static void SetFactoryOverride(Factory factory); ///< null in the product

    DiscoveryServicePorticoClient(NotifyTargetTaskIF* task, std::shared_ptr<DiscoveryServiceControllerIF> controller,
                                  std::shared_ptr<PorticoClientIF> portico,
                                  std::shared_ptr<DiscoveryServiceAggregatorIF> aggregator);
    ~DiscoveryServicePorticoClient() override;

    void Initialize() override;
    void Shutdown() override;
    void SendSonarixNotification(const Sonarix::Product& product) override;

private:
    using Answer = Callback<google::protobuf::Message>;

    SXCommon::ProductMode DetermineNewProductMode(bool isAccessory, bool isPrimaryUp, const std::string& ip) const;
    void SendMyProductInfoNotification(const Sonarix::ProductInfo& info);

    void HandleNetworkStatus(const NetManager::Protobuf::NetworkStatus& status);
    void HandleNetworkStatusError(const Portico::Error& error);
    void HandleWiFiStationUsage(const NetManager::Protobuf::StationUsage& usage);
    void HandleWiFiStationUsageError(const Portico::Error& error);
    void HandleGetMyProductInfo(const Answer& response, const Answer& error);
    void HandleGetProductList(const Answer& response, const Answer& error);
    void HandleAdvertisement(const HUBAPI::AdvertisementInfo& info, const Answer& response, const Answer& error);

    NotifyTargetTaskIF* m_task;
    std::string m_guid;
    bool m_isAccessory;
    bool m_isPrimaryUp = false; ///< edge detector of the accessory announcement
    std::shared_ptr<DiscoveryServiceControllerIF> m_controller;
    std::shared_ptr<PorticoClientIF> m_portico;
    std::shared_ptr<DiscoveryServiceAggregatorIF> m_aggregator;
    CallbackConnection m_networkStatusConnection;
    CallbackConnection m_getInfoConnection;
    CallbackConnection m_getProductsConnection;
    CallbackConnection m_spareConnection; ///< never assigned
    CallbackConnection m_stationUsageGetConnection;
    CallbackConnection m_stationUsageConnection;
    LivenessToken m_alive;
};

} // namespace SonarixService
