#include "tools/portico-gateway/GatewayProgram.h"

#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
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

/// The kernel reports the end of a local process. This timeout is for a process that hangs with its socket open.
constexpr std::chrono::milliseconds kLocalIdleTimeout{15000};
/// Idle timeout that frees the connection of a product that lost power or network.
constexpr std::chrono::milliseconds kLanIdleTimeout{10000};
/// Requests from the LAN are short. Only answers and notifications, which go out, have large bodies.
constexpr std::size_t kLanMessageBytes = 256U << 10U;

} // namespace

GatewayProgram::GatewayProgram(NotifyTargetTaskIF* task, const Settings& settings, std::unique_ptr<MdnsLookupIF> mdns)
    : m_task(task)
    , m_settings(settings)
    , m_router(settings.ownGuid)
    , m_subscriptions(m_router)
    , m_addresses(task, m_router, settings.peersFile, settings.peerPort,
                  mdns != nullptr ? std::move(mdns) : std::make_unique<MdnsLookup>(task))
    , m_context{task, settings.ownGuid, settings.timings, m_router, m_subscriptions, m_addresses, nullptr, [this] {
                    return m_hasOwnList;
                }}
{
    m_router.SetServedCallback([this](const std::string& verb, const std::string& path) { HandleServed(verb, path); });
}

GatewayProgram::~GatewayProgram()
{
    TASK_CHECK(m_task);
}

bool GatewayProgram::Start(std::string& error)
{
    TASK_CHECK(m_task);
    if (!m_settings.tlsDir.empty())
    {
        m_context.tls = WebSocket::TlsIdentity::Load(m_settings.tlsDir, error);
        if (m_context.tls == nullptr)
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
            m_context.tls != nullptr ? " (plain and TLS)" : " (plain)");
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
    options.subProtocols = {kPlain,
                            kMutualTls}; // mTLS applies to the connection between products; local connections are plain
    options.limits.idleTimeout = kLocalIdleTimeout;
    options.limits.kernelBufferBytes = WebSocket::kPromptBufferBytes;
    const auto accepted = [this](std::shared_ptr<WebSocket::Connection> connection)
    { Take(std::make_shared<LocalConnection>(m_context, std::move(connection))); };

    std::shared_ptr<WebSocket::Listener> listener = WebSocket::Listen(m_task, options, accepted, error);
    if (listener == nullptr)
    {
        return false;
    }
    options.port = listener->Port();
    m_local.push_back(std::move(listener));

    // "localhost" may resolve to ::1. Without IPv6 this listener is not needed, so its failure is ignored.
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
    options.tls = m_context.tls;
    options.tlsSubProtocols = {kMutualTls};
    options.limits.idleTimeout = kLanIdleTimeout;
    options.limits.maxMessageBytes = kLanMessageBytes;
    const auto accepted = [this](std::shared_ptr<WebSocket::Connection> connection)
    { Take(std::make_shared<LanConnection>(m_context, std::move(connection))); };

    options.address = "::";
    m_lan = WebSocket::Listen(m_task, options, accepted, error);
    if (m_lan == nullptr) // the kernel has no IPv6
    {
        options.address = "0.0.0.0";
        m_lan = WebSocket::Listen(m_task, options, accepted, error);
    }
    return m_lan != nullptr;
}

void GatewayProgram::Take(std::shared_ptr<ClientConnection> client)
{
    TASK_CHECK(m_task);
    ClientConnection* const key = client.get();
    m_clients[key] = std::move(client);
    key->Start([this](ClientConnection* gone) { m_clients.erase(gone); });
}

void GatewayProgram::HandleServed(const std::string& verb, const std::string& path)
{
    TASK_CHECK(m_task);
    if (verb != "get" || path != kListPath)
    {
        return;
    }
    m_hasOwnList = true;
    // The calls are posted, so that the serving client gets its answer first.
    m_liveness.OnTask<>(m_task,
                        [this]
                        {
                            TASK_CHECK(m_task);
                            for (const auto& [key, client] : m_clients)
                            {
                                client->HandleOwnList();
                            }
                        })();
}

} // namespace Gateway
