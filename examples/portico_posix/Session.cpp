#include "Session.h"

#include "DPrint.h"
#include "GatewayFrames.h"
#include "PollLoop.h"
#include "PorticoError.pb.h"

#include <algorithm>
#include <charconv>
#include <exception>
#include <utility>

#include <poll.h>

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace
{

const DPrint s_log("PorticoClient");

constexpr milliseconds kFirstPause{100};
constexpr milliseconds kLongestPause{5000};
constexpr seconds kStable{1}; // what stood for less counts as a failed attempt
constexpr seconds kOpenLimit{10};
constexpr seconds kWaitLimit{10};
constexpr seconds kAnswerLimit{15};
constexpr std::size_t kMaxWaiting = 1024;
constexpr std::size_t kMaxWaitingBytes = 4U << 20U;
constexpr std::size_t kMaxHeld = 64;
constexpr std::size_t kMaxHeldBytes = 8U << 20U;
constexpr std::size_t kMaxUnread = 8U << 20U; ///< beyond it notifications are held, until the gateway has read these
constexpr std::size_t kMaxLoggedBytes = 2048;

constexpr int kCodeNobody = 404;
constexpr int kCodeTaken = 409;
constexpr int kCodeTooLarge = 413;
constexpr int kCodeUnavailable = 503;
constexpr int kCodeTimeout = 504;

const char* MethodName(Portico::Verb verb)
{
    switch (verb)
    {
    case Portico::Verb::GET:
        return "get";
    case Portico::Verb::POST:
        return "post";
    case Portico::Verb::PUT:
        return "put";
    case Portico::Verb::DELETE:
        return "delete";
    }
    return "";
}

bool IsTooLarge(const std::string& frame)
{
    return frame.size() > WebSocketConnection::kMaxMessageBytes;
}

/// May outlive the client.
class SlotConnection final : public CallbackConnectionIF
{
public:
    SlotConnection(const std::weak_ptr<Session>& session, std::shared_ptr<Session::Slot> slot)
        : m_session(session)
        , m_slot(std::move(slot))
    {
    }

    void Disconnect() override
    {
        if (const std::shared_ptr<Session> session = m_session.lock())
        {
            session->Disconnect(m_slot);
        }
    }

    bool IsConnected() const override
    {
        const std::shared_ptr<Session> session = m_session.lock();
        return session && !session->HasEnded() && m_slot->isConnected;
    }

private:
    const std::weak_ptr<Session> m_session;
    const std::shared_ptr<Session::Slot> m_slot;
};

/// How one request of the gateway is answered: once, from any thread.
class Answerer
{
public:
    Answerer(const std::weak_ptr<Session>& session, std::uint64_t connection, std::string id)
        : m_session(session)
        , m_connection(connection)
        , m_id(std::move(id))
    {
    }

    void Answer(const google::protobuf::Message& record, bool isError)
    {
        const std::shared_ptr<Session> session = m_session.lock();
        if (m_isAnswered.exchange(true) || !session)
        {
            return;
        }
        std::string error;
        try
        {
            const std::string body = ProtoToMarkup::ToJson(record, true, false, false);
            const std::string frame =
                isError ? GatewayFrames::ErrorAnswer(m_id, body) : GatewayFrames::Answer(m_id, body);
            if (!IsTooLarge(frame))
            {
                session->Answer(m_connection, frame);
                return;
            }
            error = GatewayFrames::ErrorBody(kCodeTooLarge, 0, "the answer is larger than 4 MiB", {});
            DPRINT(s_log, DPrint::LEVEL_ERROR, error);
        }
        catch (const ProtoToMarkup::MarkupError& failure)
        {
            error = GatewayFrames::ErrorBody(0, Portico::kSubcodeMarkup, failure.what(), {});
        }
        session->Answer(m_connection, GatewayFrames::ErrorAnswer(m_id, error));
    }

    void Fail(int code, int subcode, const std::string& message)
    {
        Portico::Error error;
        error.set_code(code);
        error.set_subcode(subcode);
        error.set_message(message);
        Answer(error, true);
    }

private:
    const std::weak_ptr<Session> m_session;
    const std::uint64_t m_connection;
    const std::string m_id;
    std::atomic<bool> m_isAnswered{false};
};

void RunHandler(const Session::Slot& slot, const std::string& body, const std::shared_ptr<Answerer>& answerer)
{
    try
    {
        slot.serve(
            body, [answerer](const google::protobuf::Message& record) { answerer->Answer(record, false); },
            [answerer](const google::protobuf::Message& record) { answerer->Answer(record, true); });
    }
    catch (const std::exception& failure)
    {
        answerer->Fail(0, Portico::kSubcodeMarkup, failure.what());
    }
}

} // namespace

Session::Session(Settings settings)
    : m_settings(std::move(settings))
    , m_name(m_settings.service + (m_settings.guid.empty() ? "" : " for " + m_settings.guid))
{
}

// ---- any thread ------------------------------------------------------------------------------------------------

CallbackConnection Session::RegisterGet(const std::string& path, const GetHandler& handler,
                                        const Portico::EndpointScope& scope, const double& version,
                                        const std::string& label, const int& option)
{
    const BodyHandler withoutBody = [handler](const std::string&, const Response& response, const Response& error)
    { handler(response, error); };
    return RegisterBody(Portico::Verb::GET, path, withoutBody, scope, version, label, option);
}

CallbackConnection Session::RegisterBody(Portico::Verb verb, const std::string& path, const BodyHandler& handler,
                                         const Portico::EndpointScope& scope, const double& version,
                                         const std::string& label, const int&)
{
    Registration registration;
    registration.slot = std::make_shared<Slot>();
    registration.slot->serve = handler;
    registration.verb = MethodName(verb);
    registration.path = path;
    const std::string more =
        R"(,"verb":")" + registration.verb + R"(","scope":)" + std::to_string(static_cast<int>(scope));
    registration.params = GatewayFrames::Params(path, version, more + ",\"label\":" + GatewayFrames::Quoted(label));
    registration.endParams = GatewayFrames::Params(path, version, more);
    return Register(registration);
}

CallbackConnection Session::RegisterNotificationText(const std::string& path, const Callback<std::string>& callback,
                                                     const Portico::EndpointScope& scope, const double& version,
                                                     const int&)
{
    Registration registration;
    registration.slot = std::make_shared<Slot>();
    registration.slot->listen = callback;
    registration.path = path;
    registration.params = GatewayFrames::Params(path, version, ",\"scope\":" + std::to_string(static_cast<int>(scope)));
    registration.endParams = registration.params;
    return Register(registration);
}

CallbackConnection Session::Register(const Registration& registration)
{
    const std::lock_guard lock(m_mutex);
    if (!HasEnded())
    {
        m_registrations.push_back(registration);
        if (m_isOpen)
        {
            Announce(m_registrations.back());
        }
        PollLoop::Instance().Wake();
    }
    return {std::make_shared<SlotConnection>(weak_from_this(), registration.slot)};
}

CallbackConnection Session::SendText(Portico::Verb verb, const std::string& path, const std::string& body,
                                     const Callback<std::string, std::string>& done, const double& version)
{
    const auto slot = std::make_shared<Slot>();
    slot->done = done;
    const CallbackConnection handle(std::make_shared<SlotConnection>(weak_from_this(), slot));
    const bool isJson = body.empty() || GatewayFrames::IsJson(body);
    const std::string params = GatewayFrames::Params(path, version, body.empty() ? "" : ",\"body\":" + body);

    const std::lock_guard lock(m_mutex);
    if (HasEnded())
    {
        return handle;
    }
    const std::uint64_t id = ++m_lastId;
    const std::string frame = GatewayFrames::Call(id, MethodName(verb), params);
    std::size_t waiting = 0;
    std::size_t waitingBytes = frame.size();
    for (const auto& [number, pending] : m_pending)
    {
        waiting += pending.waiting.empty() ? 0 : 1;
        waitingBytes += pending.waiting.size();
    }
    m_pending[id] = {Clock::now() + (m_isOpen ? kAnswerLimit : kWaitLimit), m_isOpen ? std::string() : frame,
                     [this, slot](const std::string& answer, const std::string& errorBody)
                     {
                         m_callbacks.emplace_back(
                             [slot, answer, errorBody]
                             {
                                 if (slot->isConnected.exchange(false))
                                 {
                                     slot->done(answer, errorBody);
                                 }
                             });
                     }};
    if (!isJson)
    {
        EndPending(id, {},
                   GatewayFrames::ErrorBody(0, Portico::kSubcodeMarkup, "the body is not JSON", m_settings.guid));
    }
    else if (IsTooLarge(frame))
    {
        EndPending(id, {}, Error(kCodeTooLarge, "the request is larger than 4 MiB"));
    }
    else if (m_isOpen)
    {
        Send(frame);
    }
    else if (waiting >= kMaxWaiting || waitingBytes > kMaxWaitingBytes)
    {
        EndPending(id, {}, Error(kCodeUnavailable, "too many requests wait for the gateway"));
    }
    PollLoop::Instance().Wake();
    return handle;
}

void Session::SendNotification(const std::string& path, const google::protobuf::Message& message, const double& version)
{
    std::string frame;
    try
    {
        const std::string body = ",\"body\":" + ProtoToMarkup::ToJson(message, true, false, false);
        frame = GatewayFrames::Call(0, "notify", GatewayFrames::Params(path, version, body));
    }
    catch (const ProtoToMarkup::MarkupError& failure)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, path << ": " << failure.what());
        return;
    }
    const std::lock_guard lock(m_mutex);
    m_held[path] = frame;
    if (m_isOpen && !IsTooLarge(frame))
    {
        SendHeld();
    }
    std::size_t heldBytes = 0;
    for (const auto& [each, held] : m_held)
    {
        heldBytes += held.size();
    }
    if (IsTooLarge(frame) || m_held.size() > kMaxHeld || heldBytes > kMaxHeldBytes)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, path << ": a notification is too large, or too many wait for the gateway");
        m_held.erase(path);
    }
    PollLoop::Instance().Wake();
}

void Session::Answer(std::uint64_t connection, const std::string& frame)
{
    const std::lock_guard lock(m_mutex);
    if (m_isOpen && connection == m_connectionNumber)
    {
        Send(frame);
        PollLoop::Instance().Wake();
    }
}

void Session::Disconnect(const std::shared_ptr<Slot>& slot)
{
    {
        const std::lock_guard gate(m_gate);
        slot->isConnected = false;
    }
    Registration removed; // what its handler holds goes after the lock
    const std::lock_guard lock(m_mutex);
    const auto isIt = [&slot](const Registration& each) { return each.slot == slot; };
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(), isIt);
    if (found == m_registrations.end())
    {
        return;
    }
    removed = std::move(*found);
    m_registrations.erase(found);
    const auto isSame = [&removed](const Registration& each)
    { return each.verb == removed.verb && each.path == removed.path; };
    if (m_isOpen && std::none_of(m_registrations.begin(), m_registrations.end(), isSame))
    {
        Call(removed.verb.empty() ? "unsubscribe" : "withdraw", removed.endParams, {});
        PollLoop::Instance().Wake();
    }
}

void Session::Shutdown()
{
    {
        const std::lock_guard gate(m_gate);
        m_hasEnded = true;
    }
    std::deque<std::function<void()>> callbacks; // what they hold goes after the lock
    std::vector<Registration> registrations;
    std::map<std::uint64_t, Pending> pending;
    const std::lock_guard lock(m_mutex);
    callbacks.swap(m_callbacks);
    registrations.swap(m_registrations);
    pending.swap(m_pending);
    m_isOpen = false;
    PollLoop::Instance().Wake();
}

bool Session::HasEnded() const
{
    return m_hasEnded;
}

// ---- the loop --------------------------------------------------------------------------------------------------

pollfd Session::Prepare(Clock::time_point& due)
{
    const std::lock_guard lock(m_mutex);
    due = std::min(due, m_isOpen ? due : m_changeAt);
    for (const auto& [id, pending] : m_pending)
    {
        due = std::min(due, pending.until);
    }
    for (const Registration& registration : m_registrations)
    {
        due = std::min(due, registration.askAt);
    }
    return m_connection ? m_connection->WhatToPoll() : pollfd{-1, 0, 0};
}

bool Session::Step(short events, Clock::time_point now)
{
    std::deque<std::function<void()>> callbacks;
    std::unique_ptr<WebSocketConnection> ended;
    {
        const std::lock_guard lock(m_mutex);
        if (HasEnded())
        {
            ended = std::move(m_connection);
            return false;
        }
        Move(events, now);
        callbacks.swap(m_callbacks);
    }
    for (const std::function<void()>& callback : callbacks)
    {
        const std::lock_guard gate(m_gate);
        try
        {
            if (!HasEnded())
            {
                callback();
            }
        }
        catch (const std::exception& failure)
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR, m_name << ": a callback failed: " << failure.what());
        }
    }
    return true;
}

void Session::Move(short events, Clock::time_point now)
{
    std::vector<std::pair<std::uint64_t, std::string>> late;
    for (const auto& [id, pending] : m_pending)
    {
        if (pending.until <= now)
        {
            late.emplace_back(id, pending.waiting.empty() ? Error(kCodeTimeout, "no answer in time")
                                                          : Error(kCodeUnavailable, "no gateway"));
        }
    }
    for (const auto& [id, errorBody] : late)
    {
        EndPending(id, {}, errorBody);
    }
    for (Registration& registration : m_registrations)
    {
        if (registration.askAt <= now)
        {
            Announce(registration);
        }
    }
    if (!m_connection)
    {
        if (now < m_changeAt)
        {
            return;
        }
        ++m_connectionNumber;
        m_changeAt = now + kOpenLimit;
        m_connection = std::make_unique<WebSocketConnection>(m_settings.host, m_settings.port, m_settings.subProtocol);
        events = 0; // they were of nothing
    }
    std::vector<std::string> frames;
    m_connection->Step(events, frames);
    for (const std::string& frame : frames)
    {
        if (m_connection) // it may have been dropped over the frame before
        {
            HandleFrame(frame);
        }
    }
    if (m_connection && m_connection->IsUp() && !std::exchange(m_isOpenSent, true))
    {
        Call("open",
             R"({"service":)" + GatewayFrames::Quoted(m_settings.service) + R"(,"guid":)" +
                 GatewayFrames::Quoted(m_settings.guid) + "}",
             [this](const std::string&, const std::string& errorBody) { HandleOpened(errorBody); });
    }
    const bool isLate = !m_isOpen && now >= m_changeAt;
    if (m_connection && (isLate || !m_connection->Failure().empty()))
    {
        const std::string reason = isLate ? "no answer in time" : m_connection->Failure();
        Drop(reason, Error(kCodeUnavailable, "no gateway: " + reason));
    }
    if (m_isOpen)
    {
        SendHeld();
    }
}

void Session::HandleOpened(const std::string& errorBody)
{
    if (!m_connection)
    {
        return;
    }
    if (!errorBody.empty())
    {
        if (!std::exchange(m_isRefusalTold, true))
        {
            TellRefused({}, errorBody);
        }
        Drop("refused", errorBody);
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, m_name << ": connected");
    m_isOpen = true;
    m_isRefusalTold = false;
    m_openSince = Clock::now();
    TellConnected(true);
    for (Registration& registration : m_registrations)
    {
        Announce(registration);
    }
    SendHeld();
    for (auto& [id, pending] : m_pending)
    {
        if (!pending.waiting.empty())
        {
            pending.until = m_openSince + kAnswerLimit;
            Send(std::exchange(pending.waiting, {}));
        }
    }
}

void Session::Drop(const std::string& reason, const std::string& errorBody)
{
    m_pause = m_isOpen && Clock::now() - m_openSince >= kStable ? milliseconds(0) : m_pause;
    m_changeAt = Clock::now() + Grow(m_pause);
    m_connection.reset();
    m_isOpenSent = false;
    m_isOpen = false;
    for (Registration& registration : m_registrations)
    {
        registration.isAgreed = false;
        registration.askAt = Clock::time_point::max();
        registration.pause = milliseconds(0);
    }
    if (m_told != false)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, m_name << ": no gateway: " << reason);
        TellConnected(false);
    }
    while (!m_pending.empty())
    {
        EndPending(m_pending.begin()->first, {}, errorBody);
    }
}

void Session::TellConnected(bool isConnected)
{
    m_told = isConnected;
    if (m_settings.onConnect)
    {
        m_callbacks.emplace_back([this, isConnected] { (*m_settings.onConnect)(isConnected); });
    }
}

void Session::TellRefused(const std::string& path, const std::string& errorBody)
{
    DPRINT(s_log, DPrint::LEVEL_ERROR, m_name << ": " << path << ": the gateway refused: " << errorBody);
    if (m_settings.onRefused)
    {
        m_callbacks.emplace_back([this, path, errorBody] { (*m_settings.onRefused)(path, errorBody); });
    }
}

void Session::Announce(Registration& registration)
{
    registration.askAt = Clock::time_point::max();
    Call(registration.verb.empty() ? "subscribe" : "serve", registration.params,
         [this, slot = std::weak_ptr(registration.slot)](const std::string&, const std::string& errorBody)
         { HandleAnnounced(slot.lock(), errorBody); });
}

void Session::HandleAnnounced(const std::shared_ptr<Slot>& slot, const std::string& errorBody)
{
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                                    [&slot](const Registration& each) { return each.slot == slot; });
    if (!m_isOpen || found == m_registrations.end())
    {
        return;
    }
    if (errorBody.empty())
    {
        found->isAgreed = true;
        SendHeld();
    }
    else if (found->verb.empty())
    {
        TellRefused(found->path, errorBody);
    }
    else if (GatewayFrames::ErrorCode(errorBody) == kCodeTaken)
    {
        found->askAt = Clock::now() + Grow(found->pause);
    }
    else
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, m_name << ": " << found->path << ": the gateway refused: " << errorBody);
    }
}

/// What may go out now: a path that is served here waits for the gateway's consent, all for a gateway that is behind.
void Session::SendHeld()
{
    const auto mayGo = [this](const std::string& path)
    {
        const auto serves = [&path](const Registration& each) { return !each.verb.empty() && each.path == path; };
        const auto agreed = [&](const Registration& each) { return serves(each) && each.isAgreed; };
        return std::any_of(m_registrations.begin(), m_registrations.end(), agreed) ||
               std::none_of(m_registrations.begin(), m_registrations.end(), serves);
    };
    for (auto held = m_held.begin(); held != m_held.end();)
    {
        if (m_connection->QueuedBytes() > kMaxUnread)
        {
            if (!std::exchange(m_isBehind, true))
            {
                DPRINT(s_log, DPrint::LEVEL_WARNING,
                       m_name << ": the gateway does not keep up: of each path the last notification waits");
            }
            return;
        }
        const auto each = held++;
        if (mayGo(each->first))
        {
            Send(each->second);
            m_held.erase(each);
        }
    }
    m_isBehind = false;
}

void Session::Call(const std::string& method, const std::string& params, OnEnd onEnd)
{
    const std::uint64_t id = ++m_lastId;
    m_pending[id] = {Clock::now() + kAnswerLimit, {}, std::move(onEnd)};
    Send(GatewayFrames::Call(id, method, params));
}

void Session::EndPending(std::uint64_t id, const std::string& body, const std::string& errorBody)
{
    const auto found = m_pending.find(id);
    if (found != m_pending.end())
    {
        const OnEnd onEnd = std::move(found->second.onEnd);
        m_pending.erase(found);
        if (onEnd)
        {
            onEnd(body, errorBody);
        }
    }
}

void Session::HandleFrame(const std::string& text)
{
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, m_name << " < " << text.substr(0, kMaxLoggedBytes));
    const std::optional<GatewayFrames::Frame> frame = GatewayFrames::Parse(text);
    if (!frame)
    {
        return;
    }
    if (frame->method == "notify")
    {
        for (const Registration& registration : m_registrations)
        {
            if (registration.verb.empty() && registration.path == frame->path)
            {
                m_callbacks.emplace_back(
                    [slot = registration.slot, body = frame->body]
                    {
                        if (slot->isConnected)
                        {
                            slot->listen(body);
                        }
                    });
            }
        }
    }
    else if (frame->method == "heartbeat" && m_settings.onHeartbeat && !frame->guid.empty())
    {
        m_callbacks.emplace_back([this, guid = frame->guid, status = frame->status]
                                 { (*m_settings.onHeartbeat)(guid, static_cast<PORTICO_CLIENT_ERRORS>(status)); });
    }
    else if (!frame->method.empty() && !frame->id.empty())
    {
        HandleCall(frame->id, frame->method, frame->path, frame->body);
    }
    else if (frame->method.empty() && !(frame->result.empty() && frame->errorBody.empty()))
    {
        std::uint64_t id = 0;
        const char* const end = frame->id.data() + frame->id.size();
        if (const auto read = std::from_chars(frame->id.data(), end, id); read.ec == std::errc() && read.ptr == end)
        {
            EndPending(id, frame->result, frame->errorBody);
        }
    }
}

void Session::HandleCall(const std::string& id, const std::string& method, const std::string& path,
                         const std::string& body)
{
    const auto answerer = std::make_shared<Answerer>(weak_from_this(), m_connectionNumber, id);
    const auto found = std::find_if(m_registrations.begin(), m_registrations.end(),
                                    [&](const Registration& each) { return each.verb == method && each.path == path; });
    const std::shared_ptr<Slot> slot = found != m_registrations.end() ? found->slot : nullptr;
    m_callbacks.emplace_back(
        [slot, body, answerer]
        {
            if (slot && slot->isConnected)
            {
                RunHandler(*slot, body, answerer);
            }
            else
            {
                answerer->Fail(kCodeNobody, 0, "nobody serves that here");
            }
        });
}

void Session::Send(const std::string& frame)
{
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, m_name << " > " << frame.substr(0, kMaxLoggedBytes));
    m_connection->Send(frame);
}

std::string Session::Error(int code, const std::string& message) const
{
    return GatewayFrames::ErrorBody(code, 0, message, m_settings.guid);
}

/// Twice the pause before, and of that between half and the whole.
milliseconds Session::Grow(milliseconds& pause)
{
    pause = std::clamp(pause * 2, kFirstPause, kLongestPause);
    return milliseconds(std::uniform_int_distribution<milliseconds::rep>(pause.count() / 2, pause.count())(m_random));
}
