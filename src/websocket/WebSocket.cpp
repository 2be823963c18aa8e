// The only source that instantiates Beast's WebSocket stream: each further one would cost half a minute to compile.
#include "websocket/WebSocket.h"

#include "runtime/DPrint.h"
#include "runtime/TaskIo.h"
#include "websocket/TlsContext.h"
#include "websocket/Transport.h"

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/http/empty_body.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/rfc7230.hpp>
#include <boost/beast/version.hpp>
#include <boost/beast/websocket/stream.hpp>

#include <algorithm>
#include <deque>
#include <optional>
#include <utility>

#include <sys/socket.h>

namespace WebSocket
{
namespace
{

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using asio::ip::tcp;
using Acceptor = asio::basic_socket_acceptor<tcp, Executor>;
using Resolver = asio::ip::basic_resolver<tcp, Executor>;
using Timer =
    asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>, Executor>;

const DPrint s_log("WebSocket");

/// A connection at rest keeps no buffer larger than this.
constexpr std::size_t kRestingBufferBytes = 4096;
/// What is masked and handed to the kernel at a time, of a message that does not fit into the other.
constexpr std::size_t kBusyBufferBytes = 65536;
/// How long a closed connection may take to bring out what is queued and its goodbye.
constexpr std::chrono::milliseconds kCloseLimit{1000};
/// Pause in accepting when descriptors or memory have run out.
constexpr std::chrono::milliseconds kAcceptPause{100};
/// At most one line per this time about such pauses.
constexpr std::chrono::seconds kAcceptLogPeriod{60};
constexpr unsigned char kTlsHandshakeByte = 0x16;

/// Counts the connections of one listener; the last share of a connection gives its place back.
class Places
{
public:
    std::size_t m_taken = 0;
    std::function<void()> m_onFree; ///< set while the listener waits for a place
};

class Place
{
public:
    explicit Place(std::shared_ptr<Places> places)
        : m_places(std::move(places))
    {
        ++m_places->m_taken;
    }
    ~Place()
    {
        --m_places->m_taken;
        if (const std::function<void()> onFree = std::exchange(m_places->m_onFree, nullptr))
        {
            onFree();
        }
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

private:
    std::shared_ptr<Places> m_places;
};

std::string NumericHost(const tcp::endpoint& endpoint)
{
    const asio::ip::address address = endpoint.address();
    if (address.is_v6() && address.to_v6().is_v4_mapped())
    {
        return asio::ip::make_address_v4(asio::ip::v4_mapped, address.to_v6()).to_string();
    }
    return address.to_string();
}

/// The value of an HTTP Host field: IPv6 in brackets and without its zone.
std::string HostField(const Target& target)
{
    const std::string host = target.host.substr(0, target.host.find('%'));
    const bool bracket = host.find(':') != std::string::npos;
    return (bracket ? "[" + host + "]" : host) + ":" + std::to_string(target.port);
}

/// One connection's machinery, kept alive by its operations in flight; the caller holds a Link.
class Session final : public std::enable_shared_from_this<Session>
{
public:
    using OpenedCallback = std::function<void(const std::shared_ptr<Session>&)>;

    Session(Socket socket, const Limits& limits)
        : m_ws(std::move(socket))
        , m_timer(m_ws.get_executor())
        , m_limits(limits)
    {
    }

    void ConnectTo(const Target& target);
    void Accept(std::shared_ptr<const ListenOptions> options, std::unique_ptr<Place> place, OpenedCallback opened);

    void SetHandlers(Connection::Handlers handlers);
    void Send(std::string text);
    void Close();

    bool IsOpen() const
    {
        return m_state == State::OPEN;
    }
    std::size_t QueuedBytes() const
    {
        return m_queuedBytes;
    }
    const std::string& SubProtocol() const
    {
        return m_subProtocol;
    }
    const std::string& PeerName() const
    {
        return m_peerName;
    }
    std::string PeerAddress();

private:
    enum class State
    {
        OPENING, ///< TCP, TLS and WebSocket handshakes, all under one limit
        OPEN,
        CLOSING, ///< nobody listens any more; what is queued and the goodbye go out, under a limit
        DEAD,
    };

    /// A step of opening that goes on unless the connection died meanwhile; failures end it.
    template <class Next>
    auto Step(const char* what, Next next)
    {
        return [self = shared_from_this(), what, next](const ErrorCode& error, auto&&...)
        {
            if (self->m_state != State::OPENING)
            {
                return;
            }
            if (error)
            {
                self->Fail(std::string(what) + ": " + self->Reason(error));
                return;
            }
            next();
        };
    }

    void SetSocketOptions();
    void LimitHandshake();
    void TryEndpoints(const std::vector<tcp::endpoint>& endpoints);
    void Connected();
    void ClientTlsDone();
    void ClientHandshake();
    void DetectTls();
    void ServerTlsDone();
    void ReadRequest();
    void AnswerRequest();
    void Refuse(const std::string& reason);
    void SetOptions();
    void Opened();

    void StartRead();
    void OnRead(const ErrorCode& error);
    void Pump();
    void OnWritten(const ErrorCode& error);

    std::string Reason(const ErrorCode& error) const;
    void Fail(const std::string& reason);
    void TellClosed(const std::string& reason);
    void BeginClose(websocket::close_code code);
    void SendGoodbye();
    void Die();

    struct Opening ///< what only the handshakes need; freed when open
    {
        Target target;                                ///< client
        std::shared_ptr<const ListenOptions> options; ///< server
        OpenedCallback opened;
        std::optional<Resolver> resolver;
        websocket::response_type response;
        beast::http::request<beast::http::empty_body> request;
    };

    websocket::stream<Transport, false> m_ws;
    Timer m_timer;
    const Limits m_limits;
    State m_state = State::OPENING;
    bool m_reading = false;
    bool m_writing = false;
    bool m_goodbyeSent = false;
    websocket::close_code m_closeCode = websocket::close_code::normal;
    beast::flat_buffer m_buffer;
    std::deque<std::string> m_queue;
    std::string m_inFlight;
    std::size_t m_queuedBytes = 0;
    std::string m_subProtocol;
    std::string m_peerName;
    std::string m_reason; ///< why it died
    std::shared_ptr<Connection::Handlers> m_handlers;
    std::unique_ptr<Opening> m_opening = std::make_unique<Opening>();
    std::unique_ptr<Place> m_place;
};

// ---- opening, as client -------------------------------------------------------------------------------------

void Session::LimitHandshake()
{
    m_timer.expires_after(m_limits.handshakeTimeout);
    m_timer.async_wait(
        [weak = weak_from_this()](const ErrorCode& error)
        {
            const std::shared_ptr<Session> self = weak.lock();
            if (!error && self != nullptr && self->m_state == State::OPENING)
            {
                self->Fail("no handshake in time");
            }
        });
}

void Session::ConnectTo(const Target& target)
{
    m_opening->target = target;
    LimitHandshake();

    // A numeric address and the own host need no resolver, which is a thread of its own.
    ErrorCode error;
    const asio::ip::address address =
        target.host == "localhost" ? asio::ip::make_address("127.0.0.1") : asio::ip::make_address(target.host, error);
    if (!error)
    {
        TryEndpoints({tcp::endpoint(address, target.port)});
        return;
    }
    m_opening->resolver.emplace(m_ws.get_executor());
    m_opening->resolver->async_resolve(
        target.host, std::to_string(target.port),
        [self = shared_from_this()](const ErrorCode& resolveError, const tcp::resolver::results_type& results)
        {
            if (self->m_state != State::OPENING)
            {
                return;
            }
            if (resolveError)
            {
                self->Fail("resolve: " + resolveError.message());
                return;
            }
            self->TryEndpoints({results.begin(), results.end()});
        });
}

void Session::TryEndpoints(const std::vector<tcp::endpoint>& endpoints)
{
    asio::async_connect(m_ws.next_layer().Raw(), endpoints, Step("connect", [this] { Connected(); }));
}

void Session::SetSocketOptions()
{
    ErrorCode ignored;
    Socket& socket = m_ws.next_layer().Raw();
    socket.set_option(tcp::no_delay(true), ignored);
    socket.set_option(asio::socket_base::keep_alive(true), ignored);
    if (m_limits.kernelBufferBytes > 0)
    {
        const int bytes = static_cast<int>(m_limits.kernelBufferBytes);
        socket.set_option(asio::socket_base::send_buffer_size(bytes), ignored);
        socket.set_option(asio::socket_base::receive_buffer_size(bytes), ignored);
    }
}

void Session::Connected()
{
    Transport& transport = m_ws.next_layer();
    SetSocketOptions();
    const auto identity = std::static_pointer_cast<TlsContext>(m_opening->target.tls);
    if (identity == nullptr)
    {
        ClientHandshake();
        return;
    }
    if (!transport.StartTls(*identity, false))
    {
        Fail("TLS: out of memory");
        return;
    }
    transport.AsyncHandshake(Step("TLS", [this] { ClientTlsDone(); }));
}

void Session::ClientTlsDone()
{
    const ssl_st* const tls = m_ws.next_layer().Tls();
    m_peerName = PeerCommonName(tls);
    const std::string& expected = m_opening->target.expectedPeer;
    if (!expected.empty() && !PeerHasName(tls, expected))
    {
        Fail("TLS: the peer is \"" + m_peerName + "\", not \"" + expected + "\"");
        return;
    }
    ClientHandshake();
}

void Session::ClientHandshake()
{
    SetOptions();
    m_ws.set_option(websocket::stream_base::decorator(
        [subProtocol = m_opening->target.subProtocol](websocket::request_type& request)
        { request.set(beast::http::field::sec_websocket_protocol, subProtocol); }));
    m_ws.async_handshake(m_opening->response, HostField(m_opening->target), "/",
                         Step("handshake",
                              [this]
                              {
                                  const auto agreed = m_opening->response[beast::http::field::sec_websocket_protocol];
                                  if (std::string_view(agreed.data(), agreed.size()) != m_opening->target.subProtocol)
                                  {
                                      Fail("handshake: the peer does not speak " + m_opening->target.subProtocol);
                                      return;
                                  }
                                  m_subProtocol = m_opening->target.subProtocol;
                                  Opened();
                              }));
}

// ---- opening, as server -------------------------------------------------------------------------------------

void Session::Accept(std::shared_ptr<const ListenOptions> options, std::unique_ptr<Place> place, OpenedCallback opened)
{
    m_opening->options = std::move(options);
    m_opening->opened = std::move(opened);
    m_place = std::move(place);
    LimitHandshake();
    SetSocketOptions();
    if (m_opening->options->tls == nullptr)
    {
        ReadRequest();
        return;
    }
    m_ws.next_layer().Raw().async_wait(Socket::wait_read, Step("accept", [this] { DetectTls(); }));
}

void Session::DetectTls()
{
    Transport& transport = m_ws.next_layer();
    unsigned char first = 0;
    const ssize_t size = ::recv(transport.Raw().native_handle(), &first, 1, MSG_PEEK | MSG_DONTWAIT);
    if (size < 0 && (errno == EAGAIN || errno == EINTR))
    {
        transport.Raw().async_wait(Socket::wait_read, Step("accept", [this] { DetectTls(); }));
        return;
    }
    if (size <= 0)
    {
        Fail("accept: the peer has gone");
        return;
    }
    if (first != kTlsHandshakeByte)
    {
        ReadRequest();
        return;
    }
    if (!transport.StartTls(static_cast<const TlsContext&>(*m_opening->options->tls), true))
    {
        Fail("TLS: out of memory");
        return;
    }
    transport.AsyncHandshake(Step("TLS", [this] { ServerTlsDone(); }));
}

void Session::ServerTlsDone()
{
    m_peerName = PeerCommonName(m_ws.next_layer().Tls());
    ReadRequest();
}

void Session::ReadRequest()
{
    beast::http::async_read(m_ws.next_layer(), m_buffer, m_opening->request,
                            Step("request", [this] { AnswerRequest(); }));
}

void Session::AnswerRequest()
{
    const auto& request = m_opening->request;
    if (m_buffer.size() != 0)
    {
        Refuse("bytes before the answer");
        return;
    }
    const auto& accepted =
        m_ws.next_layer().Tls() != nullptr ? m_opening->options->tlsSubProtocols : m_opening->options->subProtocols;
    const auto [begin, end] = request.equal_range(beast::http::field::sec_websocket_protocol);
    for (auto field = begin; field != end && m_subProtocol.empty(); ++field)
    {
        for (const auto offered : beast::http::token_list(field->value()))
        {
            const std::string name(offered.data(), offered.size());
            if (std::find(accepted.begin(), accepted.end(), name) != accepted.end())
            {
                m_subProtocol = name;
                break;
            }
        }
    }
    if (m_subProtocol.empty())
    {
        Refuse("no sub-protocol in common");
        return;
    }
    SetOptions();
    m_ws.set_option(
        websocket::stream_base::decorator([subProtocol = m_subProtocol](websocket::response_type& response)
                                          { response.set(beast::http::field::sec_websocket_protocol, subProtocol); }));
    m_ws.async_accept(request, Step("handshake", [this] { Opened(); }));
}

void Session::Refuse(const std::string& reason)
{
    static constexpr std::string_view s_answer =
        "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    asio::async_write(m_ws.next_layer(), asio::buffer(s_answer),
                      Step("handshake", [this, reason] { Fail("handshake: " + reason); }));
}

// ---- open ---------------------------------------------------------------------------------------------------

void Session::SetOptions()
{
    // Beast asks at half of its idle time-out and gives up at the whole; the handshakes are under our own limit.
    websocket::stream_base::timeout timeout{};
    timeout.handshake_timeout = websocket::stream_base::none();
    timeout.idle_timeout = m_limits.idleTimeout.count() == 0
                               ? websocket::stream_base::none()
                               : websocket::stream_base::duration(m_limits.idleTimeout * 2);
    timeout.keep_alive_pings = true;
    m_ws.set_option(timeout);
    m_ws.auto_fragment(false);
    m_ws.write_buffer_bytes(kRestingBufferBytes);
    m_ws.read_message_max(m_limits.maxMessageBytes);
    m_ws.text(true);
}

void Session::Opened()
{
    m_timer.cancel();
    m_state = State::OPEN;
    m_buffer = beast::flat_buffer();
    const OpenedCallback opened = std::move(m_opening->opened);
    m_opening.reset();
    if (opened != nullptr)
    {
        opened(shared_from_this());
        return; // reading starts with the handlers
    }
    StartRead();
    Pump();
    if (const std::shared_ptr<Connection::Handlers> handlers = m_handlers; handlers != nullptr && handlers->opened)
    {
        handlers->opened();
    }
}

void Session::SetHandlers(Connection::Handlers handlers)
{
    m_handlers = std::make_shared<Connection::Handlers>(std::move(handlers));
    if (m_state == State::OPEN && !m_reading)
    {
        StartRead();
    }
    else if (m_state == State::DEAD)
    {
        TellClosed(m_reason);
    }
}

void Session::StartRead()
{
    m_reading = true;
    m_ws.async_read(m_buffer,
                    [self = shared_from_this()](const ErrorCode& error, std::size_t) { self->OnRead(error); });
}

void Session::OnRead(const ErrorCode& error)
{
    if (error)
    {
        m_reading = false;
        // While the goodbye is on its way this is only its answer: the timer or its end finish the rest.
        if (m_state == State::OPEN)
        {
            Fail(Reason(error));
        }
        else if (!m_goodbyeSent)
        {
            Die();
        }
        return;
    }
    const bool text = m_ws.got_text();
    std::string message;
    if (m_state == State::OPEN && text)
    {
        message.assign(static_cast<const char*>(m_buffer.data().data()), m_buffer.size());
    }
    m_buffer.consume(m_buffer.size());
    if (m_buffer.capacity() > kRestingBufferBytes)
    {
        m_buffer = beast::flat_buffer();
    }
    if (m_state == State::DEAD)
    {
        m_reading = false;
        return;
    }
    if (m_state == State::OPEN && !text)
    {
        TellClosed("a binary message came");
        m_queue.clear();
        BeginClose(websocket::close_code::unknown_data);
    }
    StartRead(); // before the call out, so that an exception from there does not end the reading
    if (const std::shared_ptr<Connection::Handlers> handlers = m_handlers;
        m_state == State::OPEN && handlers != nullptr && handlers->message)
    {
        handlers->message(std::move(message));
    }
}

void Session::Send(std::string text)
{
    if (m_state != State::OPENING && m_state != State::OPEN)
    {
        return;
    }
    m_queuedBytes += text.size();
    if (m_queuedBytes > m_limits.maxQueuedBytes)
    {
        Fail("the peer does not read: " + std::to_string(m_queuedBytes) + " bytes wait for it");
        return;
    }
    m_queue.push_back(std::move(text));
    Pump();
}

void Session::Pump()
{
    if (m_writing || m_goodbyeSent || (m_state != State::OPEN && m_state != State::CLOSING))
    {
        return;
    }
    if (m_queue.empty())
    {
        if (m_state == State::CLOSING)
        {
            SendGoodbye();
        }
        return;
    }
    m_inFlight = std::move(m_queue.front());
    m_queue.pop_front();
    m_writing = true;
    m_ws.write_buffer_bytes(m_inFlight.size() > kRestingBufferBytes ? kBusyBufferBytes : kRestingBufferBytes);
    m_ws.async_write(asio::buffer(m_inFlight),
                     [self = shared_from_this()](const ErrorCode& error, std::size_t) { self->OnWritten(error); });
}

void Session::OnWritten(const ErrorCode& error)
{
    m_writing = false;
    m_queuedBytes -= std::min(m_queuedBytes, m_inFlight.size());
    std::string().swap(m_inFlight);
    if (error)
    {
        if (m_state == State::OPEN)
        {
            Fail(Reason(error));
        }
        else
        {
            Die();
        }
        return;
    }
    const std::shared_ptr<Connection::Handlers> handlers = m_handlers;
    if (m_queue.empty() && m_state == State::OPEN && handlers != nullptr && handlers->drained)
    {
        handlers->drained();
    }
    Pump();
}

std::string Session::PeerAddress()
{
    ErrorCode error;
    const tcp::endpoint endpoint = m_ws.next_layer().Raw().remote_endpoint(error);
    return error ? std::string() : NumericHost(endpoint);
}

// ---- the end ------------------------------------------------------------------------------------------------

std::string Session::Reason(const ErrorCode& error) const
{
    if (error == websocket::error::closed)
    {
        return "closed by the peer";
    }
    const std::string& tls = m_ws.next_layer().TlsFailure();
    return tls.empty() ? error.message() : tls;
}

void Session::Fail(const std::string& reason)
{
    if (m_state == State::DEAD)
    {
        return;
    }
    TellClosed(reason);
    Die();
}

void Session::TellClosed(const std::string& reason)
{
    m_reason = reason;
    asio::post(m_ws.get_executor(),
               [self = shared_from_this()]
               {
                   const std::shared_ptr<Connection::Handlers> handlers = std::exchange(self->m_handlers, nullptr);
                   if (handlers != nullptr && handlers->closed)
                   {
                       handlers->closed(self->m_reason);
                   }
               });
}

void Session::Close()
{
    m_handlers.reset();
    if (m_state == State::OPEN)
    {
        BeginClose(websocket::close_code::normal);
    }
    else if (m_state == State::OPENING)
    {
        Die();
    }
}

void Session::BeginClose(websocket::close_code code)
{
    m_state = State::CLOSING;
    m_closeCode = code;
    m_timer.expires_after(kCloseLimit);
    m_timer.async_wait(
        [self = shared_from_this()](const ErrorCode& error)
        {
            if (!error)
            {
                self->Die();
            }
        });
    if (!m_reading)
    {
        StartRead();
    }
    Pump();
}

void Session::SendGoodbye()
{
    m_goodbyeSent = true;
    m_ws.async_close(m_closeCode, [self = shared_from_this()](const ErrorCode&) { self->Die(); });
}

void Session::Die()
{
    m_state = State::DEAD;
    m_timer.cancel();
    if (m_opening != nullptr && m_opening->resolver)
    {
        m_opening->resolver->cancel();
    }
    m_ws.next_layer().Close();
    m_queue.clear();
    m_queuedBytes = 0;
    m_place.reset();
}

/// What the caller holds.
class Link final : public Connection
{
public:
    explicit Link(std::shared_ptr<Session> session)
        : m_session(std::move(session))
    {
    }
    ~Link() override
    {
        m_session->Close();
    }
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    void SetHandlers(Handlers handlers) override
    {
        m_session->SetHandlers(std::move(handlers));
    }
    void Send(std::string text) override
    {
        m_session->Send(std::move(text));
    }
    void Close() override
    {
        m_session->Close();
    }
    bool IsOpen() const override
    {
        return m_session->IsOpen();
    }
    std::size_t QueuedBytes() const override
    {
        return m_session->QueuedBytes();
    }
    const std::string& SubProtocol() const override
    {
        return m_session->SubProtocol();
    }
    std::string PeerAddress() const override
    {
        return m_session->PeerAddress();
    }
    const std::string& PeerName() const override
    {
        return m_session->PeerName();
    }

private:
    const std::shared_ptr<Session> m_session;
};

// ---- listening ----------------------------------------------------------------------------------------------

class Acceptance final : public std::enable_shared_from_this<Acceptance>
{
public:
    using AcceptedCallback = std::function<void(std::shared_ptr<Connection>)>;

    Acceptance(asio::io_context& io, const ListenOptions& options, AcceptedCallback accepted)
        : m_acceptor(io.get_executor())
        , m_timer(io.get_executor())
        , m_options(std::make_shared<const ListenOptions>(options))
        , m_accepted(std::make_shared<const AcceptedCallback>(std::move(accepted)))
    {
    }

    bool Bind(std::string& error);
    void AcceptNext();
    void Stop();
    std::uint16_t Port() const
    {
        ErrorCode ignored;
        return m_acceptor.local_endpoint(ignored).port();
    }

private:
    void OnAccepted(const ErrorCode& error, Socket socket);
    void SayFull();
    void Pause(const ErrorCode& error);

    Acceptor m_acceptor;
    Timer m_timer;
    const std::shared_ptr<const ListenOptions> m_options;
    std::shared_ptr<const AcceptedCallback> m_accepted; ///< null: stopped
    const std::shared_ptr<Places> m_places = std::make_shared<Places>();
    std::optional<std::chrono::steady_clock::time_point> m_saidAt;
    bool m_isFullSaid = false; ///< until a tenth of the places is free: peers that come and go fill no log
};

bool Acceptance::Bind(std::string& error)
{
    try
    {
        const tcp::endpoint endpoint(asio::ip::make_address(m_options->address), m_options->port);
        m_acceptor.open(endpoint.protocol());
        m_acceptor.set_option(asio::socket_base::reuse_address(true));
        if (endpoint.address().is_v6())
        {
            m_acceptor.set_option(asio::ip::v6_only(false));
        }
        m_acceptor.bind(endpoint);
        m_acceptor.listen();
        return true;
    }
    catch (const boost::system::system_error& failure)
    {
        error = m_options->address + ":" + std::to_string(m_options->port) + ": " + failure.code().message();
        return false;
    }
}

void Acceptance::AcceptNext()
{
    if (m_accepted == nullptr)
    {
        return;
    }
    if (m_places->m_taken >= m_options->maxConnections)
    {
        SayFull();
        m_places->m_onFree = [weak = weak_from_this()]
        {
            if (const std::shared_ptr<Acceptance> self = weak.lock())
            {
                asio::post(self->m_acceptor.get_executor(), [self] { self->AcceptNext(); });
            }
        };
        return;
    }
    const std::size_t tenth = std::max<std::size_t>(1, m_options->maxConnections / 10);
    m_isFullSaid = m_isFullSaid && m_places->m_taken + tenth > m_options->maxConnections;
    m_acceptor.async_accept([self = shared_from_this()](const ErrorCode& error, Socket socket)
                            { self->OnAccepted(error, std::move(socket)); });
}

void Acceptance::OnAccepted(const ErrorCode& error, Socket socket)
{
    if (m_accepted == nullptr)
    {
        return;
    }
    if (error && error != asio::error::connection_aborted)
    {
        Pause(error);
        return;
    }
    if (!error)
    {
        const auto session = std::make_shared<Session>(std::move(socket), m_options->limits);
        session->Accept(m_options, std::make_unique<Place>(m_places),
                        [weak = std::weak_ptr(m_accepted)](const std::shared_ptr<Session>& opened)
                        {
                            auto link = std::make_shared<Link>(opened); // closes where the listener has gone
                            if (const auto accepted = weak.lock())
                            {
                                (*accepted)(std::move(link));
                            }
                        });
    }
    AcceptNext();
}

void Acceptance::SayFull()
{
    if (!m_isFullSaid)
    {
        m_isFullSaid = true;
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "accepting on port %u waits: all %zu places are taken",
                static_cast<unsigned>(Port()), m_options->maxConnections);
    }
}

void Acceptance::Pause(const ErrorCode& error)
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_saidAt || now - *m_saidAt > kAcceptLogPeriod)
    {
        m_saidAt = now;
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "accepting on port %u pauses: %s", static_cast<unsigned>(Port()),
                error.message().c_str());
    }
    m_timer.expires_after(kAcceptPause);
    m_timer.async_wait(
        [self = shared_from_this()](const ErrorCode& cancelled)
        {
            if (!cancelled)
            {
                self->AcceptNext();
            }
        });
}

void Acceptance::Stop()
{
    m_accepted.reset();
    ErrorCode ignored;
    m_acceptor.close(ignored);
    m_timer.cancel();
}

class ListenerLink final : public Listener
{
public:
    explicit ListenerLink(std::shared_ptr<Acceptance> acceptance)
        : m_acceptance(std::move(acceptance))
        , m_port(m_acceptance->Port())
    {
    }
    ~ListenerLink() override
    {
        m_acceptance->Stop();
    }
    ListenerLink(const ListenerLink&) = delete;
    ListenerLink& operator=(const ListenerLink&) = delete;
    std::uint16_t Port() const override
    {
        return m_port;
    }

private:
    const std::shared_ptr<Acceptance> m_acceptance;
    const std::uint16_t m_port;
};

} // namespace

std::shared_ptr<Connection> Connect(NotifyTargetTaskIF* task, const Target& target, Connection::Handlers handlers,
                                    const Limits& limits)
{
    const auto session = std::make_shared<Session>(Socket(IL::IoContextOf(task).get_executor()), limits);
    session->SetHandlers(std::move(handlers));
    session->ConnectTo(target);
    return std::make_shared<Link>(session);
}

std::shared_ptr<Listener> Listen(NotifyTargetTaskIF* task, const ListenOptions& options,
                                 std::function<void(std::shared_ptr<Connection>)> accepted, std::string& error)
{
    const auto acceptance = std::make_shared<Acceptance>(IL::IoContextOf(task), options, std::move(accepted));
    if (!acceptance->Bind(error))
    {
        return nullptr;
    }
    acceptance->AcceptNext();
    return std::make_shared<ListenerLink>(acceptance);
}

} // namespace WebSocket
