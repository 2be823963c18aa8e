#pragma once

#include "Mdns/MdnsTypes.h"
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

/// Bounds how many resolves of one backend run at once. Those beyond wait in the order in which they were asked for,
/// and what is asked for the first time goes ahead of what is asked for again.
/// Not synchronised: its owner, the backend, calls it under the lock that its callbacks come with.
/// Starts nothing by itself but where a place becomes free. It calls nobody for a resolve that was cancelled, and
/// touches nothing of its own after the call that hands out an answer, which may end the backend.
/// A place is held until Answer() or Cancel(): the backend promises one of them for each resolve that it has started.
class ResolveQueue final
{
public:
    enum class Order
    {
        FIRST,
        AGAIN,
    };

    /// One resolve, from its Add() to its answer or its cancellation.
    class Ask final
    {
    public:
        Ask(ServiceId askedId, Callback<std::string, Service> resolved, Order askedOrder);

        const ServiceId id;
        const Order order;

    private:
        friend class ResolveQueue;
        enum class State
        {
            WAITING,
            RUNNING,
            ENDED,
        };

        Callback<std::string, Service> m_resolved;
        CallbackConnection m_resolver; ///< disconnecting frees what the backend holds for it
        State m_state = State::WAITING;
    };
    using AskPtr = std::shared_ptr<Ask>;

    /// Starts one resolve in the backend; an empty connection: failed. The backend may answer from within the call.
    using Start = std::function<CallbackConnection(const AskPtr& ask)>;

    explicit ResolveQueue(Start start);
    ~ResolveQueue();
    ResolveQueue(const ResolveQueue&) = delete;
    ResolveQueue& operator=(const ResolveQueue&) = delete;

    /// Starts the resolve where a place is free, else it waits. Null, and nothing is called: it was started and failed.
    /// One that waits and fails at its start is answered with kNotSeen and its id.
    AskPtr Add(ServiceId id, Callback<std::string, Service> resolved, Order order);
    /// The backend's answer: frees what it held, starts the next, and calls. Nothing for one that has ended.
    void Answer(const AskPtr& ask, const std::string& host, const Service& service);
    /// Ends it without a call, and starts the next. Nothing for one that has ended.
    void Cancel(const AskPtr& ask);
    /// Ends all without a call, and starts none of those that wait.
    void CancelAll();

    std::size_t Running() const;
    std::size_t Waiting() const;

    /// The mDNS daemon's work grows faster than the number of resolvers that are started at once: 500 of them take it
    /// 1.1 s, 1100 take 12.9 s, and their answers come all together and overflow its receive buffer. 32 keep the
    /// network busy within that buffer, and are far from the 1024 objects that the daemon allows a client.
    static constexpr std::size_t kMaxRunning = 32;

private:
    /// Takes it out, wherever it is, and frees what the backend holds for it. False where it has ended already.
    bool End(const AskPtr& ask);
    bool StartNow(const AskPtr& ask);
    /// Fills the free places; gives those whose start has failed.
    std::vector<AskPtr> StartWaiting();
    static void CallNotSeen(const std::vector<AskPtr>& failed);
    std::deque<AskPtr>& WaitingOf(Order order);

    const Start m_start;
    std::vector<AskPtr> m_running;
    std::deque<AskPtr> m_first; ///< wait to be asked for the first time
    std::deque<AskPtr> m_again; ///< wait behind all of m_first
    bool m_isStarting = false;  ///< StartWaiting() is on the stack, and will see what becomes free meanwhile
};

} // namespace MDNS
