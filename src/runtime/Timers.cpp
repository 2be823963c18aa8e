#include "runtime/Timers.h"

#include "runtime/engine/Engine.h"

#include <chrono>

namespace
{

using std::chrono::milliseconds;

class APTimer final : public APTimerIF
{
public:
    APTimer(NotifyTargetTaskIF* task, const std::string& name)
        : m_state(IL::Engine::Current().CreateTimer(name, task))
    {
    }
    APTimer(const APTimer&) = delete;
    APTimer& operator=(const APTimer&) = delete;
    ~APTimer() override
    {
        m_state->Cancel();
    }

    void SetTimeouts(unsigned int firstMilliseconds, unsigned int repeatMilliseconds) override
    {
        m_first = milliseconds(firstMilliseconds);
        m_repeat = milliseconds(repeatMilliseconds);
    }

    void Start(const Callback<void>& callback) override
    {
        m_state->Arm(m_first, m_repeat, callback);
    }

    void Stop() override
    {
        m_state->Cancel();
    }

private:
    const std::shared_ptr<IL::TimerState> m_state;
    milliseconds m_first{0};
    milliseconds m_repeat{0};
};

} // namespace

MessageTimer::MessageTimer(const std::string& name, NotifyTargetTaskIF* task)
    : m_state(IL::Engine::Current().CreateTimer(name, task))
{
}

MessageTimer::~MessageTimer()
{
    m_state->Cancel();
}

void MessageTimer::PostIn(unsigned int milliseconds, const Callback<void>& callback)
{
    m_state->Arm(std::chrono::milliseconds(milliseconds), std::chrono::milliseconds(0), callback);
}

void MessageTimer::Cancel()
{
    m_state->Cancel();
}

std::shared_ptr<APTimerIF> APTimerFactory::CreateTimer(NotifyTargetTaskIF* task, const std::string& name)
{
    return std::make_shared<APTimer>(task, name);
}
