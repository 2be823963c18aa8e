#include "runtime/ipc/IPCConnection.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/TaskIo.h"
#include "runtime/ipc/IPCMessageEnvelope.h"

#include <boost/asio/io_context.hpp>

#include <array>
#include <cerrno>
#include <exception>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace
{

using Descriptor = boost::asio::posix::descriptor_base;

constexpr std::size_t kReadBytes = std::size_t{4} * 1024; ///< per read, so that one client cannot starve the others
constexpr std::size_t kCompactBytes = std::size_t{1024} * 1024;

/// Sets `written` to the bytes that the kernel accepted; 0 if its buffer is full. Returns false if the peer can no
/// longer be written to.
bool WriteSome(int descriptor, std::string_view bytes, std::size_t& written)
{
    const ssize_t count = ::send(descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    written = count > 0 ? static_cast<std::size_t>(count) : 0;
    return count >= 0 || errno == EAGAIN || errno == EINTR || errno == ENOBUFS || errno == ENOMEM;
}

} // namespace

IPCConnection::IPCConnection(NotifyTargetTaskIF* task, const std::shared_ptr<const DPrint>& log, int descriptor,
                             const std::string& peer)
    : m_task(task)
    , m_log(log)
    , m_peer(peer)
    , m_socket(IL::IoContextOf(task))
{
    boost::system::error_code fault;
    m_socket.assign(descriptor, fault);
    if (fault) // epoll has a limit of watched descriptors
    {
        ::close(descriptor);
        m_canSend = false;
    }
}

IPCConnection::~IPCConnection() = default;

void IPCConnection::Start(Handlers handlers)
{
    TASK_CHECK(m_task);
    m_handlers = std::make_shared<const Handlers>(std::move(handlers));
    if (m_socket.is_open())
    {
        WaitToRead();
    }
    else
    {
        IL::BreakThread([self = shared_from_this()] { self->End("its descriptor cannot be watched"); }, m_task);
    }
}

void IPCConnection::WaitToRead()
{
    m_socket.async_wait(Descriptor::wait_read,
                        [self = shared_from_this()](const boost::system::error_code& error)
                        {
                            if (!error)
                            {
                                self->Read();
                            }
                        });
}

void IPCConnection::Read()
{
    TASK_CHECK(m_task);
    if (!m_handlers)
    {
        return;
    }
    std::array<char, kReadBytes> buffer;
    const ssize_t count = ::recv(m_socket.native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
    {
        End("");
        return;
    }
    if (count > 0)
    {
        m_reader.Append({buffer.data(), static_cast<std::size_t>(count)});
        Deliver();
    }
    if (m_handlers)
    {
        WaitToRead();
    }
}

void IPCConnection::Deliver()
{
    const std::shared_ptr<const Handlers> handlers = m_handlers; // a handler may call Close()
    IPCMessageEnvelope envelope;
    while (m_handlers)
    {
        switch (m_reader.Next(envelope))
        {
        case IPCFraming::FrameReader::MORE:
            return;
        case IPCFraming::FrameReader::FAULT:
            End(m_reader.Fault());
            return;
        case IPCFraming::FrameReader::ENVELOPE:
            try
            {
                handlers->envelope(envelope);
            }
            catch (const std::exception& failure) // the connection continues
            {
                DPRINTF(*m_log, DPrint::LEVEL_ERROR, "%s: a request failed: %s", m_peer.c_str(), failure.what());
            }
        }
    }
}

void IPCConnection::Send(const std::string& frame)
{
    const std::lock_guard lock(m_mutex);
    if (!m_canSend)
    {
        return;
    }
    std::size_t written = 0;
    if (m_queue.empty() && !WriteSome(m_socket.native_handle(), frame, written))
    {
        StopSending();
        return;
    }
    if (written == frame.size())
    {
        return;
    }
    const std::size_t queued = m_queue.size() - m_written + frame.size() - written;
    if (queued > kMaxQueuedBytes)
    {
        StopSending();
        const std::string reason = std::to_string(queued) + " bytes are queued and not read";
        IL::BreakThread([self = shared_from_this(), reason] { self->End(reason); }, m_task);
        return;
    }
    m_queue.append(frame, written);
    if (!std::exchange(m_isWriteAwaited, true))
    {
        IL::BreakThread([self = shared_from_this()] { self->WaitToWrite(); }, m_task);
    }
}

void IPCConnection::WaitToWrite()
{
    TASK_CHECK(m_task);
    if (!m_socket.is_open())
    {
        return;
    }
    m_socket.async_wait(Descriptor::wait_write,
                        [self = shared_from_this()](const boost::system::error_code& error)
                        {
                            if (!error)
                            {
                                self->Write();
                            }
                        });
}

void IPCConnection::Write()
{
    TASK_CHECK(m_task);
    {
        const std::lock_guard lock(m_mutex);
        if (!m_canSend)
        {
            return;
        }
        std::size_t written = 0;
        if (!WriteSome(m_socket.native_handle(), std::string_view(m_queue).substr(m_written), written))
        {
            StopSending();
            return;
        }
        m_written += written;
        if (m_written == m_queue.size())
        {
            std::string().swap(m_queue);
            m_written = 0;
            m_isWriteAwaited = false;
            return;
        }
        if (m_written > kCompactBytes)
        {
            m_queue.erase(0, std::exchange(m_written, 0));
        }
    }
    WaitToWrite();
}

/// Called with the mutex held. Does not end the connection: requests that the peer sent before it closed its socket
/// are still read, and the end of the stream follows them.
void IPCConnection::StopSending()
{
    m_canSend = false;
    std::string().swap(m_queue);
}

void IPCConnection::End(const std::string& reason)
{
    TASK_CHECK(m_task);
    const std::shared_ptr<const Handlers> handlers = std::exchange(m_handlers, nullptr);
    if (!handlers)
    {
        return; // Close() was called before this posted call ran
    }
    if (reason.empty())
    {
        DPRINTF(*m_log, DPrint::LEVEL_DEBUG, "%s has disconnected", m_peer.c_str());
    }
    else
    {
        DPRINTF(*m_log, DPrint::LEVEL_WARNING, "the connection of %s ends: %s", m_peer.c_str(), reason.c_str());
    }
    CloseSocket();
    handlers->closed();
}

void IPCConnection::Close()
{
    TASK_CHECK(m_task);
    m_handlers.reset();
    CloseSocket();
}

void IPCConnection::CloseSocket()
{
    const std::lock_guard lock(m_mutex);
    StopSending();
    boost::system::error_code ignored;
    m_socket.close(ignored);
}
