#include "platform/portico/GatewaySession.h"

#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "websocket/WebSocket.h"

#include <chrono>
#include <utility>

namespace Portico
{

namespace
{

const DPrint s_log("PorticoClient");

/// Minimum duration of a connection that resets the backoff.
constexpr std::chrono::milliseconds kStableAfter{1000};

constexpr std::size_t kMaxLoggedBytes = 2048;
constexpr std::size_t kMaxFrameBytes = WebSocket::Limits{}.maxMessageBytes; ///< the gateway has the same limit

std::string Shortened(const std::string& text)
{
    return text.size() <= kMaxLoggedBytes ? text : text.substr(0, kMaxLoggedBytes) + "...";
}

} // namespace

GatewaySession::GatewaySession(NotifyTargetTaskIF* io, std::shared_ptr<ShutdownState> shutdown, Settings settings)
    : m_io(io)
    , m_shutdown(std::move(shutdown))
    , m_settings(std::move(settings))
    , m_reconnectTimer("PorticoClientReconnect", io)
    , m_requests(io, m_settings.guid)
{
}

GatewaySession::~GatewaySession()
{
    TASK_CHECK(m_io);
    Close();
}

void GatewaySession::Post(NotifyTargetTaskIF* io, const std::weak_ptr<GatewaySession>& session,
                          std::function<void(GatewaySession&)> operation)
{
    IL::BreakThread(
        [session, operation = std::move(operation)]
        {
            if (const std::shared_ptr<GatewaySession> held = session.lock())
            {
                operation(*held);
            }
        },
        io);
}

void GatewaySession::Start()
{
    Connect();
}

void GatewaySession::Close()
{
    TASK_CHECK(m_io);
    m_isClosed = true;
    m_isOpen = false;
    ++m_epoch;
    m_reconnectTimer.Cancel();
    m_registrations.clear();
    if (const std::shared_ptr<WebSocket::Connection> connection = std::exchange(m_connection, nullptr))
    {
        connection->Close();
    }
}

void GatewaySession::Connect()
{
    TASK_CHECK(m_io);
    if (m_isClosed)
    {
        return;
    }
    WebSocket::Target target;
    target.host = m_settings.host;
    target.port = static_cast<std::uint16_t>(m_settings.port);
    target.subProtocol = m_settings.subProtocol;
    // The session owns the connection. A closed connection calls no handler.
    WebSocket::Connection::Handlers handlers;
    handlers.opened = [this] { HandleOpened(); };
    handlers.message = [this](const std::string& text) { HandleMessage(text); };
    handlers.closed = [this](const std::string& reason) { HandleClosed(reason); };
    handlers.drained = [this] { HandleDrained(); };
    WebSocket::Limits limits;
    limits.kernelBufferBytes = WebSocket::kPromptBufferBytes;
    m_connection = WebSocket::Connect(m_io, target, std::move(handlers), limits);
}

void GatewaySession::HandleOpened()
{
    TASK_CHECK(m_io);
    m_isOpen = true;
    Call("open", JsonRpc::OpenParams(m_settings.service, m_settings.guid),
         [this](const JsonRpc::Answer& answer) { HandleOpenAnswer(answer); });
    const std::vector<std::shared_ptr<Registration>> registrations = m_registrations;
    for (const std::shared_ptr<Registration>& registration : registrations)
    {
        Announce(registration);
    }
    SendAllDeferred();
    m_requests.SendWaiting(Sender());
}

void GatewaySession::HandleDrained()
{
    m_isBacklogLogged = false;
    SendAllDeferred();
}

void GatewaySession::HandleOpenAnswer(const JsonRpc::Answer& answer)
{
    TASK_CHECK(m_io);
    if (!m_isOpen) // the connection was lost before the answer
    {
        return;
    }
    if (answer.IsError())
    {
        if (!std::exchange(m_isRefusalReported, true))
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR,
                   Name() << ": the gateway refused to open: " << Shortened(JsonRpc::RecordFromAnswer(answer)));
            ReportRefused({}, answer);
        }
        m_connection->Close();
        Reconnect("refused", answer);
        return;
    }
    m_isConnected = true;
    m_isAbsenceLogged = false;
    m_isRefusalReported = false;
    m_connectedSinceMs = MonotonicClock::NowMs();
    DPRINT(s_log, DPrint::LEVEL_INFO, Name() << ": connected to the gateway");
    ReportConnected(true);
}

void GatewaySession::HandleClosed(const std::string& reason)
{
    TASK_CHECK(m_io);
    Reconnect(reason, Error(JsonRpc::UNREACHABLE, "no gateway at " + m_settings.host + ":" +
                                                      std::to_string(m_settings.port) + ": " + reason));
}

void GatewaySession::Reconnect(const std::string& reason, const JsonRpc::Answer& error)
{
    const bool wasConnected = std::exchange(m_isConnected, false);
    m_isOpen = false;
    ++m_epoch;
    m_connection.reset();
    if (wasConnected && MonotonicClock::NowMs() - m_connectedSinceMs >= kStableAfter.count())
    {
        m_backoff.Reset();
    }
    const bool isChange = wasConnected || !m_isAbsenceLogged;
    m_isAbsenceLogged = true;
    if (isChange)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               Name() << (wasConnected ? ": the gateway connection is lost: " : ": no gateway yet: ") << reason);
    }
    for (const std::shared_ptr<Registration>& registration : m_registrations)
    {
        registration->isConfirmed = false;
        registration->backoff.Reset();
        registration->retry.reset();
    }
    m_reconnectTimer.PostIn(static_cast<unsigned int>(m_backoff.Next().count()), [this] { Connect(); });
    if (isChange)
    {
        ReportConnected(false); // before the requests end in errors, so that their callbacks know the reason
    }
    m_requests.FailAll(error);
}

void GatewaySession::HandleMessage(const std::string& text)
{
    TASK_CHECK(m_io);
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, Name() << " <- " << Shortened(text));
    const JsonRpc::Frame frame = JsonRpc::FrameFromText(text);
    if (frame.kind == JsonRpc::Frame::Kind::INVALID || (!frame.id && !frame.params.malformed.empty()))
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR,
               Name() << ": dropped a frame of the gateway: " << frame.answer.error << frame.params.malformed);
    }
    else if (frame.kind == JsonRpc::Frame::Kind::ANSWER)
    {
        m_requests.Finish(frame.id.value_or(""), frame.answer);
    }
    else if (frame.id)
    {
        HandleRequest(frame);
    }
    else if (frame.method == "heartbeat")
    {
        HandleHeartbeat(frame.params);
    }
    else if (frame.method == "notify")
    {
        HandleNotification(frame.params);
    }
}

void GatewaySession::HandleNotification(const JsonRpc::Params& params)
{
    const std::vector<std::shared_ptr<Registration>> registrations = m_registrations;
    for (const std::shared_ptr<Registration>& registration : registrations)
    {
        if (!registration->subscription || registration->path != params.path)
        {
            continue;
        }
        try
        {
            registration->subscription->Call(params.body.value_or(""));
        }
        catch (const std::exception& failure)
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR,
                   Name() << ": notification of " << registration->path << ": " << failure.what());
        }
    }
}

void GatewaySession::HandleHeartbeat(const JsonRpc::Params& params)
{
    const ScopedMutex lock(m_shutdown->mutex);
    if (m_settings.onHeartbeat && !m_shutdown->isShutdown)
    {
        (*m_settings.onHeartbeat)(params.guid, static_cast<PORTICO_CLIENT_ERRORS>(params.status));
    }
}

void GatewaySession::ReportConnected(bool isConnected)
{
    const ScopedMutex lock(m_shutdown->mutex);
    if (m_settings.onConnect && !m_shutdown->isShutdown)
    {
        (*m_settings.onConnect)(isConnected);
    }
}

void GatewaySession::ReportRefused(const std::string& path, const JsonRpc::Answer& error)
{
    const ScopedMutex lock(m_shutdown->mutex);
    if (m_settings.onRefused && !m_shutdown->isShutdown)
    {
        (*m_settings.onRefused)(path, JsonRpc::RecordFromAnswer(error));
    }
}

void GatewaySession::Request(const std::string& method, const std::string& path, const std::string& body,
                             const std::string& version, const std::shared_ptr<AnswerCallback>& callback)
{
    TASK_CHECK(m_io);
    const JsonRpc::AnswerCallback done = [this, callback](const JsonRpc::Answer& answer)
    {
        try
        {
            callback->Call(answer.result, JsonRpc::RecordFromAnswer(answer));
        }
        catch (const std::exception& failure)
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: answer to a request: %s", Name().c_str(), failure.what());
        }
        callback->Revoke();
    };
    if (!body.empty() && !JsonRpc::IsJson(body))
    {
        done(Error(0, "the body is no JSON", kSubcodeMarkup));
        return;
    }
    m_requests.Add(method, JsonRpc::PathParams(path, version, body), m_isOpen ? Sender() : nullptr, done,
                   kMaxFrameBytes, callback.get());
}

void GatewaySession::Call(const std::string& method, const std::string& params, const JsonRpc::AnswerCallback& done)
{
    m_requests.Add(method, params, Sender(), done, kMaxFrameBytes);
}

void GatewaySession::Notify(const std::string& path, const std::string& version, const std::string& body)
{
    TASK_CHECK(m_io);
    if (m_isClosed)
    {
        return;
    }
    std::string frame = JsonRpc::TextFromNotification(path, version, body);
    if (frame.size() > kMaxFrameBytes)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR,
               Name() << ": a notification of " << path << " is larger than 4 MiB and is not sent");
        return;
    }
    const bool canSend = m_isOpen && IsServed(path);
    if (canSend && m_connection->HasRoomFor(frame.size()))
    {
        m_deferred.Take(path);
        Send(std::move(frame));
        return;
    }
    if (canSend && !std::exchange(m_isBacklogLogged, true))
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG,
               Name() << ": the gateway reads too slowly; only the last notification of each path is kept");
    }
    if (!m_deferred.Put(path, std::move(frame)))
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, Name() << ": too many notifications wait, one is dropped: " << path);
    }
}

void GatewaySession::Reply(std::uint64_t epoch, const std::string& id, const JsonRpc::Answer& answer)
{
    TASK_CHECK(m_io);
    if (epoch != m_epoch)
    {
        return;
    }
    std::string frame = JsonRpc::TextFromAnswer(id, answer);
    if (frame.size() > kMaxFrameBytes)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": the answer to a request is larger than 4 MiB and is not sent");
        frame = JsonRpc::TextFromAnswer(id, Error(JsonRpc::TOO_LARGE, "the answer is larger than 4 MiB"));
    }
    Send(std::move(frame));
}

void GatewaySession::Send(std::string frame)
{
    if (m_isOpen)
    {
        DPRINT(s_log, DPrint::LEVEL_VERBOSE, Name() << " -> " << Shortened(frame));
        m_connection->Send(std::move(frame));
    }
}

RequestQueue::Send GatewaySession::Sender()
{
    return [this](std::string frame) { Send(std::move(frame)); };
}

JsonRpc::Answer GatewaySession::Error(int code, const std::string& message, int subcode) const
{
    return JsonRpc::Answer::Error(code, message, m_settings.guid, subcode);
}

std::string GatewaySession::Name() const
{
    return m_settings.service;
}

} // namespace Portico
