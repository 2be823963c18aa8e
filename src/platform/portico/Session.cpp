#include "platform/portico/Session.h"

#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "websocket/WebSocket.h"

#include <chrono>
#include <utility>

namespace Portico
{

namespace
{

const DPrint s_log("PorticoClient");

/// A connection that stood for less does not count as one: the next pause goes on growing.
constexpr std::chrono::milliseconds kStableAfter{1000};

constexpr int kCodeTooLarge = 413;
constexpr int kCodeUnavailable = 503;
constexpr int kCodeTimeout = 504;
constexpr std::size_t kMaxLoggedBytes = 2048;
constexpr std::size_t kMaxFrameBytes = WebSocket::Limits{}.maxMessageBytes; ///< the gateway's bound is the same

std::string Shortened(const std::string& text)
{
    return text.size() <= kMaxLoggedBytes ? text : text.substr(0, kMaxLoggedBytes) + "...";
}

} // namespace

Session::Session(NotifyTargetTaskIF* io, std::shared_ptr<Gate> gate, Settings settings)
    : m_io(io)
    , m_gate(std::move(gate))
    , m_settings(std::move(settings))
    , m_reconnectTimer("PorticoClientReconnect", io)
    , m_calls(io, [this] { return ErrorText(kCodeTimeout, 0, "no answer in time"); })
{
}

Session::~Session()
{
    Close();
}

void Session::Start()
{
    Connect();
}

void Session::Close()
{
    m_isClosed = true;
    m_isOpen = false;
    ++m_epoch;
    m_reconnectTimer.Cancel();
    m_calls.Clear();
    m_registrations.clear();
    if (const std::shared_ptr<WebSocket::Connection> connection = std::exchange(m_connection, nullptr))
    {
        connection->Close();
    }
}

void Session::Connect()
{
    if (m_isClosed)
    {
        return;
    }
    WebSocket::Target target;
    target.host = m_settings.host;
    target.port = static_cast<std::uint16_t>(m_settings.port);
    target.subProtocol = m_settings.subProtocol;
    // The session outlives the connection, which calls nobody once it is closed.
    WebSocket::Connection::Handlers handlers;
    handlers.opened = [this] { HandleOpened(); };
    handlers.message = [this](const std::string& text) { HandleMessage(text); };
    handlers.closed = [this](const std::string& reason) { HandleClosed(reason); };
    handlers.drained = [this] { HandleDrained(); };
    WebSocket::Limits limits;
    limits.kernelBufferBytes = WebSocket::kPromptBufferBytes;
    m_connection = WebSocket::Connect(m_io, target, std::move(handlers), limits);
}

void Session::HandleOpened()
{
    m_isOpen = true;
    Call("open", JsonRpc::OpenParams(m_settings.service, m_settings.guid),
         [this](const std::string&, const std::string& errorBody) { HandleOpenAnswer(errorBody); });
    const std::vector<std::shared_ptr<Registration>> registrations = m_registrations;
    for (const std::shared_ptr<Registration>& registration : registrations)
    {
        Announce(registration);
    }
    SendAllHeld();
    m_calls.SendWaiting([this](std::string frame) { Send(std::move(frame)); });
}

void Session::HandleDrained()
{
    m_isToldBehind = false;
    SendAllHeld();
}

void Session::HandleOpenAnswer(const std::string& errorBody)
{
    if (!m_isOpen) // the connection went before the answer
    {
        return;
    }
    if (!errorBody.empty())
    {
        if (!std::exchange(m_isToldRefused, true))
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": the gateway refused to open: " << Shortened(errorBody));
            TellRefused({}, errorBody);
        }
        m_connection->Close();
        Reconnect("refused", errorBody);
        return;
    }
    m_isConnected = true;
    m_isToldMissing = false;
    m_isToldRefused = false;
    m_connectedSinceMs = MonotonicClock::NowMs();
    DPRINT(s_log, DPrint::LEVEL_INFO, Name() << ": connected to the gateway");
    TellConnected(true);
}

void Session::HandleClosed(const std::string& reason)
{
    Reconnect(reason,
              ErrorText(kCodeUnavailable, 0,
                        "no gateway at " + m_settings.host + ":" + std::to_string(m_settings.port) + ": " + reason));
}

/// Every request ends in `errorBody`.
void Session::Reconnect(const std::string& reason, const std::string& errorBody)
{
    const bool wasConnected = std::exchange(m_isConnected, false);
    m_isOpen = false;
    ++m_epoch;
    m_connection.reset();
    if (wasConnected && MonotonicClock::NowMs() - m_connectedSinceMs >= kStableAfter.count())
    {
        m_backoff.Reset();
    }
    const bool isNews = wasConnected || !m_isToldMissing;
    m_isToldMissing = true;
    if (isNews)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               Name() << (wasConnected ? ": the gateway connection went: " : ": no gateway yet: ") << reason);
    }
    for (const std::shared_ptr<Registration>& registration : m_registrations)
    {
        registration->isConfirmed = false;
        registration->backoff.Reset();
        registration->retry.reset();
    }
    m_reconnectTimer.PostIn(static_cast<unsigned int>(m_backoff.Next().count()), [this] { Connect(); });
    if (isNews)
    {
        TellConnected(false); // first: whoever hears of a failed request knows why
    }
    m_calls.FailAll(errorBody);
}

void Session::HandleMessage(const std::string& text)
{
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, Name() << " <- " << Shortened(text));
    const JsonRpc::Frame frame = JsonRpc::Parse(text);
    switch (frame.kind)
    {
    case JsonRpc::Kind::REQUEST:
        HandleRequest(frame);
        break;
    case JsonRpc::Kind::NOTIFICATION:
        frame.method == "heartbeat" ? HandleHeartbeat(frame) : HandleNotification(frame);
        break;
    case JsonRpc::Kind::RESULT:
        m_calls.Answer(frame.id, frame.body, {});
        break;
    case JsonRpc::Kind::ERROR:
        m_calls.Answer(frame.id, {}, frame.body);
        break;
    case JsonRpc::Kind::INVALID:
        DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": a frame of the gateway is dropped: " << frame.body);
        break;
    }
}

void Session::HandleNotification(const JsonRpc::Frame& frame)
{
    if (frame.method != "notify")
    {
        return;
    }
    const std::vector<std::shared_ptr<Registration>> registrations = m_registrations;
    for (const std::shared_ptr<Registration>& registration : registrations)
    {
        if (!registration->listen || registration->path != frame.path)
        {
            continue;
        }
        try
        {
            registration->listen->Call(frame.body);
        }
        catch (const std::exception& failure)
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": notification of " << frame.path << ": " << failure.what());
        }
    }
}

void Session::HandleHeartbeat(const JsonRpc::Frame& frame)
{
    const ScopedMutex lock(m_gate->mutex);
    if (m_settings.onHeartbeat && m_gate->isOpen)
    {
        (*m_settings.onHeartbeat)(frame.guid, static_cast<PORTICO_CLIENT_ERRORS>(frame.status));
    }
}

void Session::TellConnected(bool isConnected)
{
    const ScopedMutex lock(m_gate->mutex);
    if (m_settings.onConnect && m_gate->isOpen)
    {
        (*m_settings.onConnect)(isConnected);
    }
}

void Session::TellRefused(const std::string& path, const std::string& errorBody)
{
    const ScopedMutex lock(m_gate->mutex);
    if (m_settings.onRefused && m_gate->isOpen)
    {
        (*m_settings.onRefused)(path, errorBody);
    }
}

void Session::Request(const std::string& method, const std::string& path, const std::string& body, double version,
                      const std::shared_ptr<RequestSlot>& slot)
{
    const PendingCalls::Done done = [this, slot](const std::string& answer, const std::string& errorBody)
    {
        try
        {
            slot->Call(answer, errorBody);
        }
        catch (const std::exception& failure)
        {
            DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: answer to a request: %s", Name().c_str(), failure.what());
        }
        slot->Clear();
    };
    if (!body.empty() && !JsonRpc::IsJson(body))
    {
        done({}, ErrorText(0, kSubcodeMarkup, "the body is no JSON"));
        return;
    }
    const std::string params = JsonRpc::PathParams(path, version, body);
    const auto makeFrame = [&](std::uint64_t id) { return JsonRpc::Request(id, method, params); };
    if (makeFrame(m_calls.NextId()).size() > kMaxFrameBytes)
    {
        done({}, ErrorText(kCodeTooLarge, 0, "the request is larger than 4 MiB"));
        return;
    }
    const PendingCalls::Send send =
        m_isOpen ? PendingCalls::Send([this](std::string frame) { Send(std::move(frame)); }) : nullptr;
    if (m_isClosed || !m_calls.Add(makeFrame, send, done, slot.get()))
    {
        done({}, ErrorText(kCodeUnavailable, 0, "too many requests wait for an answer"));
    }
}

void Session::Call(const std::string& method, const std::string& params, PendingCalls::Done done)
{
    const auto makeFrame = [&](std::uint64_t id) { return JsonRpc::Request(id, method, params); };
    const auto ignored = [](const std::string&, const std::string&) {};
    if (!m_calls.Add(
            makeFrame, [this](std::string frame) { Send(std::move(frame)); },
            done ? std::move(done) : PendingCalls::Done(ignored), nullptr))
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": too many requests wait for an answer: " << method);
    }
}

void Session::Notify(const std::string& path, const std::string& body, double version)
{
    if (m_isClosed)
    {
        return;
    }
    std::string frame = JsonRpc::Notify(path, version, body);
    if (frame.size() > kMaxFrameBytes)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR,
               Name() << ": a notification of " << path << " is larger than 4 MiB and is not sent");
        return;
    }
    const bool isDue = m_isOpen && IsServed(path);
    if (isDue && m_connection->HasRoomFor(frame.size()))
    {
        m_held.Take(path);
        Send(std::move(frame));
        return;
    }
    if (isDue && !std::exchange(m_isToldBehind, true))
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG,
               Name() << ": more is told than the gateway takes; of what has to wait, each path's last will follow");
    }
    if (!m_held.Hold(path, std::move(frame)))
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING, Name() << ": too much is held back, a notification is lost: " << path);
    }
}

void Session::Reply(std::uint64_t epoch, const std::string& id, std::string frame)
{
    if (epoch != m_epoch)
    {
        return;
    }
    if (frame.size() > kMaxFrameBytes)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, Name() << ": the answer to a request is larger than 4 MiB and is not sent");
        frame = JsonRpc::Error(id, ErrorText(kCodeTooLarge, 0, "the answer is larger than 4 MiB"));
    }
    Send(std::move(frame));
}

void Session::Send(std::string frame)
{
    if (!m_isOpen)
    {
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, Name() << " -> " << Shortened(frame));
    m_connection->Send(std::move(frame));
}

std::string Session::ErrorText(int code, int subcode, const std::string& message) const
{
    return JsonRpc::ErrorBody(code, subcode, message, m_settings.guid);
}

std::string Session::Name() const
{
    return m_settings.service;
}

} // namespace Portico
