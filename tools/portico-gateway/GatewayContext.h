#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace WebSocket
{
class TlsIdentity;
}

namespace Gateway
{

class PeerAddresses;
class Router;
class Subscriptions;

/// Time limits and periods. Tests shorten them.
struct Timings
{
    std::chrono::milliseconds requestLimit{10000}; ///< for the answer of a local server
    std::chrono::milliseconds remoteRequestLimit{
        12000}; ///< longer, so that a timeout of the other gateway arrives as its answer
    std::chrono::milliseconds connectLimit{1800}; ///< for each address of a product; less than checkPeriod
    std::chrono::milliseconds retryPause{1000};   ///< after a failed attempt; meanwhile only checks connect
    std::chrono::milliseconds checkPeriod{2000};
    std::chrono::milliseconds checkLimit{2000}; ///< for reaching a product; requestLimit applies to its answer
};

/// References that all connections of the gateway share. The gateway outlives the connections.
struct GatewayContext
{
    NotifyTargetTaskIF* task;
    std::string ownGuid;
    Timings timings;
    Router& router;
    Subscriptions& subscriptions;
    PeerAddresses& addresses;
    std::shared_ptr<WebSocket::TlsIdentity> tls; ///< null: no TLS connections to other products
    std::function<bool()> hasOwnList;            ///< this product's service has served its list since the start
};

} // namespace Gateway
