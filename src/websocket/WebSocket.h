#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

/// WebSocket connections (RFC 6455) with text messages, plain or TLS, client and server. Hides Beast and OpenSSL from
/// its users.
/// Task: all calls on the task that is passed, all callbacks on it.
namespace WebSocket
{

struct Limits
{
    std::size_t maxMessageBytes = 4U << 20U; ///< a larger received message ends the connection
    std::size_t maxQueuedBytes = 8U << 20U;  ///< a peer is dropped when more is queued for it
    std::size_t kernelBufferBytes =
        0; ///< SO_SNDBUF and SO_RCVBUF; zero: the kernel's default, which grows to megabytes
    std::chrono::milliseconds handshakeTimeout{5000};
    /// After this time without data the peer gets a ping, after twice this time the connection ends. Zero: never.
    std::chrono::milliseconds idleTimeout{0};
};

/// A notification carries state, not a change. If more than this is queued ahead of it, its sender holds it back and
/// sends only the latest. 256 KiB is about 200 table rows.
inline constexpr std::size_t kMaxAheadBytes = 256U << 10U;
/// Value of kernelBufferBytes for local connections that carry notifications: data in the kernel's buffers gets as old
/// as data in a queue.
inline constexpr std::size_t kPromptBufferBytes = 128U << 10U;

/// Certificates of one product: ca.pem, cert.pem and key.pem of a directory. Loaded once, shared by connections.
class TlsIdentity
{
public:
    virtual ~TlsIdentity() = default;
    /// Returns null and sets `error` if a file is missing or invalid.
    static std::shared_ptr<TlsIdentity> Load(const std::string& directory, std::string& error);
};

/// One connection. Destroying the last reference closes it. No handler is called after Close() or the destructor.
class Connection
{
public:
    struct Handlers
    {
        std::function<void()> opened;                          ///< all handshakes have succeeded
        std::function<void(std::string message)> message;      ///< one whole text message
        std::function<void(const std::string& reason)> closed; ///< once, also if it never opened
        std::function<void()> drained = nullptr;               ///< the send queue has become empty
    };

    virtual ~Connection() = default;
    virtual void SetHandlers(Handlers handlers) = 0;
    /// Queues a text message; also before `opened`. If the queue exceeds its limit, the connection ends with
    /// `closed`.
    virtual void Send(std::string text) = 0;
    virtual void Close() = 0;

    virtual bool IsOpen() const = 0;
    virtual std::size_t QueuedBytes() const = 0;
    /// Whether a notification of `bytes` may be sent now. An empty queue takes any size. `drained` tells when to try
    /// again.
    bool HasRoomFor(std::size_t bytes) const
    {
        const std::size_t queued = QueuedBytes();
        return queued == 0 || queued + bytes <= kMaxAheadBytes;
    }
    virtual const std::string& SubProtocol() const = 0; ///< as negotiated
    virtual std::string PeerAddress() const = 0;        ///< numeric address, empty after the end
    virtual const std::string& PeerName() const = 0;    ///< common name of the peer's certificate, empty without TLS
};

struct Target
{
    std::string host; ///< name or numeric address
    std::uint16_t port = 0;
    std::string subProtocol;
    std::shared_ptr<TlsIdentity> tls; ///< null: plain
    std::string expectedPeer;         ///< with TLS: common name or DNS name of the certificate; empty: not checked
};

/// Starts to connect and returns at once. The result is reported by the handlers.
std::shared_ptr<Connection> Connect(NotifyTargetTaskIF* task, const Target& target, Connection::Handlers handlers,
                                    const Limits& limits);

class Listener
{
public:
    virtual ~Listener() = default;          ///< stops listening; accepted connections stay open
    virtual std::uint16_t Port() const = 0; ///< the bound port, if 0 was requested
};

struct ListenOptions
{
    std::string address = "127.0.0.1"; ///< numeric; "::" listens on both families
    std::uint16_t port = 0;
    std::vector<std::string> subProtocols; ///< accepted sub-protocols; other requests are refused
    /// If set, a connection whose first byte starts a TLS handshake gets TLS with a required client certificate,
    /// under `tlsSubProtocols`. Others are plain, under `subProtocols`.
    std::shared_ptr<TlsIdentity> tls;
    std::vector<std::string> tlsSubProtocols;
    std::size_t maxConnections = 4000;
    Limits limits;
};

/// `accepted` gets each connection when it is open, without handlers. Returns null and sets `error` if the port
/// cannot be bound. If descriptors run out, accepting pauses; connections then wait in the kernel's queue.
std::shared_ptr<Listener> Listen(NotifyTargetTaskIF* task, const ListenOptions& options,
                                 std::function<void(std::shared_ptr<Connection>)> accepted, std::string& error);

} // namespace WebSocket
