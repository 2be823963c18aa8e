#include "http/AsyncTaskRunner.h"

#include "runtime/CTask.h"
#include "runtime/CaughtException.h"
#include "runtime/DPrint.h"

#include <atomic>
#include <list>
#include <mutex>
#include <utility>

namespace
{

const DPrint s_log("AsyncTaskRunner");

constexpr const char* kTaskName = "Async Task";
constexpr std::size_t kManyTasks = 19;

class AsyncTaskList;

class MyCTask final : public CTask
{
public:
    MyCTask(std::shared_ptr<Threads_Http::IRunnable> runnable, std::shared_ptr<AsyncTaskList> list)
        : CTask(kTaskName, false, CTask::NOT_REALTIME, -1)
        , m_runnable(std::move(runnable))
        , m_list(std::move(list))
    {
    }
    bool IsFinished() const
    {
        return m_finished;
    }
    void Finish()
    {
        m_finished = true;
    }

private:
    void Body() override;

    const std::shared_ptr<Threads_Http::IRunnable> m_runnable;
    const std::shared_ptr<AsyncTaskList> m_list;
    std::atomic<bool> m_finished = false;
};

/// All running tasks. Each task and the list hold each other until the task is removed.
class AsyncTaskList final
{
public:
    void Add(const std::shared_ptr<MyCTask>& task)
    {
        const std::lock_guard lock(m_mutex);
        m_tasks.push_back(task);
        ++m_count;
        if (m_count > kManyTasks)
        {
            s_log.LogWarning("Potentially too many async tasks running: %zd", m_count);
        }
    }

    void RemoveFinished()
    {
        std::list<std::shared_ptr<MyCTask>> finished; // destroyed after the mutex is released
        const std::lock_guard lock(m_mutex);
        for (auto task = m_tasks.begin(); task != m_tasks.end();)
        {
            const auto next = std::next(task);
            if ((*task)->IsFinished())
            {
                finished.splice(finished.end(), m_tasks, task);
                --m_count;
            }
            task = next;
        }
    }

    /// Drops all entries. A running task holds itself until it ends.
    void Release()
    {
        std::list<std::shared_ptr<MyCTask>> all;
        const std::lock_guard lock(m_mutex);
        all.swap(m_tasks);
        m_count = 0;
    }

    std::size_t Count() const
    {
        const std::lock_guard lock(m_mutex);
        return m_count;
    }

private:
    mutable std::mutex m_mutex;
    std::list<std::shared_ptr<MyCTask>> m_tasks;
    std::size_t m_count = 0;
};

void MyCTask::Body()
{
    try
    {
        m_runnable->Run();
    }
    catch (...)
    {
        IL::LogCaughtException(kTaskName);
    }
    m_finished = true;
    m_list->RemoveFinished();
}

const std::shared_ptr<AsyncTaskList>& TheList()
{
    // Never destroyed: a request may still run, and start another one, while the process exits.
    static const auto& s_list = *new std::shared_ptr<AsyncTaskList>(std::make_shared<AsyncTaskList>());
    struct ReleaseAtExit
    {
        ~ReleaseAtExit()
        {
            s_list->Release();
        }
    };
    static const ReleaseAtExit s_release;
    return s_list;
}

} // namespace

namespace Threads_Http
{

void StartAsyncTask(const std::shared_ptr<IRunnable>& runnable)
{
    const std::shared_ptr<AsyncTaskList>& list = TheList();
    const auto task = std::make_shared<MyCTask>(runnable, list);
    list->Add(task);
    try
    {
        task->Start();
    }
    catch (...)
    {
        task->Finish();
        list->RemoveFinished();
        throw;
    }
}

std::size_t CountAsyncTasks()
{
    return TheList()->Count();
}

} // namespace Threads_Http
