#include "websocket/Transport.h"

#include "websocket/TlsContext.h"

#include <boost/asio/error.hpp>

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include <sys/socket.h>

namespace WebSocket
{
namespace
{

/// Several buffers of a write are copied into one TLS record of at most this size (RFC 8446 section 5.1).
constexpr std::size_t kRecordBytes = 16U << 10U;

} // namespace

Transport::Transport(Socket socket)
    : m_socket(std::move(socket))
{
}

Transport::~Transport()
{
    Close();
}

bool Transport::StartTls(const TlsContext& context, bool server)
{
    ErrorCode error;
    m_socket.native_non_blocking(true, error);
    if (!error)
    {
        m_tls = context.NewSession(m_socket.native_handle(), server);
    }
    return m_tls != nullptr;
}

void Transport::ShutdownSend()
{
    if (!m_socket.is_open())
    {
        return;
    }
    if (m_tls != nullptr && SSL_is_init_finished(m_tls) == 1)
    {
        ERR_clear_error();
        SSL_shutdown(m_tls);
    }
    ErrorCode ignored;
    m_socket.shutdown(Socket::shutdown_send, ignored);
}

void Transport::Close()
{
    ErrorCode ignored;
    m_socket.close(ignored);
    if (m_tls != nullptr)
    {
        SSL_free(m_tls);
        m_tls = nullptr;
    }
}

Transport::Attempt Transport::Try(Kind kind, Pieces& pieces)
{
    Attempt attempt;
    if (!m_socket.is_open())
    {
        attempt.error = boost::asio::error::operation_aborted;
        return attempt;
    }
    if (pieces.count == 0 && kind != Kind::HANDSHAKE)
    {
        return attempt;
    }
    return m_tls != nullptr ? TryTls(kind, pieces) : TryPlain(kind, pieces);
}

Transport::Attempt Transport::TryPlain(Kind kind, Pieces& pieces)
{
    msghdr message{};
    message.msg_iov = pieces.parts.data();
    message.msg_iovlen = pieces.count;
    const int descriptor = m_socket.native_handle();
    ssize_t result = -1;
    do
    {
        result = kind == Kind::READ ? ::recvmsg(descriptor, &message, MSG_DONTWAIT)
                                    : ::sendmsg(descriptor, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (result < 0 && errno == EINTR);

    Attempt attempt;
    if (result > 0)
    {
        attempt.bytes = static_cast<std::size_t>(result);
    }
    else if (result == 0)
    {
        attempt.error = boost::asio::error::eof;
    }
    else if (errno == EAGAIN || errno == EWOULDBLOCK)
    {
        attempt.again = true;
        attempt.wait = kind == Kind::READ ? Socket::wait_read : Socket::wait_write;
    }
    else
    {
        attempt.error = ErrorCode(errno, boost::system::system_category());
    }
    return attempt;
}

Transport::Attempt Transport::TryTls(Kind kind, const Pieces& pieces)
{
    ERR_clear_error();
    std::size_t bytes = 0;
    int result = 0;
    if (kind == Kind::HANDSHAKE)
    {
        result = SSL_do_handshake(m_tls);
    }
    else if (kind == Kind::READ)
    {
        result = SSL_read_ex(m_tls, pieces.parts[0].iov_base, pieces.parts[0].iov_len, &bytes);
    }
    else if (pieces.count == 1)
    {
        result = SSL_write_ex(m_tls, pieces.parts[0].iov_base, pieces.parts[0].iov_len, &bytes);
    }
    else
    {
        std::array<char, kRecordBytes> record;
        std::size_t size = 0;
        for (std::size_t i = 0; i < pieces.count; ++i)
        {
            const std::size_t share = std::min(pieces.parts[i].iov_len, record.size() - size);
            std::memcpy(record.data() + size, pieces.parts[i].iov_base, share);
            size += share;
        }
        result = SSL_write_ex(m_tls, record.data(), size, &bytes);
    }

    Attempt attempt;
    if (result == 1)
    {
        attempt.bytes = bytes;
        return attempt;
    }
    switch (SSL_get_error(m_tls, result))
    {
    case SSL_ERROR_WANT_READ:
        attempt.again = true;
        attempt.wait = Socket::wait_read;
        break;
    case SSL_ERROR_WANT_WRITE:
        attempt.again = true;
        attempt.wait = Socket::wait_write;
        break;
    case SSL_ERROR_ZERO_RETURN:
        attempt.error = boost::asio::error::eof;
        break;
    case SSL_ERROR_SYSCALL:
        attempt.error = errno != 0 ? ErrorCode(errno, boost::system::system_category())
                                   : ErrorCode(boost::asio::error::connection_reset);
        break;
    default:
        m_tlsFailure = TlsErrorText("TLS failed");
        attempt.error = boost::asio::error::connection_aborted;
        break;
    }
    return attempt;
}

void teardown(boost::beast::role_type, Transport& transport, ErrorCode& error)
{
    transport.ShutdownSend();
    error = {};
}

void beast_close_socket(Transport& transport)
{
    transport.Close();
}

} // namespace WebSocket
