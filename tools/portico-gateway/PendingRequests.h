#pragma once

#include "runtime/Timers.h"
#include "tools/portico-gateway/RpcFrame.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>

class NotifyTargetTaskIF;

namespace Gateway
{

using AnswerCallback = std::function<void(const Answer&)>;

/// The requests that went out on one connection and wait for their answers, under ids of our own.
/// Task: everything on `task`. Owner: the connection. Every callback is called once, except by the destructor,
/// which drops them.
class PendingRequests final
{
public:
    PendingRequests(NotifyTargetTaskIF* task, std::string guid);
    PendingRequests(const PendingRequests&) = delete;
    PendingRequests& operator=(const PendingRequests&) = delete;

    /// The id to send. Nothing, and `callback` not kept, where kMaxPending wait already.
    /// Without an answer within `limit` it ends in NO_ANSWER.
    std::optional<std::string> Add(std::chrono::milliseconds limit, AnswerCallback callback);
    /// An id that nobody waits for, as one whose time is over, is passed over.
    void Take(const std::string& id, const Answer& answer);
    void FailAll(const Answer& answer);

    static constexpr std::size_t kMaxPending = 4096;

private:
    struct Entry
    {
        std::int64_t deadlineMs;
        AnswerCallback callback;
    };

    void Arm();
    void Expire();

    const std::string m_guid; ///< for the errors
    std::uint64_t m_lastId = 0;
    std::map<std::uint64_t, Entry> m_entries;
    std::set<std::pair<std::int64_t, std::uint64_t>> m_deadlines;
    std::int64_t m_armedFor = 0; ///< 0: the timer rests
    MessageTimer m_timer;
};

} // namespace Gateway
