#pragma once

#include "Engine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace IL
{

/// The simulated engine: every task of the process is stepped on the calling thread, in an order that the seed
/// gives, with virtual time that jumps from timer to timer. The same seed gives the same run, event for event.
/// The sole way in for tests: construct one, build the system, step it. It is the current engine for its life.
/// Never starts a thread; posts from foreign threads are a fault of the test.
///
///     IL::Simulation simulation(seed);
///     auto* task = IL::CreateTask("Task", "");
///     ...
///     simulation.RunFor(std::chrono::hours(6));
class Simulation final : public Engine
{
public:
    explicit Simulation(std::uint64_t seed);
    ~Simulation() override;
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    /// Runs everything that falls due within `duration` of virtual time, and ends with the clock exactly there.
    void RunFor(std::chrono::milliseconds duration);
    /// Runs until no task has a queued entry; time stands still.
    void RunUntilIdle();
    /// Steps, time included, until `condition` holds (true) or `limit` of virtual time is over (false).
    bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    /// A random number of the seed's own sequence, uniform in [0, bound).
    std::uint64_t Random(std::uint64_t bound);

    /// Runs `function` on the calling thread after `delay` of virtual time, outside any task: the scripted world.
    void Schedule(std::chrono::milliseconds delay, std::function<void()> function);

    /// Entries and timers dispatched so far; equal for equal seeds.
    std::uint64_t Events() const;
    /// A hash over the order of all dispatches so far (task names and times); equal for equal seeds.
    std::uint64_t Fingerprint() const;

    NotifyTargetTaskIF* CreateTask(const std::string& name) override;
    void StopTask(NotifyTargetTaskIF* task) override;
    void JoinTask(NotifyTargetTaskIF* task) override;
    std::shared_ptr<TimerState> CreateTimer(const std::string& name, NotifyTargetTaskIF* task) override;
    std::int64_t NowMs() const override;
    bool StepsWhileWaiting() const override
    {
        return true;
    }
    bool StepUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) override;

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace IL
