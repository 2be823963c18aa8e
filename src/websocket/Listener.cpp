// Listening: accepts sockets and limits the number of connections. The handshakes are AcceptConnection's.
#include "runtime/AcceptLoop.h"
#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/TaskCheck.h"
#include "runtime/TaskIo.h"
#include "websocket/AcceptConnection.h"
#include "websocket/WebSocket.h"

#include <boost/asio/basic_socket_acceptor.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/v6_only.hpp>

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace WebSocket
{
namespace
{

namespace asio = boost::asio;
using asio::ip::tcp;
using Acceptor = asio::basic_socket_acceptor<tcp, Executor>;

const DPrint s_log("WebSocket");

/// Counts the open connections of one listener. Each holds a permit, which may outlive the listener.
/// Task: the listener's.
struct ConnectionLimit
{
    std::size_t count = 0;
    std::function<void()> onRelease;
};

std::shared_ptr<void> MakePermit(const std::shared_ptr<ConnectionLimit>& limit)
{
    ++limit->count;
    return {limit.get(), [limit](void*)
            {
                --limit->count;
                limit->onRelease();
            }};
}

class TcpListener final : public Listener
{
public:
    TcpListener(NotifyTargetTaskIF* task, const ListenOptions& options, OpenedCallback accepted)
        : m_task(task)
        , m_options(std::make_shared<const ListenOptions>(options))
        , m_accepted(std::move(accepted))
    {
        m_limit->onRelease = m_liveness.Guard([this] { HandleRelease(); });
    }

    bool Start(std::string& error)
    {
        try
        {
            Acceptor acceptor(IL::IoContextOf(m_task).get_executor());
            const tcp::endpoint endpoint(asio::ip::make_address(m_options->address), m_options->port);
            m_protocol = endpoint.protocol();
            acceptor.open(m_protocol);
            acceptor.set_option(asio::socket_base::reuse_address(true));
            if (endpoint.address().is_v6())
            {
                acceptor.set_option(asio::ip::v6_only(false));
            }
            acceptor.bind(endpoint);
            acceptor.listen();
            acceptor.native_non_blocking(true);
            m_port = acceptor.local_endpoint().port();
            m_loop = std::make_unique<IL::AcceptLoop>(m_task, "WebSocket", "port " + std::to_string(m_port),
                                                      [this](int descriptor) { HandleAccepted(descriptor); });
            error = m_loop->Start(acceptor.release());
        }
        catch (const boost::system::system_error& failure)
        {
            error = m_options->address + ":" + std::to_string(m_options->port) + ": " + failure.code().message();
        }
        return error.empty();
    }

    std::uint16_t Port() const override
    {
        return m_port;
    }

private:
    void HandleAccepted(int descriptor)
    {
        TASK_CHECK(m_task);
        Socket socket(IL::IoContextOf(m_task).get_executor());
        boost::system::error_code error;
        socket.assign(m_protocol, descriptor, error);
        if (error) // the kernel has no room to watch it
        {
            ::close(descriptor);
            DPRINTF(s_log, DPrint::LEVEL_WARNING, "port %u: closed a new connection: %s", static_cast<unsigned>(m_port),
                    error.message().c_str());
            return;
        }
        // A connection whose handshakes end after the listener is gone has no owner, and is closed.
        AcceptConnection(m_task, std::move(socket), m_options, MakePermit(m_limit), m_liveness.Guard(m_accepted));
        if (m_limit->count < m_options->maxConnections)
        {
            return;
        }
        m_loop->Suspend();
        if (!std::exchange(m_isFullLogged, true))
        {
            DPRINTF(s_log, DPrint::LEVEL_WARNING, "port %u: accepting waits, %zu connections are open",
                    static_cast<unsigned>(m_port), m_options->maxConnections);
        }
    }

    void HandleRelease()
    {
        TASK_CHECK(m_task);
        // Logged again after a tenth of the limit was free: peers that come and go must not fill the log.
        const std::size_t tenth = std::max<std::size_t>(1, m_options->maxConnections / 10);
        m_isFullLogged = m_isFullLogged && m_limit->count + tenth > m_options->maxConnections;
        m_loop->Resume();
    }

    NotifyTargetTaskIF* const m_task;
    const std::shared_ptr<const ListenOptions> m_options; ///< shared by the connections that are being opened
    const OpenedCallback m_accepted;
    const std::shared_ptr<ConnectionLimit> m_limit = std::make_shared<ConnectionLimit>();
    tcp m_protocol = tcp::v4();
    std::uint16_t m_port = 0;
    bool m_isFullLogged = false;
    std::unique_ptr<IL::AcceptLoop> m_loop;
    Liveness m_liveness;
};

} // namespace

std::shared_ptr<Listener> Listen(NotifyTargetTaskIF* task, const ListenOptions& options,
                                 std::function<void(std::shared_ptr<Connection>)> accepted, std::string& error)
{
    auto listener = std::make_shared<TcpListener>(task, options, std::move(accepted));
    return listener->Start(error) ? listener : nullptr;
}

} // namespace WebSocket
