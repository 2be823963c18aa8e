#pragma once

#include "runtime/Liveness.h"
#include "tools/portico-gateway/ClientConnection.h"
#include "tools/portico-gateway/GatewayContext.h"
#include "tools/portico-gateway/MdnsLookup.h"
#include "tools/portico-gateway/PeerAddresses.h"
#include "tools/portico-gateway/Router.h"
#include "tools/portico-gateway/Subscriptions.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace WebSocket
{
class Connection;
class Listener;
} // namespace WebSocket

namespace Gateway
{

/// Ports, files and identity of the gateway.
struct Settings
{
    std::uint16_t port = 8084;         ///< on the loopback addresses; 0: any
    std::uint16_t lanPort = kLanPort;  ///< on every address; 0: any
    std::uint16_t peerPort = kLanPort; ///< LAN port of other products
    std::string tlsDir;                ///< ca.pem, cert.pem, key.pem; empty: no TLS
    std::string peersFile;             ///< empty: none
    std::string ownGuid;
    Timings timings;
};

/// The whole gateway: its two ports and all clients.
/// Task: everything on `task`, construction and destruction too. Owner: the program or a test.
class GatewayProgram final
{
public:
    /// If `mdns` is null, the gateway uses MdnsLookup.
    GatewayProgram(NotifyTargetTaskIF* task, const Settings& settings, std::unique_ptr<MdnsLookupIF> mdns = nullptr);
    ~GatewayProgram();
    GatewayProgram(const GatewayProgram&) = delete;
    GatewayProgram& operator=(const GatewayProgram&) = delete;

    /// Returns false and sets `error` if a port cannot be bound or the certificates cannot be loaded.
    bool Start(std::string& error);

    std::uint16_t Port() const;
    std::uint16_t LanPort() const;

private:
    bool ListenLocal(std::string& error);
    bool ListenLan(std::string& error);
    void Take(std::shared_ptr<ClientConnection> client);
    void HandleServed(const std::string& verb, const std::string& path);

    NotifyTargetTaskIF* m_task;
    const Settings m_settings;
    Router m_router;
    Subscriptions m_subscriptions;
    PeerAddresses m_addresses;
    bool m_hasOwnList = false;
    GatewayContext m_context;
    std::map<ClientConnection*, std::shared_ptr<ClientConnection>> m_clients;
    std::vector<std::shared_ptr<WebSocket::Listener>> m_local;
    std::shared_ptr<WebSocket::Listener> m_lan;
    Liveness m_liveness;
};

} // namespace Gateway
