// Connections. The only source that instantiates Beast's WebSocket stream: each further one takes 30 s to compile.
#include "websocket/WebSocket.h"

#include "runtime/Liveness.h"
#include "runtime/TaskCheck.h"
#include "runtime/TaskIo.h"
#include "websocket/AcceptConnection.h"
#include "websocket/TlsContext.h"
#include "websocket/Transport.h"

#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/connect.hpp>
#include <boost/asio/ip/address.hpp>
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
using Resolver = asio::ip::basic_resolver<tcp, Executor>;
using Timer =
    asio::basic_waitable_timer<std::chrono::steady_clock, asio::wait_traits<std::chrono::steady_clock>, Executor>;

/// Largest buffer that an idle connection keeps.
constexpr std::size_t kRestingBufferBytes = 4096;
/// Write buffer for a message larger than kRestingBufferBytes: so many bytes are masked and written at a time.
constexpr std::size_t kBusyBufferBytes = 65536;
/// Time limit after Close() for sending the queued messages and the close frame.
constexpr std::chrono::milliseconds kCloseLimit{1000};
/// ContentType handshake(22) of a TLS record, RFC 8446 section 5.1.
constexpr unsigned char kTlsHandshakeByte = 0x16;

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

class MessageStream;
std::shared_ptr<Connection> HandleFromStream(const std::shared_ptr<MessageStream>& stream);

/// A WebSocket connection. Its operations in flight keep it alive; the caller owns a handle that
/// closes it (HandleFromStream).
/// Task: everything runs on `m_task`.
class MessageStream final : public Connection, public std::enable_shared_from_this<MessageStream>
{
public:
    MessageStream(NotifyTargetTaskIF* task, Socket socket, const Limits& limits)
        : m_task(task)
        , m_ws(std::move(socket))
        , m_timer(m_ws.get_executor())
        , m_limits(limits)
    {
    }

    void ConnectTo(const Target& target);
    void Accept(std::shared_ptr<const ListenOptions> options, std::shared_ptr<void> permit, OpenedCallback opened);

    void SetHandlers(Handlers handlers) override;
    void Send(std::string text) override;
    void Close() override;
    bool IsOpen() const override
    {
        return m_state == State::OPEN;
    }
    std::size_t QueuedBytes() const override
    {
        return m_queuedBytes;
    }
    const std::string& SubProtocol() const override
    {
        return m_subProtocol;
    }
    const std::string& PeerName() const override
    {
        return m_peerName;
    }
    std::string PeerAddress() const override;

private:
    enum class State
    {
        OPENING, ///< TCP, TLS and WebSocket handshakes, within handshakeTimeout together
        OPEN,
        CLOSING, ///< no handlers; queued messages and the close frame are sent within kCloseLimit
        CLOSED,
    };

    /// The handler of one handshake step: continues with `next` unless the connection was closed meanwhile. A failure
    /// ends the connection.
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
    void ReportClosed(const std::string& reason);
    void BeginClose(websocket::close_code code);
    void SendCloseFrame();
    void Terminate();

    struct Opening ///< data of the handshakes; freed when the connection is open
    {
        Target target;                                ///< client
        std::shared_ptr<const ListenOptions> options; ///< server
        OpenedCallback opened;
        std::optional<Resolver> resolver;
        websocket::response_type response;
        beast::http::request<beast::http::empty_body> request;
    };

    NotifyTargetTaskIF* const m_task;
    websocket::stream<Transport, false> m_ws;
    Timer m_timer;
    const Limits m_limits;
    State m_state = State::OPENING;
    bool m_reading = false;
    bool m_writing = false;
    bool m_isCloseFrameSent = false;
    websocket::close_code m_closeCode = websocket::close_code::normal;
    beast::flat_buffer m_buffer;
    std::deque<std::string> m_queue;
    std::string m_inFlight;
    std::size_t m_queuedBytes = 0;
    std::string m_subProtocol;
    std::string m_peerName;
    std::string m_reason; ///< why the connection ended
    std::shared_ptr<Handlers> m_handlers;
    std::unique_ptr<Opening> m_opening = std::make_unique<Opening>();
    std::shared_ptr<void> m_permit; ///< released when the connection has ended
};

// ---- opening, as client -------------------------------------------------------------------------------------

void MessageStream::LimitHandshake()
{
    m_timer.expires_after(m_limits.handshakeTimeout);
    m_timer.async_wait(Liveness::Weakly(shared_from_this(),
                                        [](MessageStream& self, const ErrorCode& error)
                                        {
                                            if (!error && self.m_state == State::OPENING)
                                            {
                                                self.Fail("no handshake in time");
                                            }
                                        }));
}

void MessageStream::ConnectTo(const Target& target)
{
    TASK_CHECK(m_task);
    m_opening->target = target;
    LimitHandshake();

    // Numeric addresses and localhost are not resolved: the resolver starts a thread.
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

void MessageStream::TryEndpoints(const std::vector<tcp::endpoint>& endpoints)
{
    asio::async_connect(m_ws.next_layer().Raw(), endpoints, Step("connect", [this] { Connected(); }));
}

void MessageStream::SetSocketOptions()
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

void MessageStream::Connected()
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

void MessageStream::ClientTlsDone()
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

void MessageStream::ClientHandshake()
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

void MessageStream::Accept(std::shared_ptr<const ListenOptions> options, std::shared_ptr<void> permit,
                           OpenedCallback opened)
{
    m_opening->options = std::move(options);
    m_opening->opened = std::move(opened);
    m_permit = std::move(permit);
    LimitHandshake();
    SetSocketOptions();
    if (m_opening->options->tls == nullptr)
    {
        ReadRequest();
        return;
    }
    m_ws.next_layer().Raw().async_wait(Socket::wait_read, Step("accept", [this] { DetectTls(); }));
}

void MessageStream::DetectTls()
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
        Fail("accept: the peer has closed the connection");
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

void MessageStream::ServerTlsDone()
{
    m_peerName = PeerCommonName(m_ws.next_layer().Tls());
    ReadRequest();
}

void MessageStream::ReadRequest()
{
    beast::http::async_read(m_ws.next_layer(), m_buffer, m_opening->request,
                            Step("request", [this] { AnswerRequest(); }));
}

void MessageStream::AnswerRequest()
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

void MessageStream::Refuse(const std::string& reason)
{
    static constexpr std::string_view s_answer =
        "HTTP/1.1 400 Bad Request\r\nConnection: close\r\nContent-Length: 0\r\n\r\n";
    asio::async_write(m_ws.next_layer(), asio::buffer(s_answer),
                      Step("handshake", [this, reason] { Fail("handshake: " + reason); }));
}

// ---- open connection: reading and writing -------------------------------------------------------------------

void MessageStream::SetOptions()
{
    // Beast sends a ping after half of its idle timeout and fails after the whole. Handshakes have our own limit.
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

void MessageStream::Opened()
{
    TASK_CHECK(m_task);
    m_timer.cancel();
    m_state = State::OPEN;
    m_buffer = beast::flat_buffer();
    const OpenedCallback opened = std::move(m_opening->opened);
    m_opening.reset();
    if (opened != nullptr)
    {
        opened(HandleFromStream(shared_from_this()));
        return; // SetHandlers() starts the reading
    }
    StartRead();
    Pump();
    if (const std::shared_ptr<Handlers> handlers = m_handlers; handlers != nullptr && handlers->opened)
    {
        handlers->opened();
    }
}

void MessageStream::SetHandlers(Handlers handlers)
{
    TASK_CHECK(m_task);
    m_handlers = std::make_shared<Handlers>(std::move(handlers));
    if (m_state == State::OPEN && !m_reading)
    {
        StartRead();
    }
    else if (m_state == State::CLOSED)
    {
        ReportClosed(m_reason);
    }
}

void MessageStream::StartRead()
{
    m_reading = true;
    m_ws.async_read(m_buffer,
                    [self = shared_from_this()](const ErrorCode& error, std::size_t) { self->OnRead(error); });
}

void MessageStream::OnRead(const ErrorCode& error)
{
    TASK_CHECK(m_task);
    if (error)
    {
        m_reading = false;
        // After our close frame, the error is the peer's answer; async_close or the timer ends the connection.
        if (m_state == State::OPEN)
        {
            Fail(Reason(error));
        }
        else if (!m_isCloseFrameSent)
        {
            Terminate();
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
    if (m_state == State::CLOSED)
    {
        m_reading = false;
        return;
    }
    if (m_state == State::OPEN && !text)
    {
        ReportClosed("a binary message came");
        m_queue.clear();
        BeginClose(websocket::close_code::unknown_data);
    }
    StartRead(); // before the handler, so that an exception in it does not end the reading
    if (const std::shared_ptr<Handlers> handlers = m_handlers;
        m_state == State::OPEN && handlers != nullptr && handlers->message)
    {
        handlers->message(std::move(message));
    }
}

void MessageStream::Send(std::string text)
{
    TASK_CHECK(m_task);
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

void MessageStream::Pump()
{
    if (m_writing || m_isCloseFrameSent || (m_state != State::OPEN && m_state != State::CLOSING))
    {
        return;
    }
    if (m_queue.empty())
    {
        if (m_state == State::CLOSING)
        {
            SendCloseFrame();
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

void MessageStream::OnWritten(const ErrorCode& error)
{
    TASK_CHECK(m_task);
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
            Terminate();
        }
        return;
    }
    const std::shared_ptr<Handlers> handlers = m_handlers;
    if (m_queue.empty() && m_state == State::OPEN && handlers != nullptr && handlers->drained)
    {
        handlers->drained();
    }
    Pump();
}

std::string MessageStream::PeerAddress() const
{
    ErrorCode error;
    const tcp::endpoint endpoint = m_ws.next_layer().Raw().remote_endpoint(error);
    return error ? std::string() : NumericHost(endpoint);
}

// ---- end of a connection: reason, failure, close -------------------------------------------------------------

std::string MessageStream::Reason(const ErrorCode& error) const
{
    if (error == websocket::error::closed)
    {
        return "closed by the peer";
    }
    const std::string& tls = m_ws.next_layer().TlsFailure();
    return tls.empty() ? error.message() : tls;
}

void MessageStream::Fail(const std::string& reason)
{
    if (m_state == State::CLOSED)
    {
        return;
    }
    ReportClosed(reason);
    Terminate();
}

void MessageStream::ReportClosed(const std::string& reason)
{
    m_reason = reason;
    asio::post(m_ws.get_executor(),
               [self = shared_from_this()]
               {
                   const std::shared_ptr<Handlers> handlers = std::exchange(self->m_handlers, nullptr);
                   if (handlers != nullptr && handlers->closed)
                   {
                       handlers->closed(self->m_reason);
                   }
               });
}

void MessageStream::Close()
{
    TASK_CHECK(m_task);
    m_handlers.reset();
    if (m_state == State::OPEN)
    {
        BeginClose(websocket::close_code::normal);
    }
    else if (m_state == State::OPENING)
    {
        Terminate();
    }
}

void MessageStream::BeginClose(websocket::close_code code)
{
    m_state = State::CLOSING;
    m_closeCode = code;
    m_timer.expires_after(kCloseLimit);
    m_timer.async_wait(
        [self = shared_from_this()](const ErrorCode& error)
        {
            if (!error)
            {
                self->Terminate();
            }
        });
    if (!m_reading)
    {
        StartRead();
    }
    Pump();
}

void MessageStream::SendCloseFrame()
{
    m_isCloseFrameSent = true;
    m_ws.async_close(m_closeCode, [self = shared_from_this()](const ErrorCode&) { self->Terminate(); });
}

void MessageStream::Terminate()
{
    TASK_CHECK(m_task);
    m_state = State::CLOSED;
    m_timer.cancel();
    if (m_opening != nullptr && m_opening->resolver)
    {
        m_opening->resolver->cancel();
    }
    m_ws.next_layer().Close();
    m_queue.clear();
    m_queuedBytes = 0;
    m_permit.reset();
}

/// Returns the caller's handle of a stream. Releasing its last reference closes the stream.
std::shared_ptr<Connection> HandleFromStream(const std::shared_ptr<MessageStream>& stream)
{
    return {static_cast<Connection*>(stream.get()), [stream](Connection*) { stream->Close(); }};
}

} // namespace

std::shared_ptr<Connection> Connect(NotifyTargetTaskIF* task, const Target& target, Connection::Handlers handlers,
                                    const Limits& limits)
{
    const auto stream = std::make_shared<MessageStream>(task, Socket(IL::IoContextOf(task).get_executor()), limits);
    stream->SetHandlers(std::move(handlers));
    stream->ConnectTo(target);
    return HandleFromStream(stream);
}

void AcceptConnection(NotifyTargetTaskIF* task, Socket socket, std::shared_ptr<const ListenOptions> options,
                      std::shared_ptr<void> permit, OpenedCallback opened)
{
    const auto stream = std::make_shared<MessageStream>(task, std::move(socket), options->limits);
    stream->Accept(std::move(options), std::move(permit), std::move(opened));
}

} // namespace WebSocket
