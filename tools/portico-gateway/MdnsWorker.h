#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/CallbackConnection.h"
#include "runtime/Timers.h"
#include "tools/portico-gateway/MdnsLookup.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>

class NotifyTargetTaskIF;

namespace MDNS
{
class Browser;
}

namespace Gateway
{

/// Browses the products' records and finds the addresses of a guid. A failed backend is replaced at the next query,
/// not before: a missing daemon costs nothing.
/// Task: everything on `task`. Owner: MdnsLookup and callbacks in progress. The backend's threads only post to the
/// task.
class MdnsWorker final : public std::enable_shared_from_this<MdnsWorker>
{
public:
    using AddressesCallback = MdnsLookupIF::AddressesCallback;

    explicit MdnsWorker(NotifyTargetTaskIF* task);
    ~MdnsWorker();
    MdnsWorker(const MdnsWorker&) = delete;
    MdnsWorker& operator=(const MdnsWorker&) = delete;

    void Find(const std::string& guid, AddressesCallback callback);
    void Stop();

    /// Time limit of a query. After browsing for this time, a record that has not appeared does not exist.
    static constexpr std::chrono::milliseconds kLimit{2500};
    /// Concurrent resolves. More would delay the daemon's other clients.
    static constexpr std::size_t kMaxResolves = 16;
    /// Limit of browsed records, against a neighbour that announces more. Further records are ignored.
    static constexpr std::size_t kMaxRecords = 4096;
    static constexpr std::size_t kMaxQueries = 1024;
    /// Pause after a failed resolve. The record of a product that disappeared without a goodbye fails each time, with
    /// a log line.
    static constexpr std::chrono::milliseconds kResolvePause{10000};
    /// Pause after a failed start of the backend. Without D-Bus a shorter one only fills the log.
    static constexpr std::chrono::milliseconds kBackendPause{30000};

private:
    struct Record
    {
        std::string guid;
        std::string address;
        CallbackConnection resolve; ///< the resolve in progress
        bool isResolving = false;
        bool isQueued = false;
        std::int64_t retryAtMs = 0; ///< set by a failed resolve
    };
    struct Query
    {
        std::string guid;
        AddressesCallback callback;
        std::int64_t deadlineMs;
        std::set<MDNS::ServiceId> awaited; ///< records with the guid whose resolve is not finished
    };

    void StartBackend();
    void DropBackend();
    void HandleConnected(unsigned int backend);
    void HandleFailure(unsigned int backend);
    void HandleAdded(unsigned int backend, const MDNS::ServiceId& id);
    void HandleRemoved(unsigned int backend, const MDNS::ServiceId& id);
    void HandleResolved(unsigned int backend, const MDNS::ServiceId& id, const std::string& host,
                        const MDNS::Service& service);

    void Queue(const MDNS::ServiceId& id);
    void ResolveNext();
    /// Answers the queries that are ready and starts the timer for the others.
    void AnswerQueries();
    bool IsReady(const Query& query, std::int64_t now) const;
    std::vector<std::string> AddressesOf(const std::string& guid) const;

    NotifyTargetTaskIF* m_task;
    std::shared_ptr<MDNS::Browser> m_browser;
    unsigned int m_backend = 0; ///< number of the backend; reports of an older one are ignored
    std::int64_t m_browsingSinceMs = 0;
    std::int64_t m_noBackendUntilMs = 0;
    std::vector<CallbackConnection> m_browses;
    std::map<MDNS::ServiceId, Record> m_records;
    std::deque<MDNS::ServiceId> m_toResolve;
    std::size_t m_resolving = 0;
    std::list<Query> m_queries;
    MessageTimer m_timer;
};

} // namespace Gateway
