#pragma once

#include "runtime/Task.h"

#include <functional>
#include <future>
#include <memory>
#include <string>
#include <utility>

/// A task with a thread of its own for a test; stopped and joined with its end.
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

    /// Runs `function` on the task and waits for its end; an exception out of it comes out here. On a stopped
    /// task it throws std::future_error.
    void Run(const std::function<void()>& function) const
    {
        // The posted entry alone owns the promise: thrown away by a stop, it breaks it instead of leaving us waiting.
        auto entry = std::make_shared<std::packaged_task<void()>>(function);
        std::future<void> done = entry->get_future();
        IL::BreakThread([owned = std::move(entry)] { (*owned)(); }, m_task);
        done.get();
    }

    /// Waits until everything that is queued now has run.
    void Drain() const
    {
        Run([] {});
    }

    /// Runs `meanwhile` while the task is held up; what is posted or arrives in this time waits.
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
