#pragma once

#include "tools/portico-gateway/Router.h"

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace Gateway
{

/// A client that receives notifications. Send() must not call the Subscriptions.
class SubscriberIF
{
public:
    virtual ~SubscriberIF() = default;
    virtual void Send(const std::string& frame) = 0;
    /// Whether a frame of `bytes` may be queued. A subscriber that gets more may be disconnected.
    virtual bool HasRoomFor(std::size_t bytes) const = 0;
};

/// The subscribers of each path, and the last notification of each path, which new subscribers get at once.
/// A path without a server can be subscribed to. The last notification is kept while its server serves the path,
/// unless that would exceed kMaxLastBytes. A subscriber that reads too slowly misses notifications, and gets the last
/// one of each path when its queue has room (SendMissed).
/// Task: everything on the gateway's task. Owner: the gateway. Does not own subscribers: each calls Forget() when it
/// ends.
class Subscriptions final
{
public:
    explicit Subscriptions(const Router& router);
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    /// Returns an error if the subscriber has too many paths. Subscribing to a path twice changes nothing.
    JsonRpc::Answer Add(SubscriberIF* subscriber, const std::string& path, Origin origin);
    void Remove(SubscriberIF* subscriber, const std::string& path);
    void Forget(SubscriberIF* subscriber);

    /// Sends the last notification of the path to a new subscriber.
    void SendLast(SubscriberIF* subscriber, const std::string& path, Origin origin) const;
    /// Sends a notification of `server` to all subscribers that may see the path.
    void Notify(const PathServerIF* server, const std::string& path, const std::string& version,
                const std::string& body);
    /// Sends the last notification of each path of which the subscriber has missed one. To be called when the queue of
    /// the subscriber is empty.
    void SendMissed(SubscriberIF* subscriber);
    /// Called when the server withdraws the path (or all its paths): new subscribers do not get its last notification.
    void DropLast(const PathServerIF* server, const std::string& path);
    void DropLast(const PathServerIF* server);

    static constexpr std::size_t kMaxPathsLocal = 4096; ///< of one subscriber
    static constexpr std::size_t kMaxPathsLan = 64;
    static constexpr std::size_t kMaxLastBytes = 64U << 20U; ///< sum of all last notifications

private:
    struct Last
    {
        const PathServerIF* server;
        std::string frame;
    };

    /// Stores the last notification of the path. Returns false if kMaxLastBytes is exceeded.
    bool KeepLast(const PathServerIF* server, const std::string& path, const std::string& frame);
    void SendOrDefer(SubscriberIF* subscriber, const std::string& path, const std::string& frame);
    void Erase(std::map<std::string, Last>::iterator last);

    const Router& m_router;
    std::map<std::string, std::map<SubscriberIF*, Origin>> m_subscribers; ///< by path
    std::map<SubscriberIF*, std::set<std::string>> m_paths;               ///< the same by subscriber
    std::map<SubscriberIF*, std::set<std::string>> m_missed; ///< paths whose last notification is still to be sent
    std::map<std::string, Last> m_last;
    std::size_t m_lastBytes = 0;
    bool m_isFullLogged = false; ///< logged again after half of the limit was free
};

} // namespace Gateway
