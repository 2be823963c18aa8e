#pragma once

#include "runtime/engine/Engine.h"

#include <memory>
#include <mutex>
#include <vector>

namespace IL
{

class ThreadedTask;

/// The product's engine: one thread for each task, the kernel's monotonic clock. One object for the process. The
/// engine and its tasks are never destroyed.
class ThreadedEngine final : public Engine
{
public:
    static ThreadedEngine& Get();

    NotifyTargetTaskIF* CreateTask(const std::string& name) override;
    void StopTask(NotifyTargetTaskIF* task) override;
    void JoinTask(NotifyTargetTaskIF* task) override;
    std::shared_ptr<TimerState> CreateTimer(const std::string& name, NotifyTargetTaskIF* task) override;
    std::int64_t NowMs() const override;
    bool StepsWhileWaiting() const override
    {
        return false;
    }
    bool StepUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) override;

private:
    ThreadedEngine();
    ~ThreadedEngine() override;

    std::mutex m_mutex;
    std::vector<std::unique_ptr<ThreadedTask>> m_tasks;
};

} // namespace IL
