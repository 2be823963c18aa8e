#pragma once

#include "tools/portico-gateway/ClientConnection.h"
#include "tools/portico-gateway/MdnsLookup.h"
#include "tools/portico-gateway/PeerAddresses.h"
#include "tools/portico-gateway/Router.h"
#include "tools/portico-gateway/Subscriptions.h"
#include "tools/portico-gateway/Surroundings.h"

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

/// Where the gateway listens and what it knows.
struct Settings
{
    std::uint16_t port = 8084;         ///< on the loopback addresses; 0: any
    std::uint16_t lanPort = kLanPort;  ///< on every address; 0: any
    std::uint16_t peerPort = kLanPort; ///< where other products listen
    std::string tlsDir;                ///< ca.pem, cert.pem, key.pem; empty: no TLS
    std::string peersFile;             ///< empty: none
    std::string ownGuid;
    Timings timings;
};

/// The gateway as a whole: its two ports and every client on them.
/// Task: everything on `task`, construction and destruction too. Owner: the program, or a test.
class GatewayProgram final
{
public:
    /// `mdns` null: the real look-up.
    GatewayProgram(NotifyTargetTaskIF* task, const Settings& settings, std::unique_ptr<MdnsLookupIF> mdns = nullptr);
    ~GatewayProgram();
    GatewayProgram(const GatewayProgram&) = delete;
    GatewayProgram& operator=(const GatewayProgram&) = delete;

    /// False, with the reason in `error`, where a port or the certificates cannot be had.
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
    Surroundings m_surroundings;
    std::map<ClientConnection*, std::shared_ptr<ClientConnection>> m_clients;
    std::vector<std::shared_ptr<WebSocket::Listener>> m_local;
    std::shared_ptr<WebSocket::Listener> m_lan;
    const std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace Gateway
