#include "runtime/engine/Simulation.h"

#include "runtime/DPrint.h"
#include "runtime/engine/CurrentTask.h"
#include "runtime/engine/RandomSequence.h"
#include "runtime/engine/SimulatedTask.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

namespace
{

const DPrint s_log("Tasks");

constexpr std::int64_t kForever = std::numeric_limits<std::int64_t>::max();

/// Tasks are never destroyed, because raw pointers to them must stay valid after the simulation.
IL::SimulatedTask* MakeLastingTask(const std::string& name, IL::SimulatedScheduler* scheduler)
{
    static auto* const s_tasks = new std::vector<std::unique_ptr<IL::SimulatedTask>>;
    s_tasks->push_back(std::make_unique<IL::SimulatedTask>(name, scheduler));
    return s_tasks->back().get();
}

std::uint64_t HashText(std::uint64_t hash, const std::string& text)
{
    for (const char character : text)
    {
        hash = (hash ^ static_cast<unsigned char>(character)) * 0x100000001B3U; // FNV-1a
    }
    return hash;
}

class SimulatedTimer final : public IL::TimerState
{
public:
    explicit SimulatedTimer(IL::SimulatedTask* task)
        : m_alarm(std::make_shared<IL::SimulatedAlarm>())
    {
        m_alarm->m_task = task;
    }
    SimulatedTimer(const SimulatedTimer&) = delete;
    SimulatedTimer& operator=(const SimulatedTimer&) = delete;
    ~SimulatedTimer() override
    {
        SimulatedTimer::Cancel();
    }

    void Arm(std::chrono::milliseconds first, std::chrono::milliseconds repeat, const Callback<void>& callback) override
    {
        if (m_alarm->m_task != nullptr)
        {
            m_alarm->m_task->ArmAlarm(m_alarm, first.count(), repeat.count(), callback);
        }
    }

    void Cancel() override
    {
        if (m_alarm->m_task != nullptr)
        {
            m_alarm->m_task->CancelAlarm(m_alarm);
        }
    }

private:
    const std::shared_ptr<IL::SimulatedAlarm> m_alarm;
};

} // namespace

namespace IL
{

class Simulation::Impl final : public SimulatedScheduler
{
public:
    explicit Impl(std::uint64_t seed)
        : m_seed(seed)
        , m_order(seed)
        , m_world(MixBits(seed) ^ 1U)
    {
    }

    void CheckThread(const std::string& what) const override
    {
        if (std::this_thread::get_id() != m_thread)
        {
            Die(what + " from a foreign thread");
        }
    }

    void Refresh(SimulatedTask& task) override
    {
        const bool wanted = task.Choices() > 0;
        const bool listed = task.m_listIndex != SimulatedTask::kNotListed;
        if (wanted && !listed)
        {
            task.m_listIndex = m_runnable.size();
            m_runnable.push_back(&task);
        }
        if (!wanted && listed)
        {
            m_runnable[task.m_listIndex] = m_runnable.back();
            m_runnable[task.m_listIndex]->m_listIndex = task.m_listIndex;
            m_runnable.pop_back();
            task.m_listIndex = SimulatedTask::kNotListed;
        }
    }

    void Arm(const std::shared_ptr<SimulatedAlarm>& alarm, std::int64_t inMs) override
    {
        if (inMs <= 0)
        {
            alarm->m_task->TakeDue(alarm);
            return;
        }
        alarm->m_place = SimulatedAlarm::Place::WAITING;
        alarm->m_key = {m_nowMs + inMs, ++m_numbers};
        m_waiting.emplace(alarm->m_key, alarm);
    }

    void Withdraw(const SimulatedAlarm& alarm) override
    {
        m_waiting.erase(alarm.m_key);
    }

    void WithdrawAll(const SimulatedTask& task) override
    {
        std::vector<std::shared_ptr<SimulatedAlarm>>
            withdrawn; // destroyed after the map is consistent: destructors may call this object
        for (auto at = m_waiting.begin(); at != m_waiting.end();)
        {
            if (at->second->m_task == &task)
            {
                withdrawn.push_back(std::move(at->second));
                at = m_waiting.erase(at);
            }
            else
            {
                ++at;
            }
        }
        for (const std::shared_ptr<SimulatedAlarm>& alarm : withdrawn)
        {
            alarm->m_place = SimulatedAlarm::Place::NOWHERE;
            const Callback<void> garbage = std::exchange(alarm->m_callback, {});
        }
    }

    SimulatedTask* MakeTask(const std::string& name)
    {
        CheckThread("CreateTask " + name);
        m_tasks.push_back(MakeLastingTask(name, m_over ? nullptr : this));
        return m_tasks.back();
    }

    void AddWorld(std::int64_t inMs, std::function<void()> function)
    {
        if (inMs <= 0)
        {
            m_worldDue.push_back(std::move(function));
            return;
        }
        m_worldWaiting.emplace(std::pair(m_nowMs + inMs, ++m_numbers), std::move(function));
    }

    /// Dispatches one entry, timer or scheduled function. Returns false if nothing is left to do at this instant.
    bool Step()
    {
        const std::size_t choices = m_runnable.size() + (m_worldDue.empty() ? 0 : 1);
        if (choices == 0 || m_over)
        {
            return false;
        }
        if (++m_stepsAtInstant > kMaxStepsAtOneInstant)
        {
            Die("live-lock: time stands still, last stepped " + m_lastStepped);
        }
        ++m_events;
        const std::size_t choice = Choose(choices);
        if (choice < m_runnable.size())
        {
            SimulatedTask& task = *m_runnable[choice];
            Record(task.Name());
            task.Step(Choose(task.Choices()));
        }
        else
        {
            StepWorld();
        }
        return true;
    }

    /// Steps until `ready` returns true (true) or the clock has reached `untilMs` (false). `ready` may be empty.
    bool Run(const std::function<bool()>& ready, std::int64_t untilMs)
    {
        const auto isReady = [&ready] { return ready && ready(); };
        while (!isReady())
        {
            if (m_nowMs > untilMs)
            {
                return false; // a wait further up the stack has advanced the clock past this limit
            }
            if (Step())
            {
                continue;
            }
            const std::int64_t next = NextTime();
            if (next > untilMs)
            {
                AdvanceTo(untilMs);
                return isReady();
            }
            AdvanceTo(next);
        }
        return true;
    }

    void Join(SimulatedTask& task)
    {
        if (task.IsCurrent())
        {
            s_log.LogError("Task \"%s\" cannot join itself", task.Name().c_str());
            return;
        }
        if (task.IsBusy())
        {
            Die("a join of task " + task.Name() + ", which waits further down the stack");
        }
        const std::int64_t until = m_nowMs + std::chrono::milliseconds(kMaxWait).count();
        if (!m_over && !Run([&task] { return task.HasEnded(); }, until))
        {
            Die("a join of task " + task.Name() + ", which nothing stops");
        }
    }

    /// Ends the simulation. Destructors of dropped objects may call tasks and timers, which then do nothing.
    void End()
    {
        m_over = true;
        const auto waiting = std::exchange(m_waiting, {});
        const auto worldWaiting = std::exchange(m_worldWaiting, {});
        const auto worldDue = std::exchange(m_worldDue, {});
        m_runnable.clear();
        for (std::size_t i = 0; i < m_tasks.size(); ++i) // by index: destructors may create another task
        {
            m_tasks[i]->m_listIndex = SimulatedTask::kNotListed;
            m_tasks[i]->Abandon();
        }
        for (const auto& [key, alarm] : waiting)
        {
            alarm->m_task->CancelAlarm(alarm);
        }
    }

    std::int64_t Until(std::chrono::milliseconds limit) const
    {
        return limit.count() > kForever - m_nowMs ? kForever : m_nowMs + limit.count();
    }

    std::int64_t NowMs() const
    {
        return m_nowMs;
    }
    std::uint64_t Events() const
    {
        return m_events;
    }
    std::uint64_t Fingerprint() const
    {
        return m_fingerprint;
    }
    RandomSequence& World()
    {
        return m_world;
    }

private:
    using Key = std::pair<std::int64_t, std::uint64_t>;

    std::size_t Choose(std::size_t count)
    {
        return count == 1 ? 0 : static_cast<std::size_t>(m_order.Below(count));
    }

    void StepWorld()
    {
        const auto chosen = m_worldDue.begin() + static_cast<std::ptrdiff_t>(Choose(m_worldDue.size()));
        const std::function<void()> function = std::move(*chosen);
        m_worldDue.erase(chosen);
        Record("the world");
        const CurrentTaskScope outside(nullptr);
        function();
    }

    void Record(const std::string& name)
    {
        m_lastStepped = name;
        m_fingerprint = MixBits(HashText(m_fingerprint, name) + static_cast<std::uint64_t>(m_nowMs));
    }

    std::int64_t NextTime() const
    {
        const std::int64_t timer = m_waiting.empty() ? kForever : m_waiting.begin()->first.first;
        const std::int64_t world = m_worldWaiting.empty() ? kForever : m_worldWaiting.begin()->first.first;
        return std::min(timer, world);
    }

    void AdvanceTo(std::int64_t timeMs)
    {
        if (timeMs == kForever)
        {
            Die("a run without limit, and nothing left that could end it");
        }
        m_nowMs = timeMs;
        m_stepsAtInstant = 0;
        while (!m_waiting.empty() && m_waiting.begin()->first.first <= m_nowMs)
        {
            const std::shared_ptr<SimulatedAlarm> alarm = std::move(m_waiting.begin()->second);
            m_waiting.erase(m_waiting.begin());
            alarm->m_task->TakeDue(alarm);
        }
        while (!m_worldWaiting.empty() && m_worldWaiting.begin()->first.first <= m_nowMs)
        {
            m_worldDue.push_back(std::move(m_worldWaiting.begin()->second));
            m_worldWaiting.erase(m_worldWaiting.begin());
        }
    }

    [[noreturn]] void Die(const std::string& why) const
    {
        std::fprintf(stderr, "simulation with seed %" PRIu64 " at %" PRId64 " ms: %s\n", m_seed, m_nowMs, why.c_str());
        std::abort();
    }

    const std::uint64_t m_seed;
    const std::thread::id m_thread = std::this_thread::get_id();
    RandomSequence m_order;
    RandomSequence m_world;
    std::int64_t m_nowMs = kStart.count();
    std::uint64_t m_numbers = 0; ///< makes equal times distinct; the seed orders what is due
    std::uint64_t m_events = 0;
    std::uint64_t m_stepsAtInstant = 0;
    std::uint64_t m_fingerprint = 0;
    std::string m_lastStepped;
    bool m_over = false;
    std::vector<SimulatedTask*> m_tasks;
    std::vector<SimulatedTask*> m_runnable; ///< in an order that only the seed determines
    std::map<Key, std::shared_ptr<SimulatedAlarm>> m_waiting;
    std::map<Key, std::function<void()>> m_worldWaiting;
    std::vector<std::function<void()>> m_worldDue;
};

Simulation::Simulation(std::uint64_t seed)
    : m_impl(std::make_unique<Impl>(seed))
{
    if (Engine::Current().StepsWhileWaiting())
    {
        throw std::logic_error("one simulation at a time");
    }
    Engine::Use(this);
}

Simulation::~Simulation()
{
    m_impl->End();
    Engine::Use(nullptr);
}

void Simulation::RunFor(std::chrono::milliseconds duration)
{
    m_impl->Run({}, m_impl->Until(duration));
}

void Simulation::RunUntilIdle()
{
    while (m_impl->Step())
    {
    }
}

bool Simulation::RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    return m_impl->Run(condition, m_impl->Until(limit));
}

std::uint64_t Simulation::Random(std::uint64_t bound)
{
    return m_impl->World().Below(bound);
}

void Simulation::Schedule(std::chrono::milliseconds delay, std::function<void()> function)
{
    m_impl->AddWorld(delay.count(), std::move(function));
}

std::uint64_t Simulation::Events() const
{
    return m_impl->Events();
}

std::uint64_t Simulation::Fingerprint() const
{
    return m_impl->Fingerprint();
}

NotifyTargetTaskIF* Simulation::CreateTask(const std::string& name)
{
    return m_impl->MakeTask(name);
}

void Simulation::StopTask(NotifyTargetTaskIF* task)
{
    if (auto* const simulated = dynamic_cast<SimulatedTask*>(task))
    {
        simulated->Stop();
    }
}

void Simulation::JoinTask(NotifyTargetTaskIF* task)
{
    if (auto* const simulated = dynamic_cast<SimulatedTask*>(task))
    {
        m_impl->Join(*simulated);
    }
}

std::shared_ptr<TimerState> Simulation::CreateTimer(const std::string& name, NotifyTargetTaskIF* task)
{
    auto* const simulated = dynamic_cast<SimulatedTask*>(task);
    if (task != nullptr && simulated == nullptr)
    {
        throw std::invalid_argument("timer " + name + " on a task of another engine");
    }
    return std::make_shared<SimulatedTimer>(simulated);
}

std::int64_t Simulation::NowMs() const
{
    return m_impl->NowMs();
}

bool Simulation::StepUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit)
{
    if (limit.count() <= 0)
    {
        return ready();
    }
    return m_impl->Run(ready, m_impl->Until(limit));
}

} // namespace IL
