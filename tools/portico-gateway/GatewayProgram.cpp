#include "tools/portico-gateway/GatewayProgram.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "tools/portico-gateway/LanConnection.h"
#include "tools/portico-gateway/LocalConnection.h"
#include "websocket/WebSocket.h"

#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

const std::string kPlain = "tarsier";
const std::string kMutualTls = "tarsier_mTLS";
const std::string kListPath = "/sonarix/products";

/// A local process that has died is noticed by the kernel; this is for one that hangs with its socket open.
constexpr std::chrono::milliseconds kLocalIdleTimeout{15000};
/// A product that has lost its power or its cable gives its place back.
constexpr std::chrono::milliseconds kLanIdleTimeout{10000};
/// What is asked over the LAN is short; bodies only go out there.
constexpr std::size_t kLanMessageBytes = 256U << 10U;

} // namespace

GatewayProgram::GatewayProgram(NotifyTargetTaskIF* task, const Settings& settings, std::unique_ptr<MdnsLookupIF> mdns)
    : m_task(task)
    , m_settings(settings)
    , m_router(settings.ownGuid)
    , m_subscriptions(m_router)
    , m_addresses(task, m_router, settings.peersFile, settings.peerPort,
                  mdns != nullptr ? std::move(mdns) : std::make_unique<MdnsLookup>(task))
    , m_surroundings{task, settings.ownGuid, settings.timings, m_router, m_subscriptions, m_addresses, nullptr, [this] {
                         return m_hasOwnList;
                     }}
{
    m_router.SetServedCallback([this](const std::string& verb, const std::string& path) { HandleServed(verb, path); });
}

GatewayProgram::~GatewayProgram() = default;

bool GatewayProgram::Start(std::string& error)
{
    if (!m_settings.tlsDir.empty())
    {
        m_surroundings.tls = WebSocket::TlsIdentity::Load(m_settings.tlsDir, error);
        if (m_surroundings.tls == nullptr)
        {
            return false;
        }
    }
    if (!ListenLocal(error) || !ListenLan(error))
    {
        return false;
    }
    DPRINTF(s_log, DPrint::LEVEL_INFO, "product %s: listening on port %u, for the LAN on port %u%s",
            m_settings.ownGuid.c_str(), static_cast<unsigned>(Port()), static_cast<unsigned>(LanPort()),
            m_surroundings.tls != nullptr ? " (plain and TLS)" : " (plain)");
    return true;
}

std::uint16_t GatewayProgram::Port() const
{
    return m_local.front()->Port();
}

std::uint16_t GatewayProgram::LanPort() const
{
    return m_lan->Port();
}

bool GatewayProgram::ListenLocal(std::string& error)
{
    WebSocket::ListenOptions options;
    options.port = m_settings.port;
    options.subProtocols = {kPlain, kMutualTls}; // the latter for what lies beyond; on this machine all is plain
    options.limits.idleTimeout = kLocalIdleTimeout;
    options.limits.kernelBufferBytes = WebSocket::kPromptBufferBytes;
    const auto accepted = [this](std::shared_ptr<WebSocket::Connection> connection)
    { Take(std::make_shared<LocalConnection>(m_surroundings, std::move(connection))); };

    std::shared_ptr<WebSocket::Listener> listener = WebSocket::Listen(m_task, options, accepted, error);
    if (listener == nullptr)
    {
        return false;
    }
    options.port = listener->Port();
    m_local.push_back(std::move(listener));

    // "localhost" is this address too where there is IPv6; where there is none, nobody misses it.
    options.address = "::1";
    std::string ignored;
    if (auto second = WebSocket::Listen(m_task, options, accepted, ignored))
    {
        m_local.push_back(std::move(second));
    }
    return true;
}

bool GatewayProgram::ListenLan(std::string& error)
{
    WebSocket::ListenOptions options;
    options.port = m_settings.lanPort;
    options.subProtocols = {kPlain};
    options.tls = m_surroundings.tls;
    options.tlsSubProtocols = {kMutualTls};
    options.limits.idleTimeout = kLanIdleTimeout;
    options.limits.maxMessageBytes = kLanMessageBytes;
    const auto accepted = [this](std::shared_ptr<WebSocket::Connection> connection)
    { Take(std::make_shared<LanConnection>(m_surroundings, std::move(connection))); };

    options.address = "::";
    m_lan = WebSocket::Listen(m_task, options, accepted, error);
    if (m_lan == nullptr) // a kernel without IPv6
    {
        options.address = "0.0.0.0";
        m_lan = WebSocket::Listen(m_task, options, accepted, error);
    }
    return m_lan != nullptr;
}

void GatewayProgram::Take(std::shared_ptr<ClientConnection> client)
{
    ClientConnection* const key = client.get();
    m_clients[key] = std::move(client);
    key->Start([this](ClientConnection* gone) { m_clients.erase(gone); });
}

void GatewayProgram::HandleServed(const std::string& verb, const std::string& path)
{
    if (verb != "get" || path != kListPath)
    {
        return;
    }
    m_hasOwnList = true;
    // Once the client that serves it has its answer.
    IL::BreakThread(
        [this, alive = std::weak_ptr(m_alive)]
        {
            if (!alive.lock())
            {
                return;
            }
            for (const auto& [key, client] : m_clients)
            {
                client->HandleOwnList();
            }
        },
        m_task);
}

} // namespace Gateway
