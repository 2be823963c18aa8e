#include "tools/portico-gateway/RemoteProduct.h"

#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
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

/// Idle timeout of a connection to a product. An unreachable product is noticed after twice this time.
constexpr std::chrono::milliseconds kIdleTimeout{2000};
/// The largest answer of our own services is the whole product list, a few hundred KiB.
constexpr std::size_t kMaxAnswerBytes = 1U << 20U;

} // namespace

RemoteProduct::RemoteProduct(const GatewayContext& context, std::string guid, std::string subProtocol,
                             std::string service, Callbacks callbacks)
    : m_context(context)
    , m_guid(std::move(guid))
    , m_subProtocol(std::move(subProtocol))
    , m_service(std::move(service))
    , m_callbacks(std::move(callbacks))
    , m_pending(context.task, m_guid, kMaxPending)
{
}

RemoteProduct::~RemoteProduct() = default;

// ---- requests and subscriptions -----------------------------------------------------------------------------

void RemoteProduct::Send(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer)
{
    TASK_CHECK(m_context.task);
    const bool hasJustFailed =
        m_failedAtMs != 0 && MonotonicClock::NowMs() - m_failedAtMs < m_context.timings.retryPause.count();
    if (m_state == State::IDLE && hasJustFailed)
    {
        answer(Unreachable(m_lastReason));
        return;
    }
    SendCheck(request, std::move(answer));
}

void RemoteProduct::SendCheck(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer)
{
    TASK_CHECK(m_context.task);
    if (m_state == State::READY)
    {
        Forward(request, answer);
        return;
    }
    Enqueue(request, std::move(answer));
}

void RemoteProduct::Enqueue(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer)
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

void RemoteProduct::Subscribe(const std::string& path, const std::string& version, int scope,
                              JsonRpc::AnswerCallback answer)
{
    TASK_CHECK(m_context.task);
    if (m_subscriptions.size() >= kMaxSubscriptions && m_subscriptions.count(path) == 0)
    {
        answer(JsonRpc::Answer::Error(JsonRpc::UNREACHABLE, "too many subscriptions", m_guid));
        return;
    }
    m_subscriptions[path].params = JsonRpc::SubscribeParams(path, version, scope);
    if (m_state != State::READY)
    {
        answer(JsonRpc::Answer::Empty());
        if (m_state == State::IDLE)
        {
            StartAttempt();
        }
        return;
    }
    SendSubscription(path,
                     [this, path, answer = std::move(answer)](const JsonRpc::Answer& answered)
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
    TASK_CHECK(m_context.task);
    // The LAN port does not accept `unsubscribe`. Later notifications are ignored.
    m_subscriptions.erase(path);
}

void RemoteProduct::SendSubscription(const std::string& path, JsonRpc::AnswerCallback refusedOrDone)
{
    Call("subscribe", m_subscriptions[path].params,
         [this, answer = std::move(refusedOrDone)](const JsonRpc::Answer& answered)
         {
             // A lost connection or a timeout is not a refusal: the subscription is renewed later.
             const bool isRefused =
                 answered.IsError() && m_state == State::READY && answered.code != JsonRpc::NO_ANSWER;
             answer(isRefused ? answered : JsonRpc::Answer::Empty());
         });
}

void RemoteProduct::Renew(const std::string& path)
{
    SendSubscription(path,
                     [this, path](const JsonRpc::Answer& answered)
                     {
                         const auto found = m_subscriptions.find(path);
                         if (found == m_subscriptions.end())
                         {
                             return;
                         }
                         const bool isChange = answered.IsError() && !found->second.isRefusalLogged;
                         found->second.isRefusalLogged = answered.IsError();
                         if (isChange)
                         {
                             DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s: product %s refuses the subscription of %s: %d",
                                     m_service.c_str(), m_guid.c_str(), path.c_str(), answered.code);
                         }
                     });
}

void RemoteProduct::Forward(const JsonRpc::Request& request, const JsonRpc::AnswerCallback& answer)
{
    // The lambda does not keep the request: its body may be large, and many requests wait.
    const bool isInfo = request.verb == "get" && request.path == kInfoPath;
    const auto id = m_pending.Add(m_context.timings.remoteRequestLimit,
                                  [this, isInfo, answer](const JsonRpc::Answer& answered)
                                  {
                                      const bool isWrongProduct = isInfo && IsWrongProduct(answered);
                                      answer(isWrongProduct ? Unreachable("another product answers there") : answered);
                                  });
    if (!id)
    {
        answer(Unreachable("too many requests wait for it"));
        return;
    }
    m_connection->Send(JsonRpc::TextFromRequest(*id, request));
}

void RemoteProduct::Call(const std::string& method, const std::string& params, JsonRpc::AnswerCallback answer)
{
    const auto id = m_pending.Add(m_context.timings.remoteRequestLimit, answer);
    if (!id)
    {
        answer(Unreachable("too many requests wait for it"));
        return;
    }
    m_connection->Send(JsonRpc::TextFromCall(*id, method, params));
}

void RemoteProduct::FailWaiting(const std::string& reason)
{
    for (const Waiting& each : TakeWaiting())
    {
        each.answer(Unreachable(reason));
    }
}

JsonRpc::Answer RemoteProduct::Unreachable(const std::string& reason) const
{
    return JsonRpc::Answer::Error(JsonRpc::UNREACHABLE, "product " + m_guid + " is not reachable: " + reason, m_guid);
}

// ---- the connection -----------------------------------------------------------------------------------------

void RemoteProduct::StartAttempt()
{
    ++m_attempt;
    m_state = State::RESOLVING;
    m_toTry.clear();
    m_tried.clear();
    m_isMdnsQueried = false;
    if (m_subProtocol == kTlsSubProtocol && m_context.tls == nullptr)
    {
        const auto fail =
            ForCurrentAttempt([this](const auto&) { Fail("no certificates, start the gateway with --tls-dir"); });
        IL::BreakThread([fail] { fail({}); }, m_context.task);
        return;
    }
    const bool isKnown =
        !m_tablePeers.empty() && MonotonicClock::NowMs() - m_tableQueriedAtMs < kTableCacheTime.count();
    if (isKnown)
    {
        m_toTry = m_tablePeers;
        TryNext();
        return;
    }
    m_context.addresses.QueryTable(m_guid, ForCurrentAttempt(
                                               [this](const std::vector<Peer>& peers)
                                               {
                                                   m_tablePeers = peers;
                                                   m_tableQueriedAtMs = MonotonicClock::NowMs();
                                                   m_toTry = peers;
                                                   TryNext();
                                               }));
}

std::function<void(const std::vector<Peer>&)>
RemoteProduct::ForCurrentAttempt(std::function<void(const std::vector<Peer>&)> callback) const
{
    return m_liveness.Guard(
        [this, attempt = m_attempt, callback = std::move(callback)](const std::vector<Peer>& peers)
        {
            TASK_CHECK(m_context.task);
            if (attempt == m_attempt && m_state == State::RESOLVING)
            {
                callback(peers);
            }
        });
}

void RemoteProduct::HandleOwnList()
{
    TASK_CHECK(m_context.task);
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
        const bool isTried = std::any_of(m_tried.begin(), m_tried.end(),
                                         [&peer](const Peer& tried) { return tried.HasSameAddress(peer); });
        if (!isTried)
        {
            m_tried.push_back(peer);
            Connect(peer);
            return;
        }
    }
    if (m_isMdnsQueried)
    {
        Fail(m_tried.empty() ? "no address is known" : m_lastReason);
        return;
    }
    m_isMdnsQueried = true;
    m_state = State::RESOLVING;
    m_context.addresses.QueryMdns(m_guid, ForCurrentAttempt(
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
        target.tls = m_context.tls;
        target.expectedPeer = m_guid;
    }
    WebSocket::Limits limits;
    limits.handshakeTimeout = m_context.timings.connectLimit;
    limits.idleTimeout = kIdleTimeout;
    limits.maxMessageBytes = kMaxAnswerBytes;
    limits.maxQueuedBytes += kMaxWaitingBytes; // all waiting requests are sent at once
    WebSocket::Connection::Handlers handlers;
    handlers.opened = [this] { HandleOpened(); };
    handlers.message = [this](const std::string& text) { HandleMessage(text); };
    handlers.closed = [this](const std::string& reason) { HandleClosed(reason); };
    m_connection = WebSocket::Connect(m_context.task, target, std::move(handlers), limits);
}

void RemoteProduct::HandleOpened()
{
    TASK_CHECK(m_context.task);
    m_state = State::IDENTIFYING;
    const auto id = m_pending.Add(m_context.timings.checkLimit,
                                  [this](const JsonRpc::Answer& answer) { HandleOpenAnswer(answer); });
    m_connection->Send(JsonRpc::TextFromCall(*id, "open", JsonRpc::OpenParams(m_service, {})));
}

void RemoteProduct::HandleOpenAnswer(const JsonRpc::Answer& answer)
{
    TASK_CHECK(m_context.task);
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
    const JsonRpc::Request request{"get", kInfoPath, "1.0", std::nullopt};
    const auto id = m_pending.Add(m_context.timings.checkLimit,
                                  [this](const JsonRpc::Answer& answer)
                                  {
                                      // A product whose service is not running returns no guid, and is accepted.
                                      if (m_state == State::IDENTIFYING && !IsWrongProduct(answer))
                                      {
                                          HandleReady();
                                      }
                                  });
    m_connection->Send(JsonRpc::TextFromRequest(*id, request));
}

bool RemoteProduct::IsWrongProduct(const JsonRpc::Answer& answer)
{
    const bool isInfo = !answer.IsError() && !m_peer.isGiven;
    const std::string guid = isInfo ? GuidFromProductInfo(answer.result) : std::string();
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
    m_isUnreachableLogged = false;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: connected to product %s at %s", m_service.c_str(), m_guid.c_str(),
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
    for (const Waiting& each : TakeWaiting())
    {
        Forward(each.request, each.answer);
    }
}

void RemoteProduct::HandleMessage(const std::string& text)
{
    TASK_CHECK(m_context.task);
    const JsonRpc::Frame frame = JsonRpc::FrameFromText(text);
    if (frame.kind == JsonRpc::Frame::Kind::ANSWER && frame.id)
    {
        m_pending.Finish(*frame.id, frame.answer);
        return;
    }
    const bool isNotification =
        frame.kind == JsonRpc::Frame::Kind::CALL && frame.method == "notify" && frame.params.malformed.empty();
    if (isNotification && frame.params.path && m_subscriptions.count(*frame.params.path) != 0)
    {
        m_callbacks.notified(*frame.params.path, frame.params.version, frame.params.body.value_or("{}"));
    }
}

void RemoteProduct::HandleClosed(const std::string& reason)
{
    TASK_CHECK(m_context.task);
    const bool wasReady = m_state == State::READY;
    m_lastReason = reason;
    m_connection.reset();
    m_state = State::RESOLVING; // so that requests which fail now do not start an attempt
    m_pending.FailAll(Unreachable(reason));
    if (!wasReady)
    {
        TryNext();
        return;
    }
    m_state = State::IDLE;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: connection to product %s lost: %s", m_service.c_str(), m_guid.c_str(),
            reason.c_str());
    FailWaiting(reason);
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
    if (!m_isUnreachableLogged)
    {
        m_isUnreachableLogged = true;
        DPRINTF(s_log, DPrint::LEVEL_INFO, "%s: product %s is not reachable: %s", m_service.c_str(), m_guid.c_str(),
                reason.c_str());
    }
    FailWaiting(reason);
}

} // namespace Gateway
