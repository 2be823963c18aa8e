#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// WebSocket connections with text messages, plain or TLS, client and server, behind a plain interface: all of
/// the machinery is compiled in one source. Everything here is called on the task given, and calls back on it.
namespace WebSocket
{

struct Limits
{
    std::size_t maxMessageBytes = 4U << 20U; ///< a larger message ends the connection
    std::size_t maxQueuedBytes = 8U << 20U;  ///< a peer that does not read is dropped when this much waits for it
    std::size_t kernelBufferBytes = 0;       ///< of the socket, each way; zero: as the kernel thinks best, megabytes
    std::chrono::milliseconds handshakeTimeout{5000};
    /// Silence after which the peer is asked (ping), and again after which the connection is lost. Zero: never.
    std::chrono::milliseconds idleTimeout{0};
};

/// Notifications tell how things are: what has more than this before it had better wait, and go out as what it has
/// become by then. Two hundred rows of the product table, or thousands of small ones.
inline constexpr std::size_t kMaxAheadBytes = 256U << 10U;
/// Of a connection on this machine that carries them: what lies in the kernel grows as old as what lies in a queue.
inline constexpr std::size_t kPromptBufferBytes = 128U << 10U;

/// Certificates of one product: ca.pem, cert.pem and key.pem of a directory; made once, shared by connections.
class TlsIdentity
{
public:
    virtual ~TlsIdentity() = default;
    /// Null, with the reason in `error`, where a file is missing or does not fit.
    static std::shared_ptr<TlsIdentity> Load(const std::string& directory, std::string& error);
};

/// One connection. Destroying the last reference closes it. After Close() or the destructor nothing is called.
class Connection
{
public:
    struct Handlers
    {
        std::function<void()> opened;                          ///< the handshakes are done
        std::function<void(std::string message)> message;      ///< one whole text message
        std::function<void(const std::string& reason)> closed; ///< once, also when it never opened
        std::function<void()> drained = nullptr;               ///< nothing waits to be sent any more
    };

    virtual ~Connection() = default;
    virtual void SetHandlers(Handlers handlers) = 0;
    /// Queues a text message, before `opened` too. Over the limit the connection ends in `closed`.
    virtual void Send(std::string text) = 0;
    virtual void Close() = 0;

    virtual bool IsOpen() const = 0;
    virtual std::size_t QueuedBytes() const = 0;
    /// For a notification of that size; one always, whatever its size. `drained` tells when to ask again.
    bool HasRoomFor(std::size_t bytes) const
    {
        const std::size_t queued = QueuedBytes();
        return queued == 0 || queued + bytes <= kMaxAheadBytes;
    }
    virtual const std::string& SubProtocol() const = 0; ///< the one agreed on
    virtual std::string PeerAddress() const = 0;        ///< numeric host, empty when gone
    virtual const std::string& PeerName() const = 0;    ///< common name of the peer's certificate, empty when plain
};

struct Target
{
    std::string host; ///< name or numeric address
    std::uint16_t port = 0;
    std::string subProtocol;
    std::shared_ptr<TlsIdentity> tls; ///< null: plain
    std::string expectedPeer;         ///< with TLS: the name that the certificate must carry
};

/// Starts to connect and returns at once.
std::shared_ptr<Connection> Connect(NotifyTargetTaskIF* task, const Target& target, Connection::Handlers handlers,
                                    const Limits& limits);

class Listener
{
public:
    virtual ~Listener() = default;          ///< stops listening; accepted connections live on
    virtual std::uint16_t Port() const = 0; ///< the bound one, where 0 was asked for
};

struct ListenOptions
{
    std::string address = "127.0.0.1"; ///< numeric; "::" listens on both families
    std::uint16_t port = 0;
    std::vector<std::string> subProtocols; ///< what is accepted; another request is refused
    /// Set: a connection whose first byte opens a TLS handshake is served with it, client certificate required,
    /// and only under `tlsSubProtocols`; plain ones go on under `subProtocols`.
    std::shared_ptr<TlsIdentity> tls;
    std::vector<std::string> tlsSubProtocols;
    std::size_t maxConnections = 4000;
    Limits limits;
};

/// `accepted` gets each connection once it is open, without handlers. Null, with the reason in `error`, where the
/// port cannot be bound. When descriptors run out, accepting pauses until one is free; nothing is lost or spun on.
std::shared_ptr<Listener> Listen(NotifyTargetTaskIF* task, const ListenOptions& options,
                                 std::function<void(std::shared_ptr<Connection>)> accepted, std::string& error);

} // namespace WebSocket
