#include "runtime/ipc/IPCConnection.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
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

constexpr std::size_t kReadBytes = std::size_t{4} * 1024; ///< at once, then the other clients have their turn
constexpr std::size_t kTidyBytes = std::size_t{1024} * 1024;

/// How many bytes the kernel took; 0 where its buffer is full. False: the peer cannot be written to any more.
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
    if (fault) // the kernel watches only so many descriptors
    {
        ::close(descriptor);
        m_isOpen = false;
    }
}

IPCConnection::~IPCConnection() = default;

void IPCConnection::Start(Handlers handlers)
{
    m_handlers = std::make_shared<const Handlers>(std::move(handlers));
    if (m_socket.is_open())
    {
        WaitToRead();
    }
    else
    {
        IL::BreakThread([self = shared_from_this()] { self->End("it cannot be watched"); }, m_task);
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
    const std::shared_ptr<const Handlers> handlers = m_handlers; // a handler may close us
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
            catch (const std::exception& failure) // the connection goes on all the same
            {
                DPRINTF(*m_log, DPrint::LEVEL_ERROR, "%s: a request fails: %s", m_peer.c_str(), failure.what());
            }
        }
    }
}

void IPCConnection::Send(const std::string& frame)
{
    const std::lock_guard lock(m_mutex);
    if (!m_isOpen)
    {
        return;
    }
    std::size_t written = 0;
    if (m_waiting.empty() && !WriteSome(m_socket.native_handle(), frame, written))
    {
        StopSending();
        return;
    }
    if (written == frame.size())
    {
        return;
    }
    const std::size_t waiting = m_waiting.size() - m_written + frame.size() - written;
    if (waiting > kMaxWaitingBytes)
    {
        StopSending();
        const std::string reason = std::to_string(waiting) + " bytes wait for it to read";
        IL::BreakThread([self = shared_from_this(), reason] { self->End(reason); }, m_task);
        return;
    }
    m_waiting.append(frame, written);
    if (!std::exchange(m_isWriteAwaited, true))
    {
        IL::BreakThread([self = shared_from_this()] { self->WaitToWrite(); }, m_task);
    }
}

void IPCConnection::WaitToWrite()
{
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
    {
        const std::lock_guard lock(m_mutex);
        if (!m_isOpen)
        {
            return;
        }
        std::size_t written = 0;
        if (!WriteSome(m_socket.native_handle(), std::string_view(m_waiting).substr(m_written), written))
        {
            StopSending();
            return;
        }
        m_written += written;
        if (m_written == m_waiting.size())
        {
            std::string().swap(m_waiting);
            m_written = 0;
            m_isWriteAwaited = false;
            return;
        }
        if (m_written > kTidyBytes)
        {
            m_waiting.erase(0, std::exchange(m_written, 0));
        }
    }
    WaitToWrite();
}

/// With the mutex held. A peer that cannot be written to has not ended by that: what it wrote before it went is still
/// to be read, and its end comes behind it.
void IPCConnection::StopSending()
{
    m_isOpen = false;
    std::string().swap(m_waiting);
}

void IPCConnection::End(const std::string& reason)
{
    const std::shared_ptr<const Handlers> handlers = std::exchange(m_handlers, nullptr);
    if (!handlers)
    {
        return; // closed meanwhile
    }
    if (reason.empty())
    {
        DPRINTF(*m_log, DPrint::LEVEL_DEBUG, "%s has gone", m_peer.c_str());
    }
    else
    {
        DPRINTF(*m_log, DPrint::LEVEL_WARNING, "the connection of %s ends: %s", m_peer.c_str(), reason.c_str());
    }
    Shut();
    handlers->closed();
}

void IPCConnection::Close()
{
    m_handlers.reset();
    Shut();
}

void IPCConnection::Shut()
{
    const std::lock_guard lock(m_mutex);
    StopSending();
    boost::system::error_code ignored;
    m_socket.close(ignored);
}
