#include "tools/portico-gateway/RemoteProduct.h"

#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "tools/portico-gateway/PeerAddresses.h"
#include "tools/portico-gateway/ProductTable.h"
#include "websocket/WebSocket.h"

#include <algorithm>
#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

const std::string kInfoPath = "/sonarix/info";
const std::string kTlsSubProtocol = "tarsier_mTLS";

/// A product whose cable is cut is noticed after twice this.
constexpr std::chrono::milliseconds kIdleTimeout{2000};
/// A product's own information is a few KiB; its whole list, which a person may ask for, some hundred.
constexpr std::size_t kMaxAnswerBytes = 1U << 20U;

} // namespace

RemoteProduct::RemoteProduct(const Surroundings& surroundings, std::string guid, std::string subProtocol,
                             std::string service, Callbacks callbacks)
    : m_surroundings(surroundings)
    , m_guid(std::move(guid))
    , m_subProtocol(std::move(subProtocol))
    , m_service(std::move(service))
    , m_callbacks(std::move(callbacks))
    , m_pending(surroundings.task, m_guid)
{
}

RemoteProduct::~RemoteProduct() = default;

// ---- requests and subscriptions -----------------------------------------------------------------------------

void RemoteProduct::Send(const Request& request, AnswerCallback answer)
{
    const bool hasJustFailed =
        m_failedAtMs != 0 && MonotonicClock::NowMs() - m_failedAtMs < m_surroundings.timings.retryPause.count();
    if (m_state == State::IDLE && hasJustFailed)
    {
        answer(Unreachable(m_lastReason));
        return;
    }
    SendCheck(request, std::move(answer));
}

void RemoteProduct::SendCheck(const Request& request, AnswerCallback answer)
{
    if (m_state == State::READY)
    {
        Carry(request, answer);
        return;
    }
    Park(request, std::move(answer));
}

void RemoteProduct::Park(const Request& request, AnswerCallback answer)
{
    if (m_waiting.size() >= kMaxWaiting)
    {
        answer(Unreachable("too many requests wait for it"));
        return;
    }
    const std::size_t bytes = request.body ? request.body->size() : 0;
    if (m_waitingBytes + bytes > kMaxWaitingBytes)
    {
        answer(Unreachable("too much waits for it"));
        return;
    }
    m_waitingBytes += bytes;
    m_waiting.push_back({request, std::move(answer)});
    if (m_state == State::IDLE)
    {
        StartAttempt();
    }
}

std::deque<RemoteProduct::Waiting> RemoteProduct::TakeWaiting()
{
    m_waitingBytes = 0;
    return std::exchange(m_waiting, {});
}

void RemoteProduct::Subscribe(const std::string& path, const std::string& version, int scope, AnswerCallback answer)
{
    if (m_subscriptions.size() >= kMaxSubscriptions && m_subscriptions.count(path) == 0)
    {
        answer(Answer::Error(UNREACHABLE, "too many subscriptions", m_guid));
        return;
    }
    m_subscriptions[path].params =
        R"({"path":)" + ToJson(path) + R"(,"version":)" + version + R"(,"scope":)" + std::to_string(scope) + "}";
    if (m_state != State::READY)
    {
        answer(Answer::Empty());
        if (m_state == State::IDLE)
        {
            StartAttempt();
        }
        return;
    }
    SendSubscription(path,
                     [this, path, answer = std::move(answer)](const Answer& answered)
                     {
                         if (answered.IsError())
                         {
                             m_subscriptions.erase(path);
                         }
                         answer(answered);
                     });
}

void RemoteProduct::Unsubscribe(const std::string& path)
{
    // Another product's gateway takes no word of this: what it still tells is passed over.
    m_subscriptions.erase(path);
}

void RemoteProduct::SendSubscription(const std::string& path, AnswerCallback refusedOrDone)
{
    Call("subscribe", m_subscriptions[path].params,
         [this, answer = std::move(refusedOrDone)](const Answer& answered)
         {
             // Without a connection, or without an answer in time, nothing was refused: it is renewed later.
             const bool isRefused = answered.IsError() && m_state == State::READY && answered.code != NO_ANSWER;
             answer(isRefused ? answered : Answer::Empty());
         });
}

void RemoteProduct::Renew(const std::string& path)
{
    SendSubscription(path,
                     [this, path](const Answer& answered)
                     {
                         const auto found = m_subscriptions.find(path);
                         if (found == m_subscriptions.end())
                         {
                             return;
                         }
                         const bool isNews = answered.IsError() && !found->second.isToldRefused;
                         found->second.isToldRefused = answered.IsError();
                         if (isNews)
                         {
                             DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s: product %s refuses the subscription of %s: %d",
                                     m_service.c_str(), m_guid.c_str(), path.c_str(), answered.code);
                         }
                     });
}

void RemoteProduct::Carry(const Request& request, const AnswerCallback& answer)
{
    // The request itself is not kept: its body may be large, and many wait.
    const bool isTelling = request.verb == "get" && request.path == kInfoPath;
    const auto id = m_pending.Add(m_surroundings.timings.carriedRequestLimit,
                                  [this, isTelling, answer](const Answer& answered)
                                  {
                                      const bool isImpostor = isTelling && IsImpostor(answered);
                                      answer(isImpostor ? Unreachable("another product answers there") : answered);
                                  });
    if (!id)
    {
        answer(Unreachable("too many requests wait for it"));
        return;
    }
    m_connection->Send(CallFrame(*id, request));
}

void RemoteProduct::Call(const std::string& method, const std::string& params, AnswerCallback answer)
{
    const auto id = m_pending.Add(m_surroundings.timings.carriedRequestLimit, answer);
    if (!id)
    {
        answer(Unreachable("too many requests wait for it"));
        return;
    }
    m_connection->Send(CallFrame(*id, method, params));
}

Answer RemoteProduct::Unreachable(const std::string& reason) const
{
    return Answer::Error(UNREACHABLE, "product " + m_guid + " is not reachable: " + reason, m_guid);
}

// ---- the connection -----------------------------------------------------------------------------------------

void RemoteProduct::StartAttempt()
{
    ++m_attempt;
    m_state = State::RESOLVING;
    m_toTry.clear();
    m_tried.clear();
    m_isMdnsAsked = false;
    if (m_subProtocol == kTlsSubProtocol && m_surroundings.tls == nullptr)
    {
        const auto fail =
            ForThisAttempt([this](const auto&) { Fail("no certificates, start the gateway with --tls-dir"); });
        IL::BreakThread([fail] { fail({}); }, m_surroundings.task);
        return;
    }
    const bool isKnown = !m_tablePeers.empty() && MonotonicClock::NowMs() - m_tableAskedAtMs < kTableMemory.count();
    if (isKnown)
    {
        m_toTry = m_tablePeers;
        TryNext();
        return;
    }
    m_surroundings.addresses.AskTable(m_guid, ForThisAttempt(
                                                  [this](const std::vector<Peer>& peers)
                                                  {
                                                      m_tablePeers = peers;
                                                      m_tableAskedAtMs = MonotonicClock::NowMs();
                                                      m_toTry = peers;
                                                      TryNext();
                                                  }));
}

std::function<void(const std::vector<Peer>&)>
RemoteProduct::ForThisAttempt(std::function<void(const std::vector<Peer>&)> callback) const
{
    return [this, attempt = m_attempt, callback = std::move(callback),
            alive = std::weak_ptr(m_alive)](const std::vector<Peer>& peers)
    {
        if (alive.lock() && attempt == m_attempt && m_state == State::RESOLVING)
        {
            callback(peers);
        }
    };
}

void RemoteProduct::HandleOwnList()
{
    m_failedAtMs = 0;
    if (m_state == State::RESOLVING)
    {
        StartAttempt();
    }
}

void RemoteProduct::TryNext()
{
    while (!m_toTry.empty())
    {
        const Peer peer = m_toTry.front();
        m_toTry.erase(m_toTry.begin());
        const bool isTried =
            std::any_of(m_tried.begin(), m_tried.end(), [&peer](const Peer& tried) { return tried.IsSamePlace(peer); });
        if (!isTried)
        {
            m_tried.push_back(peer);
            Connect(peer);
            return;
        }
    }
    if (m_isMdnsAsked)
    {
        Fail(m_tried.empty() ? "no address is known" : m_lastReason);
        return;
    }
    m_isMdnsAsked = true;
    m_state = State::RESOLVING;
    m_surroundings.addresses.AskMdns(m_guid, ForThisAttempt(
                                                 [this](const std::vector<Peer>& peers)
                                                 {
                                                     m_toTry = peers;
                                                     TryNext();
                                                 }));
}

void RemoteProduct::Connect(const Peer& peer)
{
    m_state = State::CONNECTING;
    m_peer = peer;
    WebSocket::Target target;
    target.host = peer.host;
    target.port = peer.port;
    target.subProtocol = m_subProtocol;
    if (m_subProtocol == kTlsSubProtocol)
    {
        target.tls = m_surroundings.tls;
        target.expectedPeer = m_guid;
    }
    WebSocket::Limits limits;
    limits.handshakeTimeout = m_surroundings.timings.connectLimit;
    limits.idleTimeout = kIdleTimeout;
    limits.maxMessageBytes = kMaxAnswerBytes;
    limits.maxQueuedBytes += kMaxWaitingBytes; // what has waited goes out at once
    WebSocket::Connection::Handlers handlers;
    handlers.opened = [this] { HandleOpened(); };
    handlers.message = [this](const std::string& text) { HandleMessage(text); };
    handlers.closed = [this](const std::string& reason) { HandleClosed(reason); };
    m_connection = WebSocket::Connect(m_surroundings.task, target, std::move(handlers), limits);
}

void RemoteProduct::HandleOpened()
{
    m_state = State::IDENTIFYING;
    const auto id =
        m_pending.Add(m_surroundings.timings.checkLimit, [this](const Answer& answer) { HandleOpenAnswer(answer); });
    m_connection->Send(CallFrame(*id, "open", R"({"service":)" + ToJson(m_service) + R"(,"guid":""})"));
}

void RemoteProduct::HandleOpenAnswer(const Answer& answer)
{
    if (m_state != State::IDENTIFYING)
    {
        return;
    }
    if (answer.IsError())
    {
        HandleClosed("it does not open");
        return;
    }
    if (m_peer.isGiven)
    {
        HandleReady();
        return;
    }
    Identify();
}

void RemoteProduct::Identify()
{
    const Request request{"get", kInfoPath, "1.0", std::nullopt};
    const auto id = m_pending.Add(m_surroundings.timings.checkLimit,
                                  [this](const Answer& answer)
                                  {
                                      // A product whose service is not up yet has no name, and is let pass.
                                      if (m_state == State::IDENTIFYING && !IsImpostor(answer))
                                      {
                                          HandleReady();
                                      }
                                  });
    m_connection->Send(CallFrame(*id, request));
}

bool RemoteProduct::IsImpostor(const Answer& answer)
{
    const bool isTelling = !answer.IsError() && !m_peer.isGiven;
    const std::string guid = isTelling ? FindGuid(answer.result) : std::string();
    if (guid.empty() || guid == m_guid)
    {
        return false;
    }
    HandleClosed("product " + guid + " answers at " + m_peer.host);
    return true;
}

void RemoteProduct::HandleReady()
{
    m_state = State::READY;
    m_failedAtMs = 0;
    m_readySinceMs = MonotonicClock::NowMs();
    m_isToldUnreachable = false;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: product %s is reached at %s", m_service.c_str(), m_guid.c_str(),
            m_peer.host.c_str());
    std::vector<std::string> paths;
    for (const auto& [path, subscription] : m_subscriptions)
    {
        paths.push_back(path);
    }
    for (const std::string& path : paths)
    {
        Renew(path);
    }
    const std::deque<Waiting> waiting = TakeWaiting();
    for (const Waiting& each : waiting)
    {
        Carry(each.request, each.answer);
    }
}

void RemoteProduct::HandleMessage(const std::string& text)
{
    const Frame frame = ParseFrame(text);
    if (frame.kind == Frame::Kind::ANSWER && frame.id)
    {
        m_pending.Take(*frame.id, frame.answer);
        return;
    }
    const bool isNotification =
        frame.kind == Frame::Kind::CALL && frame.method == "notify" && frame.params.malformed.empty();
    if (isNotification && frame.params.path && m_subscriptions.count(*frame.params.path) != 0)
    {
        m_callbacks.notified(*frame.params.path, frame.params.version, frame.params.body.value_or("{}"));
    }
}

void RemoteProduct::HandleClosed(const std::string& reason)
{
    const bool wasReady = m_state == State::READY;
    m_lastReason = reason;
    m_connection.reset();
    m_state = State::RESOLVING; // what fails now asks for nothing new
    m_pending.FailAll(Unreachable(reason));
    if (!wasReady)
    {
        TryNext();
        return;
    }
    m_state = State::IDLE;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: product %s is lost: %s", m_service.c_str(), m_guid.c_str(), reason.c_str());
    const std::deque<Waiting> waiting = TakeWaiting();
    for (const Waiting& each : waiting)
    {
        each.answer(Unreachable(reason));
    }
    if (MonotonicClock::NowMs() - m_readySinceMs >= kStableAfter.count())
    {
        m_callbacks.lost();
    }
}

void RemoteProduct::Fail(const std::string& reason)
{
    m_state = State::IDLE;
    m_lastReason = reason;
    m_failedAtMs = MonotonicClock::NowMs();
    if (!m_isToldUnreachable)
    {
        m_isToldUnreachable = true;
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: product %s is not reachable: %s", m_service.c_str(), m_guid.c_str(),
                reason.c_str());
    }
    const std::deque<Waiting> waiting = TakeWaiting();
    for (const Waiting& each : waiting)
    {
        each.answer(Unreachable(reason));
    }
}

} // namespace Gateway
