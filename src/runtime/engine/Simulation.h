#pragma once

#include "runtime/engine/Engine.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace IL
{

/// The simulated engine: it steps every task of the process on the calling thread, in an order that the seed gives,
/// with virtual time that jumps from timer to timer. The same seed gives the same run, event for event.
/// Tests construct one, build the system and step it. It is the current engine until its destructor. It starts no
/// thread; a post from another thread ends the process. Its tasks stay valid after its destruction and do nothing.
///
/// Each step chooses one runnable task by the seed. The task dispatches its oldest entry or a due timer, also chosen by
/// the seed. The clock advances when no task is runnable.
///
/// ConditionSemaphore::Wait and JoinTask step the other tasks meanwhile, on top of the waiter's stack. So a waiter
/// continues only after those that began to wait later, and the clock may then be past its own limit. Joining a task
/// that waits further down the stack, or a task that is never stopped, ends the process with a message.
///
///     IL::Simulation simulation(seed);
///     auto* task = IL::CreateTask("Task", "");
///     ...
///     simulation.RunFor(std::chrono::hours(6));
class Simulation final : public Engine
{
public:
    /// The clock starts at kStart. Throws std::logic_error if there is another simulation.
    explicit Simulation(std::uint64_t seed);
    ~Simulation() override;
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    /// Runs everything that becomes due within `duration` of virtual time. The clock advances by exactly `duration`, or
    /// by more if an entry waits longer.
    void RunFor(std::chrono::milliseconds duration);
    /// Runs until no task has a queued entry or a due timer. The clock does not advance.
    void RunUntilIdle();
    /// Steps and advances the clock until `condition` holds (true) or `limit` of virtual time has passed (false).
    bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    /// A random number from the seed, uniform in [0, bound); `bound` is at least 1. The sequence is independent of the
    /// one that orders the tasks.
    std::uint64_t Random(std::uint64_t bound);

    /// Runs `function` outside any task after `delay` of virtual time, as an event of the outside world.
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

    /// Not 0, because a product's clock is not 0 either when the service starts.
    static constexpr std::chrono::milliseconds kStart{1'000'000};
    /// More steps at one instant are a live-lock: the process ends and prints the seed.
    static constexpr std::uint64_t kMaxStepsAtOneInstant = 1'000'000;
    /// A join that takes longer ends the process.
    static constexpr std::chrono::hours kMaxWait{24 * 366};

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace IL
