#pragma once

#include "tools/portico-gateway/Peer.h"
#include "tools/portico-gateway/PendingRequests.h"
#include "tools/portico-gateway/RpcFrame.h"
#include "tools/portico-gateway/Surroundings.h"

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

/// One client's way to another product: the connection to that product's gateway, made when it is needed and made
/// again by the next request after it has gone; subscriptions are renewed then.
/// Task: everything on the gateway's, answers too. Owner: the client's connection; destroyed, it calls nobody.
/// Never retries by itself: the heartbeat's checks are what comes back to it.
///
///     IDLE --request--> RESOLVING --> CONNECTING --> IDENTIFYING --> READY --gone--> IDLE
///       ^                   ^             |  next address  |
///       +--- all failed ----+-------------+----------------+      mDNS is asked when the first addresses fail
class RemoteProduct final
{
public:
    struct Callbacks
    {
        /// (path, version, body) of a subscription.
        std::function<void(const std::string&, const std::string&, const std::string&)> notified;
        std::function<void()> lost; ///< a connection that was there has gone
    };

    RemoteProduct(const Surroundings& surroundings, std::string guid, std::string subProtocol, std::string service,
                  Callbacks callbacks);
    ~RemoteProduct();
    RemoteProduct(const RemoteProduct&) = delete;
    RemoteProduct& operator=(const RemoteProduct&) = delete;

    /// Connects where there is no connection. UNREACHABLE where that fails, or has just failed.
    void Send(const Request& request, AnswerCallback answer);
    /// As Send, but tries anew also just after a failure.
    void SendCheck(const Request& request, AnswerCallback answer);
    /// Holds from now on, reached or not, and is renewed at each connection; only an `answer` that is an error ends it.
    /// A product that refuses it later is logged, and is asked again at the next connection.
    void Subscribe(const std::string& path, const std::string& version, int scope, AnswerCallback answer);
    void Unsubscribe(const std::string& path);
    bool IsReached() const
    {
        return m_state == State::READY;
    }
    /// The product table can be asked now: an attempt that goes on without it begins anew.
    void HandleOwnList();

    static constexpr std::size_t kMaxWaiting = 1024;           ///< requests while there is no connection
    static constexpr std::size_t kMaxWaitingBytes = 8U << 20U; ///< of their bodies
    static constexpr std::size_t kMaxSubscriptions = 4096;     ///< paths
    /// A row's address does not change while its product is away, so that not each attempt asks for it.
    static constexpr std::chrono::milliseconds kTableMemory{10000};
    /// A connection that stood for less is not missed at once: who closes each one would make us spin.
    static constexpr std::chrono::milliseconds kStableAfter{1000};

private:
    enum class State
    {
        IDLE,
        RESOLVING,
        CONNECTING,
        IDENTIFYING, ///< the gateway there is asked who it is
        READY,
    };
    struct Waiting
    {
        Request request;
        AnswerCallback answer;
    };
    struct Subscription
    {
        std::string params;
        bool isToldRefused = false; ///< one log line, not one for each connection
    };

    void Park(const Request& request, AnswerCallback answer);
    std::deque<Waiting> TakeWaiting();
    void StartAttempt();
    /// What an address look-up calls: nothing happens where its attempt is over.
    std::function<void(const std::vector<Peer>&)>
    ForThisAttempt(std::function<void(const std::vector<Peer>&)> callback) const;
    void TryNext();
    void Connect(const Peer& peer);
    void HandleOpened();
    void HandleOpenAnswer(const Answer& answer);
    void Identify();
    void HandleReady();
    void HandleMessage(const std::string& text);
    void HandleClosed(const std::string& reason);
    void Fail(const std::string& reason);
    /// True where the answer to kInfoPath shows that another product answers there; the connection is given up then.
    bool IsImpostor(const Answer& answer);

    void Carry(const Request& request, const AnswerCallback& answer);
    void Call(const std::string& method, const std::string& params, AnswerCallback answer);
    void SendSubscription(const std::string& path, AnswerCallback refusedOrDone);
    void Renew(const std::string& path);
    Answer Unreachable(const std::string& reason) const;

    const Surroundings& m_surroundings;
    const std::string m_guid;
    const std::string m_subProtocol;
    const std::string m_service;
    const Callbacks m_callbacks;

    State m_state = State::IDLE;
    std::shared_ptr<WebSocket::Connection> m_connection;
    Peer m_peer;               ///< the one in use or being tried
    std::vector<Peer> m_toTry; ///< of this attempt
    std::vector<Peer> m_tried;
    bool m_isMdnsAsked = false;     ///< in this attempt
    unsigned int m_attempt = 0;     ///< counts
    std::vector<Peer> m_tablePeers; ///< as the table gave them last
    std::int64_t m_tableAskedAtMs = 0;
    std::int64_t m_readySinceMs = 0;
    std::int64_t m_failedAtMs = 0;
    std::string m_lastReason;
    bool m_isToldUnreachable = false; ///< one log line for a product that is away, not one for each attempt

    std::deque<Waiting> m_waiting;
    std::size_t m_waitingBytes = 0;
    PendingRequests m_pending;
    std::map<std::string, Subscription> m_subscriptions; ///< by path
    const std::shared_ptr<bool> m_alive = std::make_shared<bool>(true);
};

} // namespace Gateway
