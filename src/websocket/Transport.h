#pragma once

#include <boost/asio/associated_allocator.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/bind_handler.hpp>
#include <boost/beast/core/role.hpp>

#include <array>
#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include <sys/uio.h>

struct ssl_st;

namespace WebSocket
{

class TlsContext;
using Executor = boost::asio::io_context::executor_type;
using Socket = boost::asio::basic_stream_socket<boost::asio::ip::tcp, Executor>;
using ErrorCode = boost::system::error_code;

/// The byte stream under a WebSocket: a TCP socket, plain or with TLS. One class for both, so that Beast's templates
/// are compiled once. OpenSSL works directly on the descriptor, so that an idle connection keeps no record buffers.
/// Task: its socket's. Owner: the connection, which outlives the operations in flight.
class Transport
{
public:
    using executor_type = Executor;

    explicit Transport(Socket socket);
    ~Transport();
    Transport(const Transport&) = delete;
    Transport& operator=(const Transport&) = delete;

    executor_type get_executor()
    {
        return m_socket.get_executor();
    }
    Socket& Raw()
    {
        return m_socket;
    }
    const Socket& Raw() const
    {
        return m_socket;
    }
    const ssl_st* Tls() const ///< null: plain
    {
        return m_tls;
    }

    /// Adds TLS to the connected socket; AsyncHandshake() must follow. Returns false if memory is short.
    bool StartTls(const TlsContext& context, bool server);
    /// Text of the last TLS failure, empty if there was none.
    const std::string& TlsFailure() const
    {
        return m_tlsFailure;
    }

    void ShutdownSend();
    void Close();

    template <class Buffers, class Handler>
    void async_read_some(const Buffers& buffers, Handler&& handler)
    {
        Start(Kind::READ, buffers, std::forward<Handler>(handler));
    }
    template <class Buffers, class Handler>
    void async_write_some(const Buffers& buffers, Handler&& handler)
    {
        Start(Kind::WRITE, buffers, std::forward<Handler>(handler));
    }
    template <class Handler>
    void AsyncHandshake(Handler&& handler) ///< void(ErrorCode, std::size_t)
    {
        Start(Kind::HANDSHAKE, boost::asio::mutable_buffer(), std::forward<Handler>(handler));
    }

private:
    enum class Kind
    {
        READ,
        WRITE,
        HANDSHAKE,
    };

    /// The first 16 buffers of a sequence, enough for a frame or an HTTP response. A partial transfer is legal.
    struct Pieces
    {
        std::array<iovec, 16> parts;
        std::size_t count = 0;
    };

    /// Result of one non-blocking attempt. If `again` is set, wait for `wait` and repeat.
    struct Attempt
    {
        ErrorCode error;
        std::size_t bytes = 0;
        bool again = false;
        Socket::wait_type wait = Socket::wait_read;
    };

    template <class Handler>
    struct Operation
    {
        using executor_type = boost::asio::associated_executor_t<Handler, Executor>;
        using allocator_type = boost::asio::associated_allocator_t<Handler>;

        executor_type get_executor() const noexcept
        {
            return boost::asio::get_associated_executor(m_handler, m_transport.get_executor());
        }
        allocator_type get_allocator() const noexcept
        {
            return boost::asio::get_associated_allocator(m_handler);
        }

        void Step(bool first, ErrorCode error)
        {
            Attempt attempt;
            if (error)
            {
                attempt.error = error;
            }
            else
            {
                attempt = m_transport.Try(m_kind, m_pieces);
            }
            if (attempt.again)
            {
                m_transport.m_socket.async_wait(attempt.wait, std::move(*this));
            }
            else if (first) // never call the handler from inside the initiating function
            {
                boost::asio::post(m_transport.get_executor(),
                                  boost::beast::bind_front_handler(std::move(m_handler), attempt.error, attempt.bytes));
            }
            else
            {
                m_handler(attempt.error, attempt.bytes);
            }
        }
        void operator()(ErrorCode error)
        {
            Step(false, error);
        }

        Transport& m_transport;
        Kind m_kind;
        Pieces m_pieces;
        Handler m_handler;
    };

    template <class Buffers, class Handler>
    void Start(Kind kind, const Buffers& buffers, Handler&& handler)
    {
        Pieces pieces;
        const auto end = boost::asio::buffer_sequence_end(buffers);
        for (auto it = boost::asio::buffer_sequence_begin(buffers); it != end && pieces.count < pieces.parts.size();
             ++it)
        {
            const boost::asio::const_buffer buffer(*it);
            if (buffer.size() != 0)
            {
                pieces.parts[pieces.count++] = iovec{const_cast<void*>(buffer.data()), buffer.size()};
            }
        }
        Operation<std::decay_t<Handler>> operation{*this, kind, pieces, std::forward<Handler>(handler)};
        operation.Step(true, {});
    }

    Attempt Try(Kind kind, Pieces& pieces);
    Attempt TryPlain(Kind kind, Pieces& pieces);
    Attempt TryTls(Kind kind, const Pieces& pieces);

    Socket m_socket;
    ssl_st* m_tls = nullptr;
    std::string m_tlsFailure;
};

/// Beast finds these functions by argument-dependent lookup. async_teardown and teardown run after the closing
/// handshake, beast_close_socket when the idle timer expires.
template <class Handler>
void async_teardown(boost::beast::role_type, Transport& transport, Handler&& handler)
{
    transport.ShutdownSend();
    boost::asio::post(transport.get_executor(),
                      boost::beast::bind_front_handler(std::forward<Handler>(handler), ErrorCode()));
}
void teardown(boost::beast::role_type, Transport& transport, ErrorCode& error);
void beast_close_socket(Transport& transport);

} // namespace WebSocket
