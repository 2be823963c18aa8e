#pragma once

#include "interfaces/DiscoveryServicePorticoClientIF.h"
#include "runtime/CallbackConnection.h"
#include "runtime/FactoryOverride.h"
#include "runtime/Liveness.h"
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

/// Connects this service to the local API gateway: receives the network status and derives the product mode from it,
/// serves the product table and the own product's record, notifies their changes, and announces the product by mDNS at
/// the request of another process.
/// Task: constructor and Initialize() on the main thread while the task is held, everything else on the given task
/// (checked in debug builds). Owner: the controller. Owns the aggregator; holds the controller strongly on purpose.
/// Never waits for the network. Never repeats a GET: later values come by notification.
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
    static inline FactoryOverride<Factory> s_factoryOverride;

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
    bool m_isPrimaryUp = false; ///< of the last status: a rising edge makes an accessory announce itself
    std::shared_ptr<DiscoveryServiceControllerIF> m_controller;
    std::shared_ptr<PorticoClientIF> m_portico;
    std::shared_ptr<DiscoveryServiceAggregatorIF> m_aggregator;
    CallbackConnection m_networkStatusConnection;
    CallbackConnection m_getInfoConnection;
    CallbackConnection m_getProductsConnection;
    CallbackConnection m_spareConnection; ///< never assigned
    CallbackConnection m_stationUsageGetConnection;
    CallbackConnection m_stationUsageConnection;
    Liveness m_liveness;
};

} // namespace SonarixService
