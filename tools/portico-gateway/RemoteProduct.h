#pragma once

#include "jsonrpc/Frame.h"
#include "jsonrpc/PendingRequests.h"
#include "runtime/Liveness.h"
#include "tools/portico-gateway/GatewayContext.h"
#include "tools/portico-gateway/Peer.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace WebSocket
{
class Connection;
}

namespace Gateway
{

/// One client's connection to another product's gateway. A request opens it; after a loss the next request opens it
/// again, and the subscriptions are renewed.
/// Task: everything on the gateway's task, answers too. Owner: the client's connection. No callback comes after
/// destruction.
/// Never reconnects by itself: the heartbeat's checks do.
///
///     IDLE --request--> RESOLVING --> CONNECTING --> IDENTIFYING --> READY --lost--> IDLE
///       ^                   ^             |  next address  |
///       +--- all failed ----+-------------+----------------+      mDNS is queried if the first addresses fail
class RemoteProduct final
{
public:
    struct Callbacks
    {
        /// (path, version, body) of a subscription.
        std::function<void(const std::string&, const std::string&, const std::string&)> notified;
        std::function<void()> lost; ///< an established connection has ended
    };

    RemoteProduct(const GatewayContext& context, std::string guid, std::string subProtocol, std::string service,
                  Callbacks callbacks);
    ~RemoteProduct();
    RemoteProduct(const RemoteProduct&) = delete;
    RemoteProduct& operator=(const RemoteProduct&) = delete;

    /// Connects if there is no connection. Ends in UNREACHABLE if that fails, or failed less than retryPause ago.
    void Send(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer);
    /// As Send, but connects also within retryPause.
    void SendCheck(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer);
    /// Adds a subscription. It is valid from now on, also without a connection, and renewed at each connection. Only an
    /// error in `answer` ends it. A later refusal is logged, and the subscription is sent again at the next connection.
    void Subscribe(const std::string& path, const std::string& version, int scope, JsonRpc::AnswerCallback answer);
    void Unsubscribe(const std::string& path);
    bool IsReached() const
    {
        return m_state == State::READY;
    }
    /// Called when the product table can be queried: restarts a connection attempt that began without the table.
    void HandleOwnList();

    static constexpr std::size_t kMaxPending = 4096;           ///< requests without an answer
    static constexpr std::size_t kMaxWaiting = 1024;           ///< requests that wait for a connection
    static constexpr std::size_t kMaxWaitingBytes = 8U << 20U; ///< bytes of the bodies of waiting requests
    static constexpr std::size_t kMaxSubscriptions = 4096;     ///< paths
    /// Time for which the addresses of the last table query are reused: they do not change while the product is away.
    static constexpr std::chrono::milliseconds kTableCacheTime{10000};
    /// Minimum duration of a connection whose end starts a check at once. Otherwise a peer that closes each connection
    /// would cause a busy loop.
    static constexpr std::chrono::milliseconds kStableAfter{1000};

private:
    enum class State
    {
        IDLE,
        RESOLVING,
        CONNECTING,
        IDENTIFYING, ///< the guid of the gateway is requested
        READY,
    };
    struct Waiting
    {
        JsonRpc::Request request;
        JsonRpc::AnswerCallback answer;
    };
    struct Subscription
    {
        std::string params;
        bool isRefusalLogged = false; ///< logged once, not at each connection
    };

    void Enqueue(const JsonRpc::Request& request, JsonRpc::AnswerCallback answer);
    std::deque<Waiting> TakeWaiting();
    void FailWaiting(const std::string& reason);
    void StartAttempt();
    /// Wraps the callback of an address query: it is not called after the current connection attempt has ended.
    std::function<void(const std::vector<Peer>&)>
    ForCurrentAttempt(std::function<void(const std::vector<Peer>&)> callback) const;
    void TryNext();
    void Connect(const Peer& peer);
    void HandleOpened();
    void HandleOpenAnswer(const JsonRpc::Answer& answer);
    void Identify();
    void HandleReady();
    void HandleMessage(const std::string& text);
    void HandleClosed(const std::string& reason);
    void Fail(const std::string& reason);
    /// Returns true, and closes the connection, if the answer to kInfoPath has another product's guid.
    bool IsWrongProduct(const JsonRpc::Answer& answer);

    void Forward(const JsonRpc::Request& request, const JsonRpc::AnswerCallback& answer);
    void Call(const std::string& method, const std::string& params, JsonRpc::AnswerCallback answer);
    void SendSubscription(const std::string& path, JsonRpc::AnswerCallback refusedOrDone);
    void Renew(const std::string& path);
    JsonRpc::Answer Unreachable(const std::string& reason) const;

    const GatewayContext& m_context;
    const std::string m_guid;
    const std::string m_subProtocol;
    const std::string m_service;
    const Callbacks m_callbacks;

    State m_state = State::IDLE;
    std::shared_ptr<WebSocket::Connection> m_connection;
    Peer m_peer;               ///< in use or being tried
    std::vector<Peer> m_toTry; ///< of this attempt
    std::vector<Peer> m_tried;
    bool m_isMdnsQueried = false;   ///< in this attempt
    unsigned int m_attempt = 0;     ///< number of the attempt
    std::vector<Peer> m_tablePeers; ///< result of the last table query
    std::int64_t m_tableQueriedAtMs = 0;
    std::int64_t m_readySinceMs = 0;
    std::int64_t m_failedAtMs = 0;
    std::string m_lastReason;
    bool m_isUnreachableLogged = false; ///< logged once, not at each attempt

    std::deque<Waiting> m_waiting;
    std::size_t m_waitingBytes = 0;
    JsonRpc::PendingRequests m_pending;
    std::map<std::string, Subscription> m_subscriptions; ///< by path
    Liveness m_liveness;
};

} // namespace Gateway
