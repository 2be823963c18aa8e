#pragma once

#include "tools/portico-gateway/Router.h"

#include <cstddef>
#include <map>
#include <set>
#include <string>

namespace Gateway
{

/// A client that is told of notifications. Sending must not call back into the subscriptions.
class SubscriberIF
{
public:
    virtual ~SubscriberIF() = default;
    virtual void Tell(const std::string& frame) = 0;
    /// Whether a frame of that size can wait for it; one that is told more may be given up.
    virtual bool HasRoom(std::size_t bytes) const = 0;
};

/// Who is told of which path, and each path's last notification for those who come later.
/// A subscription holds for a path that nobody serves yet; a notification is kept while its server serves the path,
/// unless it would take all that are kept over kMaxLastBytes: those who come later hear nothing of it then.
/// A subscriber that does not keep up hears the last one that is kept as soon as it has room (CatchUp).
/// Task: the gateway's. Owner: the gateway. Never keeps a subscriber alive: each tells when it goes.
class Subscriptions final
{
public:
    explicit Subscriptions(const Router& router);
    Subscriptions(const Subscriptions&) = delete;
    Subscriptions& operator=(const Subscriptions&) = delete;

    /// An error where the subscriber has too many; one that has the path already keeps it.
    Answer Add(SubscriberIF* subscriber, const std::string& path, Origin origin);
    void Remove(SubscriberIF* subscriber, const std::string& path);
    void Forget(SubscriberIF* subscriber);

    /// Tells the path's last notification to one that has just come.
    void TellLast(SubscriberIF* subscriber, const std::string& path, Origin origin) const;
    /// From the server of the path to all that may see it.
    void Notify(const PathServerIF* server, const std::string& path, const std::string& version,
                const std::string& body);
    /// The subscriber has room again: it hears the last one of each path of which it has missed some.
    void CatchUp(SubscriberIF* subscriber);
    /// The server serves the path no more: what it said last is no news to anybody.
    void DropLast(const PathServerIF* server, const std::string& path);
    void DropLast(const PathServerIF* server);

    static constexpr std::size_t kMaxPathsLocal = 4096; ///< of one subscriber
    static constexpr std::size_t kMaxPathsLan = 64;
    static constexpr std::size_t kMaxLastBytes = 64U << 20U; ///< of last notifications, of all paths together

private:
    struct Last
    {
        const PathServerIF* server;
        std::string frame;
    };

    /// False: over the bound.
    bool KeepLast(const PathServerIF* server, const std::string& path, const std::string& frame);
    void Offer(SubscriberIF* subscriber, const std::string& path, const std::string& frame);
    void Erase(std::map<std::string, Last>::iterator last);

    const Router& m_router;
    std::map<std::string, std::map<SubscriberIF*, Origin>> m_subscribers; ///< by path
    std::map<SubscriberIF*, std::set<std::string>> m_paths;               ///< the same by subscriber
    std::map<SubscriberIF*, std::set<std::string>> m_missed;              ///< paths whose last is to follow
    std::map<std::string, Last> m_last;
    std::size_t m_lastBytes = 0;
    bool m_isToldFull = false; ///< until half of the bytes are free again
};

} // namespace Gateway
