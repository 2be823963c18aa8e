#include "runtime/engine/Engine.h"

#include "runtime/engine/ThreadedEngine.h"

#include <atomic>

namespace
{

std::atomic<IL::Engine*> s_current = nullptr;

class FunctionEntry final : public IL::CallbackEntry
{
public:
    explicit FunctionEntry(std::function<void()>&& function)
        : m_function(std::move(function))
    {
    }
    void Dispatch() override
    {
        m_function();
    }

private:
    std::function<void()> m_function;
};

} // namespace

namespace IL
{

Engine& Engine::Current()
{
    Engine* const engine = s_current;
    return engine != nullptr ? *engine : ThreadedEngine::Get();
}

void Engine::Use(Engine* engine)
{
    s_current = engine;
}

NotifyTargetTaskIF* CreateTask(const std::string& name, const std::string&)
{
    return Engine::Current().CreateTask(name);
}

void StopTask(NotifyTargetTaskIF* task)
{
    Engine::Current().StopTask(task);
}

void JoinTask(NotifyTargetTaskIF* task)
{
    Engine::Current().JoinTask(task);
}

void BreakThread(std::function<void()>&& function, NotifyTargetTaskIF* task)
{
    if (task != nullptr)
    {
        task->Post(std::make_shared<FunctionEntry>(std::move(function)));
    }
}

} // namespace IL
