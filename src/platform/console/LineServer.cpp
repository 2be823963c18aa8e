#include "platform/console/LineServer.h"

#include "base/ListeningSocket.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskIo.h"

#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/write.hpp>

#include <algorithm>
#include <array>
#include <sys/socket.h>
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

constexpr mode_t kFileMode = 0600; ///< who may connect may do everything

/// "process 123, user 0".
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

/// One client. The handlers in flight and the server hold it; once closed it does nothing.
class LineServer::Session final : public std::enable_shared_from_this<Session>
{
public:
    Session(Protocol::socket socket, const std::shared_ptr<LineServer>& server, const Answers& answers)
        : m_socket(std::move(socket))
        , m_server(server)
        , m_answers(answers)
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

    /// Takes the next step: answers a line that is there already, or reads on.
    void Next()
    {
        const std::shared_ptr<LineServer> server = m_server.lock(); // a line may end it
        if (m_isReading || UnreadBytes() > 0 || !m_socket.is_open() || !server)
        {
            return;
        }
        std::string line;
        switch (TakeLine(line))
        {
        case Found::LINE:
            Send(m_answers.line(line));
            break;
        case Found::TOO_LONG:
            Send(m_answers.tooLong);
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

    /// Out of what has come. The bytes of a line that is too long go as they come.
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
                Send(m_answers.cut);
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
        m_sending = std::string(); // gives a large answer's memory back
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

    Protocol::socket m_socket;
    const std::weak_ptr<LineServer> m_server;
    const Answers& m_answers; ///< of the server, used only while it has this session open
    const std::string m_peer;
    std::array<char, 4096> m_buffer{};
    std::string m_input;        ///< read, not yet answered
    std::size_t m_searched = 0; ///< so much of it holds no line's end
    std::string m_sending;
    std::string m_waiting;
    bool m_isReading = false;
    bool m_isSkipping = false; ///< the rest of a line that was too long
    bool m_isEnding = false;
};

struct LineServer::Impl
{
    Impl(NotifyTargetTaskIF* givenTask, Answers givenAnswers)
        : task(givenTask)
        , answers(std::move(givenAnswers))
    {
    }

    NotifyTargetTaskIF* const task;
    const Answers answers;
    std::unique_ptr<ListeningSocket> file;
    std::unique_ptr<Protocol::acceptor> acceptor;
    std::unique_ptr<asio::steady_timer> pause;
    std::vector<std::shared_ptr<Session>> sessions;
    bool isToldOfPause = false;
    bool isToldOfRefusal = false;
};

LineServer::LineServer(NotifyTargetTaskIF* task, Answers answers)
    : m_impl(std::make_unique<Impl>(task, std::move(answers)))
{
}

LineServer::~LineServer() = default;

bool LineServer::Open(const std::string& path, std::string& error)
{
    auto file = std::make_unique<ListeningSocket>();
    error = file->Open(path, kFileMode);
    if (!error.empty())
    {
        error = path + ": " + error;
        return false;
    }
    asio::io_context& io = IL::IoContextOf(m_impl->task);
    m_impl->acceptor = std::make_unique<Protocol::acceptor>(io, Protocol(), file->Release());
    m_impl->acceptor->non_blocking(true);
    m_impl->pause = std::make_unique<asio::steady_timer>(io);
    m_impl->file = std::move(file);
    Accept();
    return true;
}

void LineServer::Accept()
{
    m_impl->acceptor->async_wait(Protocol::acceptor::wait_read,
                                 [weak = weak_from_this()](const ErrorCode& error)
                                 {
                                     const std::shared_ptr<LineServer> self = weak.lock();
                                     if (self && !error && self->m_impl->acceptor)
                                     {
                                         self->Take();
                                     }
                                 });
}

/// One client, then everybody else's turn.
void LineServer::Take()
{
    ErrorCode error;
    Protocol::socket socket(m_impl->acceptor->get_executor());
    m_impl->acceptor->accept(socket, error);
    if (error == asio::error::would_block || error == asio::error::connection_aborted)
    {
        Accept();
        return;
    }
    if (error)
    {
        if (!std::exchange(m_impl->isToldOfPause, true))
        {
            DPRINT(s_log, DPrint::LEVEL_WARNING, "no console can be opened for now: " << error.message());
        }
        m_impl->pause->expires_after(kAcceptPause);
        m_impl->pause->async_wait(
            [weak = weak_from_this()](const ErrorCode& cancelled)
            {
                const std::shared_ptr<LineServer> self = weak.lock();
                if (self && !cancelled && self->m_impl->acceptor)
                {
                    self->Accept();
                }
            });
        return;
    }
    m_impl->isToldOfPause = false;
    if (m_impl->sessions.size() >= kMaxClients)
    {
        const std::string line = m_impl->answers.tooMany + '\n'; // a new socket has room for it
        [[maybe_unused]] const ssize_t sent =
            ::send(socket.native_handle(), line.data(), line.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (!std::exchange(m_impl->isToldOfRefusal, true)) // one who tries again and again gets no line each time
        {
            DPRINT(s_log, DPrint::LEVEL_WARNING, "refused " << PeerOf(socket) << ": " << kMaxClients << " are open");
        }
    }
    else
    {
        m_impl->isToldOfRefusal = false;
        const auto session = std::make_shared<Session>(std::move(socket), shared_from_this(), m_impl->answers);
        m_impl->sessions.push_back(session);
        DPRINT(s_log, DPrint::LEVEL_DEBUG, session->Peer() << " opened the console");
        session->Next();
    }
    Accept();
}

void LineServer::Broadcast(const std::string& line)
{
    for (const std::shared_ptr<Session>& session : std::vector(m_impl->sessions))
    {
        if (session->UnreadBytes() > kMaxUnreadBytes)
        {
            DPRINT(s_log, DPrint::LEVEL_WARNING, "dropped " << session->Peer() << ": it does not read");
            Drop(session, "was dropped");
            continue;
        }
        session->Send(line);
    }
}

void LineServer::Drop(const std::shared_ptr<Session>& session, const std::string& why)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, session->Peer() << ' ' << why);
    session->Close();
    m_impl->sessions.erase(std::remove(m_impl->sessions.begin(), m_impl->sessions.end(), session),
                           m_impl->sessions.end());
}

void LineServer::Close()
{
    for (const std::shared_ptr<Session>& session : std::exchange(m_impl->sessions, {}))
    {
        session->Close();
    }
    m_impl->acceptor.reset();
    m_impl->pause.reset();
    m_impl->file.reset();
}

} // namespace Console
