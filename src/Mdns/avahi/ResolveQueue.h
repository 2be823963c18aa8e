#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace MDNS
{

/// Limits how many resolves of one backend run at the same time. The others wait in the order of their Add(); first
/// attempts run before retries.
/// Task: not synchronised; every call is made under the lock of the owner, AvahiImpl.
/// Invokes no callback for a cancelled request. Accesses no member after it has invoked the callback of Answer(),
/// because that callback may destroy the queue.
/// A started request occupies one of kMaxRunning slots until Answer() or Cancel(). The backend must call one of them.
class ResolveQueue final
{
public:
    enum class Attempt
    {
        FIRST,
        RETRY,
    };

    /// One resolve, from Add() to its answer or cancellation.
    class Request final
    {
    public:
        Request(ServiceId serviceId, Callback<std::string, Service> resolved, Attempt whichAttempt);

        const ServiceId id;
        const Attempt attempt;

    private:
        friend class ResolveQueue;
        enum class State
        {
            WAITING,
            RUNNING,
            ENDED,
        };

        Callback<std::string, Service> m_resolved;
        CallbackConnection m_resolver; ///< disconnecting frees the backend's resolver
        State m_state = State::WAITING;
    };
    using RequestPtr = std::shared_ptr<Request>;

    /// Starts one resolve in the backend. Returns an empty handle on failure. May call Answer() before it returns.
    using Start = std::function<CallbackConnection(const RequestPtr& request)>;

    explicit ResolveQueue(Start start);
    ~ResolveQueue();
    ResolveQueue(const ResolveQueue&) = delete;
    ResolveQueue& operator=(const ResolveQueue&) = delete;

    /// Starts the resolve if fewer than kMaxRunning run, otherwise queues it. Returns null, without a callback, if the
    /// resolve was started and failed. If a queued resolve fails to start, `resolved` gets kNotSeen and the id.
    RequestPtr Add(ServiceId id, Callback<std::string, Service> resolved, Attempt attempt);
    /// Ends a request with the backend's result: frees the resolver, starts the next request and invokes the callback.
    /// Ignored for a request that has ended.
    void Answer(const RequestPtr& request, const std::string& host, const Service& service);
    /// Ends the request without a callback and starts the next one. Ignored for a request that has ended.
    void Cancel(const RequestPtr& request);
    /// Ends all requests without callbacks and starts none.
    void CancelAll();

    std::size_t Running() const;
    std::size_t Waiting() const;

    /// Measured: the mDNS daemon needs 1.1 s for 500 resolvers that start together, and 12.9 s for 1100. Their
    /// responses arrive together and overflow the daemon's receive buffer. The responses of 32 resolvers fit, and the
    /// network is still busy all the time. The daemon allows 1024 objects for each client (objects-per-client-max).
    static constexpr std::size_t kMaxRunning = 32;

private:
    /// Removes the request from its list and frees its resolver. Returns false if it has ended before.
    bool End(const RequestPtr& request);
    bool StartNow(const RequestPtr& request);
    /// Starts waiting requests up to kMaxRunning. Returns those that failed to start.
    std::vector<RequestPtr> StartWaiting();
    static void CallNotSeen(const std::vector<RequestPtr>& failed);
    std::deque<RequestPtr>& WaitingOf(Attempt attempt);

    const Start m_start;
    std::vector<RequestPtr> m_running;
    std::deque<RequestPtr> m_firstAttempts; ///< waiting
    std::deque<RequestPtr> m_retries;       ///< waiting until m_firstAttempts is empty
    bool m_isStarting = false; ///< StartWaiting() is on the call stack and will fill the slots that become free
};

} // namespace MDNS
