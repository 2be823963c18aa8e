#pragma once

#include "jsonrpc/Frame.h"
#include "runtime/Timers.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>

class NotifyTargetTaskIF;

namespace JsonRpc
{

using AnswerCallback = std::function<void(const Answer&)>;

/// The requests sent on one connection that have no answer yet. Their ids are numbers of our own.
/// Task: everything runs on `task`. Owner: the connection. Each callback is called once, except that Remove() and the
/// destructor drop callbacks without a call.
class PendingRequests final
{
public:
    /// At most `maxPending` requests wait. `guid` is the product that timeout errors name.
    PendingRequests(NotifyTargetTaskIF* task, std::string guid, std::size_t maxPending);
    PendingRequests(const PendingRequests&) = delete;
    PendingRequests& operator=(const PendingRequests&) = delete;

    /// Returns the id to send, or nothing, and drops `callback`, if the table is full.
    /// Without an answer within `limit` the request ends in NO_ANSWER.
    std::optional<std::string> Add(std::chrono::milliseconds limit, AnswerCallback callback);
    /// Gives a request `limit` from now on. Unknown ids are ignored, here and below.
    void SetLimit(const std::string& id, std::chrono::milliseconds limit);
    void Finish(const std::string& id, const Answer& answer);
    void FailAll(const Answer& answer);
    void Remove(const std::string& id);
    bool Contains(const std::string& id) const;

private:
    struct Entry
    {
        std::int64_t deadlineMs;
        AnswerCallback callback;
    };
    using Entries = std::map<std::uint64_t, Entry>;

    AnswerCallback Take(Entries::iterator entry);
    void StartTimer();
    void HandleTimer();

    NotifyTargetTaskIF* const m_task;
    const std::string m_guid;
    const std::size_t m_maxPending;
    std::uint64_t m_lastId = 0;
    Entries m_entries;
    std::set<std::pair<std::int64_t, std::uint64_t>> m_deadlines; ///< (deadline, id)
    std::int64_t m_timerDeadlineMs = 0;                           ///< 0: the timer is stopped
    MessageTimer m_timer;
};

} // namespace JsonRpc
