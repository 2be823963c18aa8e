#include "tools/simulated/upnp-devices/FakeHttpServer.h"

#include "runtime/Liveness.h"
#include "runtime/TaskIo.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/read_until.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <chrono>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

namespace
{

using boost::asio::ip::tcp;
using Error = boost::system::error_code;

constexpr std::string_view kEndOfHead = "\r\n\r\n";
constexpr std::size_t kFillerBytes = 64U << 10U;
const std::string kFiller(kFillerBytes, 'x');

/// One request and its response. Its handlers keep it alive until it ends.
class Exchange final : public std::enable_shared_from_this<Exchange>
{
public:
    using Ended = std::function<void(Exchange*)>;

    Exchange(tcp::socket socket, const FakeHttpServer::Answering& answering, Ended ended)
        : m_socket(std::move(socket))
        , m_timer(m_socket.get_executor())
        , m_answering(answering)
        , m_ended(std::move(ended))
    {
    }

    void Begin()
    {
        boost::asio::async_read_until(
            m_socket, boost::asio::dynamic_buffer(m_request, FakeHttpServer::kMaxRequestBytes), kEndOfHead,
            [self = shared_from_this()](const Error& error, std::size_t) { self->HeadCame(error); });
    }

    /// Closes the connection without calling `ended`.
    void Abandon()
    {
        m_ended = nullptr;
        Close();
    }

private:
    void HeadCame(const Error& error)
    {
        if (error || !m_ended)
        {
            End();
            return;
        }
        std::istringstream line(m_request);
        std::string method;
        std::string path;
        line >> method >> path;
        m_answer = m_answering(path);
        if (m_answer.pace == HttpResponse::Pace::AT_ONCE)
        {
            Write(boost::asio::buffer(m_answer.bytes));
            return;
        }
        WatchForEnd();
        if (m_answer.pace == HttpResponse::Pace::BYTE_A_SECOND)
        {
            WriteByte(0);
        }
    }

    void Write(boost::asio::const_buffer bytes)
    {
        boost::asio::async_write(
            m_socket, bytes, [self = shared_from_this()](const Error& error, std::size_t) { self->Written(error); });
    }

    void Written(const Error& error)
    {
        if (error || m_answer.filler == 0)
        {
            End();
            return;
        }
        const std::uint64_t count = std::min<std::uint64_t>(m_answer.filler, kFiller.size());
        m_answer.filler -= m_answer.filler == HttpResponse::kEndless ? 0 : count;
        Write(boost::asio::buffer(kFiller.data(), static_cast<std::size_t>(count)));
    }

    void WriteByte(std::size_t at)
    {
        Error error;
        if (at == m_answer.bytes.size() || m_socket.write_some(boost::asio::buffer(&m_answer.bytes[at], 1), error) != 1)
        {
            End();
            return;
        }
        m_timer.expires_after(std::chrono::seconds(1));
        m_timer.async_wait(
            [self = shared_from_this(), at](const Error& cancelled)
            {
                if (!cancelled)
                {
                    self->WriteByte(at + 1);
                }
            });
    }

    /// Detects that the client closed the connection while little or nothing is sent to it.
    void WatchForEnd()
    {
        m_socket.async_wait(tcp::socket::wait_read,
                            [self = shared_from_this()](const Error& error)
                            {
                                Error readError;
                                char byte = 0;
                                if (error || self->m_socket.read_some(boost::asio::buffer(&byte, 1), readError) == 0)
                                {
                                    self->End();
                                    return;
                                }
                                self->WatchForEnd();
                            });
    }

    void Close()
    {
        Error ignored;
        m_timer.cancel();
        m_socket.shutdown(tcp::socket::shutdown_both, ignored);
        m_socket.close(ignored);
    }

    void End()
    {
        Close();
        if (const Ended ended = std::exchange(m_ended, nullptr))
        {
            ended(this);
        }
    }

    tcp::socket m_socket;
    boost::asio::steady_timer m_timer;
    const FakeHttpServer::Answering& m_answering; ///< invalid once m_ended is empty
    Ended m_ended;
    std::string m_request;
    HttpResponse m_answer;
};

} // namespace

struct FakeHttpServer::Impl
{
    Impl(boost::asio::io_context& io, tcp::endpoint endpoint, Answering answering)
        : m_endpoint(std::move(endpoint))
        , m_acceptor(io)
        , m_answering(std::move(answering))
    {
    }
    ~Impl()
    {
        Close();
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    bool Listen(std::string& error)
    {
        Error failure;
        m_acceptor.open(tcp::v4());
        m_acceptor.set_option(tcp::acceptor::reuse_address(true));
        m_acceptor.bind(m_endpoint, failure);
        if (!failure)
        {
            m_acceptor.listen(tcp::acceptor::max_listen_connections, failure);
        }
        if (failure)
        {
            error =
                m_endpoint.address().to_string() + ":" + std::to_string(m_endpoint.port()) + ": " + failure.message();
            m_acceptor.close();
            return false;
        }
        Accept();
        return true;
    }

    void Accept()
    {
        m_acceptor.async_accept(m_liveness.Guard(
            [this](const Error& error, tcp::socket socket)
            {
                if (error == boost::asio::error::operation_aborted)
                {
                    return;
                }
                if (!error && m_exchanges.size() < kMaxConnections)
                {
                    Begin(std::move(socket));
                }
                Accept();
            }));
    }

    void Begin(tcp::socket socket)
    {
        const auto exchange = std::make_shared<Exchange>(
            std::move(socket), m_answering, [this](Exchange* ended) { m_exchanges.erase(ended->shared_from_this()); });
        m_exchanges.insert(exchange);
        exchange->Begin();
    }

    void Close()
    {
        Error ignored;
        m_acceptor.close(ignored);
        for (const std::shared_ptr<Exchange>& exchange : std::exchange(m_exchanges, {}))
        {
            exchange->Abandon();
        }
    }

    const tcp::endpoint m_endpoint;
    tcp::acceptor m_acceptor;
    const Answering m_answering;
    std::set<std::shared_ptr<Exchange>> m_exchanges;
    Liveness m_liveness;
};

FakeHttpServer::FakeHttpServer(NotifyTargetTaskIF* task, const std::string& address, std::uint16_t port,
                               Answering answering)
    : m_impl(std::make_unique<Impl>(
          IL::IoContextOf(task), tcp::endpoint(boost::asio::ip::make_address_v4(address), port), std::move(answering)))
{
}

FakeHttpServer::~FakeHttpServer() = default;

bool FakeHttpServer::Listen(std::string& error)
{
    return m_impl->m_acceptor.is_open() || m_impl->Listen(error);
}

void FakeHttpServer::Close()
{
    m_impl->Close();
}

std::size_t FakeHttpServer::Connections() const
{
    return m_impl->m_exchanges.size();
}
