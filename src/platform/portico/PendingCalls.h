#pragma once

#include "runtime/Timers.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace Portico
{

/// The requests of one client that have no answer yet: those on their way, and those that wait for a connection.
/// Each ends exactly once: in its answer, an error, its time limit, or, silently, in Drop() or with this object.
/// Task: the I/O task. Bounded in number, and in bytes while they wait.
class PendingCalls final
{
public:
    /// (body, error body), one of them empty.
    using Done = std::function<void(const std::string& body, const std::string& errorBody)>;
    /// Gives the frame of a request with that id.
    using MakeFrame = std::function<std::string(std::uint64_t id)>;
    using Send = std::function<void(std::string frame)>;

    static constexpr std::chrono::milliseconds kAnswerLimit{15000};
    static constexpr std::chrono::milliseconds kConnectLimit{10000};
    static constexpr std::size_t kMaxCalls = 1024;
    static constexpr std::size_t kMaxWaitingBytes = 4U << 20U;

    /// `onTimeout` makes the error body of a call that took too long.
    PendingCalls(NotifyTargetTaskIF* task, std::function<std::string()> onTimeout);
    PendingCalls(const PendingCalls&) = delete;
    PendingCalls& operator=(const PendingCalls&) = delete;

    /// Goes out at once where `send` is set, otherwise waits for SendWaiting(). False, and nothing kept: full.
    /// `owner` is what Drop() finds it by.
    [[nodiscard]] bool Add(const MakeFrame& makeFrame, const Send& send, Done done, const void* owner);
    std::uint64_t NextId() const
    {
        return m_lastId + 1;
    } ///< what Add() will ask a frame for
    void SendWaiting(const Send& send);

    /// An answer to a request that is no longer there is ignored.
    void Answer(const std::string& id, const std::string& body, const std::string& errorBody);
    void FailAll(const std::string& errorBody);
    void Drop(const void* owner);
    void Clear();

private:
    struct Call
    {
        Done done;
        const void* owner = nullptr;
        std::string waiting; ///< the frame, until it is sent
        std::int64_t deadlineMs = 0;
    };

    void ArmTimer();
    void HandleTimer();

    std::function<std::string()> m_onTimeout;
    std::map<std::uint64_t, Call> m_calls; ///< ids grow, so this is the order of sending
    std::uint64_t m_lastId = 0;
    std::size_t m_waitingBytes = 0;
    std::int64_t m_armedForMs = 0; ///< 0: not armed
    MessageTimer m_timer;
};

} // namespace Portico
