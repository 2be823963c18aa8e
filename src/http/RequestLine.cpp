#include "http/RequestLine.h"

#include "http/AsyncTaskRunner.h"
#include "runtime/CaughtException.h"

#include <exception>
#include <utility>

/// What a thread runs: a request, and then those that wait for their turn.
class RequestLine::Turn final : public Threads_Http::IRunnable
{
public:
    Turn(std::shared_ptr<RunTask> task, std::shared_ptr<RequestLine> line)
        : m_first(std::move(task))
        , m_line(std::move(line))
    {
    }
    void Run() override
    {
        for (std::shared_ptr<RunTask> task = m_first; task; task = m_line->EndAndTakeNext(*task))
        {
            try
            {
                task->Run();
            }
            catch (...)
            {
                IL::LogCaughtException("Async Task"); // the requester's; those that wait still get their turn
            }
        }
    }
    void Cancel() override
    {
        m_first->Cancel();
    }
    bool WasRateLimited() const override
    {
        return m_first->WasRateLimited();
    }
    int GetAttemptCount() const override
    {
        return m_first->GetAttemptCount();
    }

private:
    const std::shared_ptr<RunTask> m_first;
    const std::shared_ptr<RequestLine> m_line;
};

void RequestLine::Start(const std::shared_ptr<RunTask>& task, std::size_t limit)
{
    {
        const std::lock_guard lock(m_mutex);
        m_limit = limit;
        m_mayRun.notify_all();
        if (IsFull())
        {
            m_waiting.push_back(task);
            return;
        }
        m_running.insert(task.get());
    }
    StartThread(task);
}

/// With the mutex held: no more may begin an exchange.
bool RequestLine::IsFull() const
{
    return m_limit != 0 && m_running.size() + m_returning >= m_limit;
}

void RequestLine::StartThread(const std::shared_ptr<RunTask>& task)
{
    try
    {
        Threads_Http::StartAsyncTask(std::make_shared<Turn>(task, shared_from_this()));
    }
    catch (...)
    {
        const std::lock_guard lock(m_mutex);
        m_running.erase(task.get());
        m_mayRun.notify_one();
        throw;
    }
}

/// With the mutex held: the one whose turn it is, now among those that run.
std::shared_ptr<RunTask> RequestLine::TakeNext()
{
    if (m_waiting.empty() || IsFull())
    {
        return nullptr;
    }
    std::shared_ptr<RunTask> next = std::move(m_waiting.front());
    m_waiting.pop_front();
    m_running.insert(next.get());
    return next;
}

std::shared_ptr<RunTask> RequestLine::EndAndTakeNext(RunTask& ended)
{
    const std::lock_guard lock(m_mutex);
    m_running.erase(&ended);
    m_retrying.erase(&ended); // where a callback threw in its wait
    m_mayRun.notify_one();
    return TakeNext();
}

bool RequestLine::Enter(RunTask& task)
{
    std::shared_ptr<RunTask> next;
    {
        const std::lock_guard lock(m_mutex);
        if (m_limit != 0 && m_retrying.size() >= m_limit)
        {
            return false;
        }
        m_running.erase(&task);
        m_retrying.insert(&task);
        m_mayRun.notify_one();
        next = TakeNext();
    }
    if (next)
    {
        try
        {
            StartThread(next);
        }
        catch (const std::exception&)
        {
            const std::lock_guard lock(m_mutex);
            m_waiting.push_front(std::move(next)); // until a thread ends its request, this one at the latest
        }
    }
    return true;
}

void RequestLine::Leave(RunTask& task, bool isRetried)
{
    std::unique_lock lock(m_mutex);
    if (isRetried)
    {
        ++m_returning;
        m_mayRun.wait(lock, [&] { return m_limit == 0 || m_running.size() < m_limit || task.IsAbandoned(); });
        --m_returning;
        m_running.insert(&task);
    }
    m_retrying.erase(&task);
}

void RequestLine::Discard()
{
    std::deque<std::shared_ptr<RunTask>> dropped; // destroyed after the lock, and so are the requesters' callbacks
    const std::lock_guard lock(m_mutex);
    dropped.swap(m_waiting);
    for (RunTask* const task : m_running)
    {
        task->Abandon();
    }
    for (RunTask* const task : m_retrying)
    {
        task->Abandon();
    }
    m_mayRun.notify_all();
}
