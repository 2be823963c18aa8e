#pragma once

#include "runtime/Task.h"

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

/// A task with a thread, stopped and joined in the destructor.
class RealTask final
{
public:
    explicit RealTask(const std::string& name = "TestTask")
        : m_task(IL::CreateTask(name, ""))
    {
    }
    RealTask(const RealTask&) = delete;
    RealTask& operator=(const RealTask&) = delete;
    ~RealTask()
    {
        StopAndJoin();
    }

    NotifyTargetTaskIF* Get() const
    {
        return m_task;
    }

    /// Runs `function` on the task and waits for its end; rethrows its exception. Throws std::future_error if the task
    /// has been stopped.
    void Run(const std::function<void()>& function) const
    {
        // The posted entry alone owns the promise, so that a stop that drops the entry ends the wait with an exception.
        auto entry = std::make_shared<std::packaged_task<void()>>(function);
        std::future<void> done = entry->get_future();
        IL::BreakThread([owned = std::move(entry)] { (*owned)(); }, m_task);
        done.get();
    }

    /// Waits until all entries queued before have run.
    void Drain() const
    {
        Run([] {});
    }

    /// Runs `meanwhile` on the calling thread while the task is blocked, so that what is posted meanwhile queues up.
    void Stall(const std::function<void()>& meanwhile) const
    {
        std::promise<void> end;
        IL::BreakThread([over = end.get_future().share()] { over.wait(); }, m_task);
        meanwhile();
        end.set_value();
    }

    void StopAndJoin() const
    {
        IL::StopTask(m_task);
        IL::JoinTask(m_task);
    }

private:
    NotifyTargetTaskIF* const m_task;
};
