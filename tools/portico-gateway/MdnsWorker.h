#pragma once

#include "Mdns/MdnsTypes.h"
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

/// Follows the products' records and answers who carries a guid. A backend that fails is made anew at the next
/// question, never by itself: a missing daemon costs nothing.
/// Task: everything on `task`, which is its own; the backend's threads only post there.
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

    /// How long a question may wait, and how long browsing takes until what it has not shown is not there.
    static constexpr std::chrono::milliseconds kLimit{2500};
    /// Resolves at a time: a burst of them costs the daemon more than its share.
    static constexpr std::size_t kMaxResolves = 16;
    /// Records that are followed; a neighbour that invents more is passed over.
    static constexpr std::size_t kMaxRecords = 4096;
    static constexpr std::size_t kMaxQuestions = 1024;
    /// A record whose product has gone without a goodbye fails at each resolve, which is a line in the log each.
    static constexpr std::chrono::milliseconds kResolvePause{10000};
    /// Where there is no D-Bus, trying again sooner only fills the log.
    static constexpr std::chrono::milliseconds kBackendPause{30000};

private:
    struct Record
    {
        std::string guid;
        std::string address;
        CallbackConnection resolve; ///< under way
        bool isResolving = false;
        bool isQueued = false;
        std::int64_t restsUntilMs = 0; ///< after a resolve that failed
    };
    struct Question
    {
        std::string guid;
        AddressesCallback callback;
        std::int64_t deadlineMs;
        std::set<MDNS::ServiceId> awaited; ///< records that carry the guid and are being looked at anew
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
    /// Answers what can be answered and sets the timer for the rest.
    void AnswerQuestions();
    bool IsReady(const Question& question, std::int64_t now) const;
    std::vector<std::string> AddressesOf(const std::string& guid) const;

    NotifyTargetTaskIF* m_task;
    std::shared_ptr<MDNS::Browser> m_browser;
    unsigned int m_backend = 0; ///< counts backends, so that a late report of an old one is known as such
    std::int64_t m_browsingSinceMs = 0;
    std::int64_t m_noBackendUntilMs = 0;
    std::vector<CallbackConnection> m_browses;
    std::map<MDNS::ServiceId, Record> m_records;
    std::deque<MDNS::ServiceId> m_toResolve;
    std::size_t m_resolving = 0;
    std::list<Question> m_questions;
    MessageTimer m_timer;
};

} // namespace Gateway
