#pragma once

#include "http/RunTask.h"

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <set>

/// The requests of one interface: those in an exchange, those that wait to be retried, those that wait for their turn.
/// Safe from any thread. Held by the interface and by each request, so that those that wait get their turn although
/// the interface has gone.
///
/// Design: a limit holds for the exchanges, and again for the waits before a retry, so that a few peers that ask for
/// waits of hours hold up nobody else, and all threads together are at most twice the limit. A thread whose request
/// has ended goes on with one that waits for its turn.
class RequestLine final : public IRetryGate, public std::enable_shared_from_this<RequestLine>
{
public:
    /// Runs `task` at once or, with `limit` (0: none) in exchange already, as soon as one of those ends or waits.
    /// Throws std::system_error, as if it had not been called, where a thread is needed and not to be had.
    void Start(const std::shared_ptr<RunTask>& task, std::size_t limit);

    /// Drops those that wait for their turn, abandons the others.
    void Discard();

    bool Enter(RunTask& task) override;
    void Leave(RunTask& task, bool isRetried) override;

private:
    class Turn;
    bool IsFull() const;
    void StartThread(const std::shared_ptr<RunTask>& task);
    std::shared_ptr<RunTask> TakeNext();
    std::shared_ptr<RunTask> EndAndTakeNext(RunTask& ended);

    std::mutex m_mutex;
    std::condition_variable m_mayRun; ///< tells those that return from a wait
    std::size_t m_returning = 0;      ///< how many of those there are; they go before m_waiting
    std::size_t m_limit = 0;          ///< of the last start
    std::set<RunTask*> m_running;
    std::set<RunTask*> m_retrying; ///< both alive: each is held by its thread until it has left here
    std::deque<std::shared_ptr<RunTask>> m_waiting;
};
