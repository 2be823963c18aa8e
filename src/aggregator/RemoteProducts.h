#pragma once

#include "runtime/CallbackConnection.h"
#include "runtime/Liveness.h"
#include "schemas/SXCommon.pb.h" // an enumeration of a schema cannot be declared ahead
#include <PorticoClient.h>

#include <functional>
#include <map>
#include <memory>
#include <string>

namespace Sonarix
{
class ProductInfo;
}

namespace SonarixService
{

class OwnProductInfo;
class ProductTable;

/// One gateway client per tracked product, the own product included. It queries the product's information and
/// subscribes to its changes; an answer makes the row ONLINE. Its heartbeat makes the row OFFLINE.
/// Task: everything on `task` (checked in debug builds). Owner: the aggregator. After destruction no callback runs.
/// Has no timeout and no retry: the next report, heartbeat or refresh causes the next query.
class RemoteProducts final
{
public:
    using Notify = std::function<void()>;

    /// `onListChanged` publishes the list, `onProductHeard` looks for products that are offline for too long. `table`
    /// and `own` outlive this object.
    RemoteProducts(NotifyTargetTaskIF* task, ProductTable& table, const OwnProductInfo& own, Notify onListChanged,
                   Notify onProductHeard);

    /// Creates a client if `guid` has none, and queries the product in any case.
    void ConnectToRemoteProduct(const std::string& guid);
    bool HasClient(const std::string& guid) const; ///< also true for a null client, see SendRemoteProductInfoGet
    /// Drops the client, and with it the heartbeat. The row and the offline stamp stay.
    void StopTrackingHeartbeat(const std::string& guid);
    /// Drops all clients. The map of subscriptions keeps the own product's entry, which is disconnected.
    void DropAll();

private:
    void SendRemoteProductInfoGet(const std::string& guid);
    void HandleRemoteProductInfo(const Sonarix::ProductInfo& info);
    void HandleRemoteProductInfoError(const SXCommon::SonarixError& error, const std::string& guid);
    void HandleHeartbeatStatus(const std::string& guid, PORTICO_CLIENT_ERRORS status);
    static std::string DetermineGatewayProtocol(const SXCommon::ProductMode& mode);
    static std::shared_ptr<PorticoClientIF>
    CreateRemoteProductClient(const std::string& guid, const Portico::HeartbeatCallback& heartbeatCallback,
                              const std::string& protocol);

    NotifyTargetTaskIF* m_task;
    ProductTable& m_table;
    const OwnProductInfo& m_own;
    const Notify m_onListChanged;
    const Notify m_onProductHeard;
    std::map<std::string, std::shared_ptr<PorticoClientIF>> m_remoteClients;
    std::map<std::string, CallbackConnection> m_remoteInfoConnections;
    Liveness m_liveness;
};

} // namespace SonarixService
