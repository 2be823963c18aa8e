#include "runtime/engine/ThreadedEngine.h"

#include "runtime/TaskIo.h"
#include "runtime/engine/ThreadedTask.h"

#include <stdexcept>

namespace
{

class ThreadedTimer final : public IL::TimerState
{
public:
    explicit ThreadedTimer(IL::ThreadedTask* task)
        : m_task(task)
    {
    }
    ThreadedTimer(const ThreadedTimer&) = delete;
    ThreadedTimer& operator=(const ThreadedTimer&) = delete;
    ~ThreadedTimer() override
    {
        Cancel();
    }

    void Arm(std::chrono::milliseconds first, std::chrono::milliseconds repeat, const Callback<void>& callback) override
    {
        if (m_task != nullptr)
        {
            m_task->ArmTimer(m_slot, first, repeat, callback);
        }
    }

    void Cancel() override
    {
        if (m_task != nullptr)
        {
            m_task->CancelTimer(m_slot);
        }
    }

private:
    IL::ThreadedTask* const m_task;
    IL::ThreadedTask::TimerSlot m_slot;
};

} // namespace

namespace IL
{

ThreadedEngine& ThreadedEngine::Get()
{
    static auto* const s_engine = new ThreadedEngine;
    return *s_engine;
}

ThreadedEngine::ThreadedEngine() = default;
ThreadedEngine::~ThreadedEngine() = default;

NotifyTargetTaskIF* ThreadedEngine::CreateTask(const std::string& name)
{
    auto task = std::make_unique<ThreadedTask>(name);
    const std::lock_guard lock(m_mutex);
    m_tasks.push_back(std::move(task));
    return m_tasks.back().get();
}

void ThreadedEngine::StopTask(NotifyTargetTaskIF* task)
{
    if (auto* const threaded = dynamic_cast<ThreadedTask*>(task))
    {
        threaded->Stop();
    }
}

void ThreadedEngine::JoinTask(NotifyTargetTaskIF* task)
{
    if (auto* const threaded = dynamic_cast<ThreadedTask*>(task))
    {
        threaded->Join();
    }
}

std::shared_ptr<TimerState> ThreadedEngine::CreateTimer(const std::string& name, NotifyTargetTaskIF* task)
{
    auto* const threaded = dynamic_cast<ThreadedTask*>(task);
    if (task != nullptr && threaded == nullptr)
    {
        throw std::invalid_argument("timer " + name + " on a task of another engine");
    }
    return std::make_shared<ThreadedTimer>(threaded);
}

std::int64_t ThreadedEngine::NowMs() const
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
}

bool ThreadedEngine::StepUntil(const std::function<bool()>&, std::chrono::milliseconds)
{
    throw std::logic_error("tasks with threads are not stepped");
}

boost::asio::io_context& IoContextOf(NotifyTargetTaskIF* task)
{
    auto* const threaded = dynamic_cast<ThreadedTask*>(task);
    if (threaded == nullptr)
    {
        throw std::logic_error("sockets need a task with a thread");
    }
    return threaded->IoContext();
}

} // namespace IL
