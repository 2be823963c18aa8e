#pragma once

#include "jsonrpc/PendingRequests.h"

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>

class NotifyTargetTaskIF;

namespace Portico
{

/// The requests of one client without an answer: those that are sent, and those that wait for a connection.
/// Each ends exactly once: in its answer, in an error, at its time limit, or, without a call, in Remove() or with this
/// object. Bounded in number, and in bytes while they wait.
/// Task: everything runs on the I/O task. Owner: the session.
class RequestQueue final
{
public:
    using Send = std::function<void(std::string frame)>;

    static constexpr std::chrono::milliseconds kAnswerLimit{15000};
    static constexpr std::chrono::milliseconds kConnectLimit{10000};
    static constexpr std::size_t kMaxRequests = 1024;
    static constexpr std::size_t kMaxWaitingBytes = 4U << 20U;

    /// Errors name the product `guid`.
    RequestQueue(NotifyTargetTaskIF* task, std::string guid);

    /// Sends at once if `send` is set, otherwise keeps the frame for SendWaiting(). Ends in TOO_LARGE before it
    /// returns if the frame is larger than `maxFrameBytes`, and in UNREACHABLE if the queue is full.
    /// `owner` is the key for Remove().
    void Add(const std::string& method, const std::string& params, const Send& send,
             const JsonRpc::AnswerCallback& done, std::size_t maxFrameBytes, const void* owner = nullptr);
    void SendWaiting(const Send& send);

    void Finish(const std::string& id, const JsonRpc::Answer& answer);
    void FailAll(const JsonRpc::Answer& answer);
    /// Drops the waiting request of `owner`. A request that is sent still ends in its callback.
    void Remove(const void* owner);

private:
    struct Waiting
    {
        std::string id;
        std::string frame;
        const void* owner;
    };

    void EraseWaiting(const std::function<bool(const Waiting&)>& isUnwanted);

    const std::string m_guid;
    std::deque<Waiting> m_waiting; ///< may hold requests that have ended at their time limit
    std::size_t m_waitingBytes = 0;
    JsonRpc::PendingRequests m_pending;
};

} // namespace Portico
