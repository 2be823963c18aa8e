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

/// Times of the gateway; tests shorten them.
struct Timings
{
    std::chrono::milliseconds requestLimit{10000};        ///< for the server of a path
    std::chrono::milliseconds carriedRequestLimit{12000}; ///< longer, so that the other gateway's word arrives
    std::chrono::milliseconds connectLimit{1800};         ///< for each address of a product; under a check's period
    std::chrono::milliseconds retryPause{1000};           ///< after a failure only checks try again for so long
    std::chrono::milliseconds checkPeriod{2000};
    std::chrono::milliseconds checkLimit{2000}; ///< for reaching a product; its answer has a request's limit
};

/// What the gateway's connections share. All of it outlives them.
struct Surroundings
{
    NotifyTargetTaskIF* task;
    std::string ownGuid;
    Timings timings;
    Router& router;
    Subscriptions& subscriptions;
    PeerAddresses& addresses;
    std::shared_ptr<WebSocket::TlsIdentity> tls; ///< null: products are not reached by TLS
    std::function<bool()> hasOwnList;            ///< the own service has served its list since the gateway's start
};

} // namespace Gateway
