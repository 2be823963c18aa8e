#include "platform/console/LineServer.h"

#include "base/ListeningSocket.h"
#include "runtime/AcceptLoop.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/TaskIo.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <array>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace asio = boost::asio;

namespace Console
{

namespace
{

using Protocol = asio::local::stream_protocol;
using ErrorCode = boost::system::error_code;

const DPrint s_log("CLIClient");

constexpr mode_t kFileMode = 0600; ///< every client may run every command

/// Returns "process 123, user 0".
std::string PeerOf(Protocol::socket& socket)
{
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (::getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
    {
        return "unknown process";
    }
    return "process " + std::to_string(peer.pid) + ", user " + std::to_string(peer.uid);
}

} // namespace

/// A connected client. The server and the pending handlers hold it. After Close() it does nothing.
class LineServer::Client final : public std::enable_shared_from_this<Client>
{
public:
    Client(NotifyTargetTaskIF* task, Protocol::socket socket, const std::shared_ptr<LineServer>& server,
           const Responses& responses)
        : m_task(task)
        , m_socket(std::move(socket))
        , m_server(server)
        , m_responses(responses)
        , m_peer(PeerOf(m_socket))
    {
    }

    const std::string& Peer() const
    {
        return m_peer;
    }

    void Send(const std::string& line)
    {
        m_waiting += line;
        m_waiting += '\n';
        Write();
    }

    std::size_t UnreadBytes() const
    {
        return m_waiting.size() + m_sending.size();
    }

    /// Handles the next line if it has been received and the last response is sent; else reads.
    void Next()
    {
        const std::shared_ptr<LineServer> server = m_server.lock(); // a command may destroy the server
        if (m_isReading || UnreadBytes() > 0 || !m_socket.is_open() || !server)
        {
            return;
        }
        std::string line;
        switch (TakeLine(line))
        {
        case Found::LINE:
            Send(m_responses.handle(line));
            break;
        case Found::TOO_LONG:
            Send(m_responses.tooLong);
            break;
        case Found::NOTHING:
            Read();
            break;
        }
    }

    void Close()
    {
        ErrorCode ignored;
        m_socket.close(ignored);
    }

private:
    enum class Found
    {
        NOTHING,
        LINE,
        TOO_LONG,
    };

    /// Takes a line from the received bytes. The bytes of a line that is too long are discarded as they arrive.
    Found TakeLine(std::string& line)
    {
        const std::size_t end = m_input.find('\n', m_searched);
        const bool isWhole = end != std::string::npos;
        const std::size_t size = isWhole ? end : m_input.size();
        if (std::exchange(m_isSkipping, m_isSkipping && !isWhole))
        {
            m_input.erase(0, isWhole ? end + 1 : size);
            return isWhole ? TakeLine(line) : Found::NOTHING;
        }
        const bool isTooLong = size > kMaxLineBytes;
        if (!isWhole && !isTooLong)
        {
            m_searched = size;
            return Found::NOTHING;
        }
        m_isSkipping = !isWhole;
        m_searched = 0;
        line = isTooLong ? std::string() : m_input.substr(0, size);
        m_input.erase(0, isWhole ? end + 1 : size);
        return isTooLong ? Found::TOO_LONG : Found::LINE;
    }

    void Read()
    {
        m_isReading = true;
        m_socket.async_read_some(asio::buffer(m_buffer),
                                 [self = shared_from_this()](const ErrorCode& error, std::size_t size)
                                 { self->HandleRead(error, size); });
    }

    void HandleRead(const ErrorCode& error, std::size_t size)
    {
        TASK_CHECK(m_task);
        m_isReading = false;
        m_input.append(m_buffer.data(), size);
        if (!error)
        {
            Next();
        }
        else if (m_socket.is_open())
        {
            m_isEnding = true;
            if (error == asio::error::eof && !m_input.empty() && !m_isSkipping)
            {
                Send(m_responses.cut);
            }
            EndIfSent();
        }
    }

    void Write()
    {
        if (!m_sending.empty() || m_waiting.empty() || !m_socket.is_open())
        {
            return;
        }
        m_sending.swap(m_waiting);
        asio::async_write(m_socket, asio::buffer(m_sending),
                          [self = shared_from_this()](const ErrorCode& error, std::size_t)
                          { self->HandleSent(error); });
    }

    void HandleSent(const ErrorCode& error)
    {
        TASK_CHECK(m_task);
        m_sending = std::string(); // frees the memory of a large response
        if (error)
        {
            m_isEnding = true;
            m_waiting.clear();
        }
        Write();
        EndIfSent();
        Next();
    }

    void EndIfSent()
    {
        const std::shared_ptr<LineServer> server = m_server.lock();
        if (m_isEnding && UnreadBytes() == 0 && m_socket.is_open() && server)
        {
            server->Drop(shared_from_this(), "has gone");
        }
    }

    [[maybe_unused]] NotifyTargetTaskIF* const m_task; ///< for TASK_CHECK
    Protocol::socket m_socket;
    const std::weak_ptr<LineServer> m_server;
    const Responses& m_responses; ///< owned by the server; used while the server holds this client
    const std::string m_peer;
    std::array<char, 4096> m_buffer{};
    std::string m_input;        ///< received, not yet handled
    std::size_t m_searched = 0; ///< these first bytes of m_input contain no '\n'
    std::string m_sending;
    std::string m_waiting;
    bool m_isReading = false;
    bool m_isSkipping = false; ///< the rest of a line that is too long is discarded
    bool m_isEnding = false;
};

struct LineServer::Impl
{
    Impl(NotifyTargetTaskIF* givenTask, Responses givenResponses)
        : task(givenTask)
        , responses(std::move(givenResponses))
    {
    }

    NotifyTargetTaskIF* const task;
    const Responses responses;
    std::unique_ptr<ListeningSocket> file;
    std::unique_ptr<IL::AcceptLoop> acceptLoop;
    std::vector<std::shared_ptr<Client>> clients;
    bool hasLoggedRefusal = false;
};

LineServer::LineServer(NotifyTargetTaskIF* task, Responses responses)
    : m_impl(std::make_unique<Impl>(task, std::move(responses)))
{
}

LineServer::~LineServer()
{
    TASK_CHECK(m_impl->task);
}

bool LineServer::Open(const std::string& path, std::string& error)
{
    TASK_CHECK(m_impl->task);
    auto file = std::make_unique<ListeningSocket>();
    error = file->Open(path, kFileMode);
    if (!error.empty())
    {
        error = path + ": " + error;
        return false;
    }
    // Form 3 of Liveness: destroying the loop on the task, as Close() and the destructor do, ends its callbacks.
    auto acceptLoop = std::make_unique<IL::AcceptLoop>(m_impl->task, "CLIClient", "console",
                                                       [this](int descriptor) { AddClient(descriptor); });
    error = acceptLoop->Start(file->Release());
    if (!error.empty())
    {
        return false;
    }
    m_impl->acceptLoop = std::move(acceptLoop);
    m_impl->file = std::move(file);
    return true;
}

void LineServer::AddClient(int descriptor)
{
    TASK_CHECK(m_impl->task);
    Protocol::socket socket(IL::IoContextOf(m_impl->task));
    boost::system::error_code error;
    socket.assign(Protocol(), descriptor, error);
    if (error) // the kernel has no room to watch it
    {
        ::close(descriptor);
        DPRINT(s_log, DPrint::LEVEL_WARNING, "closed a new client: " << error.message());
        return;
    }
    if (m_impl->clients.size() >= kMaxClients)
    {
        const std::string line = m_impl->responses.tooMany + '\n'; // fits into the send buffer of a new socket
        [[maybe_unused]] const ssize_t sent =
            ::send(socket.native_handle(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (!std::exchange(m_impl->hasLoggedRefusal, true)) // one log line per series of refusals
        {
            DPRINT(s_log, DPrint::LEVEL_WARNING, "refused " << PeerOf(socket) << ": " << kMaxClients << " are open");
        }
        return;
    }
    m_impl->hasLoggedRefusal = false;
    const auto client =
        std::make_shared<Client>(m_impl->task, std::move(socket), shared_from_this(), m_impl->responses);
    m_impl->clients.push_back(client);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, client->Peer() << " opened the console");
    client->Next();
}

void LineServer::Broadcast(const std::string& line)
{
    TASK_CHECK(m_impl->task);
    for (const std::shared_ptr<Client>& client : std::vector(m_impl->clients))
    {
        if (client->UnreadBytes() > kMaxUnreadBytes)
        {
            DPRINT(s_log, DPrint::LEVEL_WARNING, "dropped " << client->Peer() << ": it does not read");
            Drop(client, "was dropped");
            continue;
        }
        client->Send(line);
    }
}

void LineServer::Drop(const std::shared_ptr<Client>& client, const std::string& why)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, client->Peer() << ' ' << why);
    client->Close();
    m_impl->clients.erase(std::remove(m_impl->clients.begin(), m_impl->clients.end(), client), m_impl->clients.end());
}

void LineServer::Close()
{
    TASK_CHECK(m_impl->task);
    for (const std::shared_ptr<Client>& client : std::exchange(m_impl->clients, {}))
    {
        client->Close();
    }
    m_impl->acceptLoop.reset();
    m_impl->file.reset();
}

} // namespace Console
