#include "runtime/ipc/ServerListenerIF.h"

#include "base/ListeningSocket.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskIo.h"
#include "runtime/ThreadMutex.h"
#include "runtime/ipc/ConnectorSocket.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cerrno>
#include <chrono>
#include <optional>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace IL
{

namespace
{

namespace asio = boost::asio;

using OnAccept = AsyncCallback<std::shared_ptr<Network::ConnectorSocket>>;

constexpr std::chrono::milliseconds kPause{250};
constexpr std::chrono::minutes kLinePeriod{1}; ///< of the line about pauses
constexpr int kAcceptedAtOnce = 64;            ///< then the task's other work has its turn

/// The socket's side of a listener, on the task. Its own pending wait keeps it alive until Close().
class Acceptance final : public std::enable_shared_from_this<Acceptance>
{
public:
    Acceptance(NotifyTargetTaskIF* task, const std::string& name, const std::string& path, OnAccept onAccept)
        : m_log(name)
        , m_path(path)
        , m_socket(IoContextOf(task))
        , m_timer(IoContextOf(task))
        , m_onAccept(std::move(onAccept))
    {
    }

    /// Before Wait(). Takes over the descriptor, or leaves it: where the kernel watches no more of them.
    boost::system::error_code Take(int descriptor)
    {
        boost::system::error_code fault;
        m_socket.assign(descriptor, fault);
        return fault;
    }

    void Wait()
    {
        m_socket.async_wait(asio::posix::descriptor_base::wait_read,
                            [self = shared_from_this()](const boost::system::error_code& error)
                            {
                                if (!error)
                                {
                                    self->AcceptSome();
                                }
                            });
    }

    void Close()
    {
        boost::system::error_code ignored;
        m_socket.close(ignored);
        m_timer.cancel();
    }

private:
    void AcceptSome();
    void Pause(int error);

    const DPrint m_log;
    const std::string m_path;
    asio::posix::stream_descriptor m_socket; ///< never read: only waited for
    asio::steady_timer m_timer;
    const OnAccept m_onAccept;
    std::optional<std::chrono::steady_clock::time_point> m_saidAt;
};

void Acceptance::AcceptSome()
{
    for (int count = 0; count < kAcceptedAtOnce && m_socket.is_open(); ++count)
    {
        const int accepted = ::accept4(m_socket.native_handle(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (accepted >= 0)
        {
            const auto socket = std::make_shared<Network::ConnectorSocket>(accepted);
            DPRINTF(m_log, DPrint::LEVEL_INFO, "%s: %s has connected", m_path.c_str(), socket->Peer().c_str());
            m_onAccept(socket);
        }
        else if (errno == EAGAIN)
        {
            break;
        }
        else if (errno != EINTR && errno != ECONNABORTED)
        {
            Pause(errno);
            return;
        }
    }
    if (m_socket.is_open())
    {
        Wait();
    }
}

void Acceptance::Pause(int error)
{
    const auto now = std::chrono::steady_clock::now();
    if (!m_saidAt || now - *m_saidAt > kLinePeriod)
    {
        m_saidAt = now;
        DPRINTF(m_log, DPrint::LEVEL_WARNING, "%s: accepting pauses: %s", m_path.c_str(),
                std::generic_category().message(error).c_str());
    }
    m_timer.expires_after(kPause);
    m_timer.async_wait(
        [self = shared_from_this()](const boost::system::error_code& cancelled)
        {
            if (!cancelled)
            {
                self->AcceptSome();
            }
        });
}

class ServerListener final : public ServerListenerIF
{
public:
    ServerListener(const std::string& name, NotifyTargetTaskIF* task)
        : m_log(name)
        , m_name(name)
        , m_task(task)
    {
    }
    ~ServerListener() override
    {
        ServerListener::Stop();
    }
    ServerListener(const ServerListener&) = delete;
    ServerListener& operator=(const ServerListener&) = delete;

    Network::Address Listen(const Network::Address& address, const OnAccept& onAccept) override
    {
        const ScopedMutex lock(m_mutex);
        if (m_acceptance)
        {
            DPRINTF(m_log, DPrint::LEVEL_ERROR, "%s: it listens already", address.ToString().c_str());
            return {};
        }
        const auto acceptance = std::make_shared<Acceptance>(m_task, m_name, address.ToString(), onAccept);
        std::string fault = m_file.Open(address.ToString(), 0660);
        if (fault.empty())
        {
            const int descriptor = m_file.Release();
            if (const boost::system::error_code refused = acceptance->Take(descriptor))
            {
                ::close(descriptor);
                m_file.RemoveFile();
                fault = refused.message();
            }
        }
        if (!fault.empty())
        {
            DPRINTF(m_log, DPrint::LEVEL_ERROR, "cannot listen on %s: %s", address.ToString().c_str(), fault.c_str());
            return {};
        }
        m_acceptance = acceptance;
        BreakThread([acceptance] { acceptance->Wait(); }, m_task);
        return address;
    }

    void Stop() override
    {
        const ScopedMutex lock(m_mutex);
        m_file.RemoveFile();
        if (const std::shared_ptr<Acceptance> acceptance = std::exchange(m_acceptance, nullptr))
        {
            BreakThread([acceptance] { acceptance->Close(); }, m_task);
        }
    }

private:
    const DPrint m_log;
    const std::string m_name;
    NotifyTargetTaskIF* const m_task;
    CThreadMutex m_mutex; ///< guards what follows
    ListeningSocket m_file;
    std::shared_ptr<Acceptance> m_acceptance;
};

} // namespace

std::shared_ptr<ServerListenerIF> CreateServerListener(const std::string& name, NotifyTargetTaskIF* task)
{
    return std::make_shared<ServerListener>(name, task);
}

} // namespace IL
