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

/// The simulated engine: every task of the process is stepped on the calling thread, in an order that the seed
/// gives, with virtual time that jumps from timer to timer. The same seed gives the same run, event for event.
/// The sole way in for tests: construct one, build the system, step it. It is the current engine for its life.
/// Never starts a thread; posts from foreign threads are a fault of the test. Its tasks stay valid after its end,
/// and do nothing then.
///
/// At each step one of the tasks that have something to do, chosen by the seed, dispatches its oldest entry or,
/// chosen likewise, a timer that is due. Time goes on when no task has anything to do.
///
/// A ConditionSemaphore::Wait and a JoinTask step the other tasks meanwhile, on top of the waiter's stack. So a
/// waiter goes on only after those that began to wait later: the clock may then be past its own limit. A join of
/// a task that waits further down the stack, or of one that nothing ever stops, ends the process with a message.
///
///     IL::Simulation simulation(seed);
///     auto* task = IL::CreateTask("Task", "");
///     ...
///     simulation.RunFor(std::chrono::hours(6));
class Simulation final : public Engine
{
public:
    /// The clock begins at kStart. Throws std::logic_error where another simulation runs.
    explicit Simulation(std::uint64_t seed);
    ~Simulation() override;
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    /// Runs everything that falls due within `duration` of virtual time, and ends with the clock exactly there
    /// (later only where an entry waited beyond it).
    void RunFor(std::chrono::milliseconds duration);
    /// Runs until no task has a queued entry or a timer that is due already; time stands still.
    void RunUntilIdle();
    /// Steps, time included, until `condition` holds (true) or `limit` of virtual time is over (false).
    bool RunUntil(const std::function<bool()>& condition, std::chrono::milliseconds limit);

    /// A random number of the seed's own sequence, uniform in [0, bound); `bound` is at least 1. It is a sequence
    /// apart from the one that orders the tasks.
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

    /// Not 0, since a product's clock is not 0 either when its service starts.
    static constexpr std::chrono::milliseconds kStart{1'000'000};
    /// So many steps without the clock going on are a live-lock: the process ends with the seed printed.
    static constexpr std::uint64_t kMaxStepsAtOneInstant = 1'000'000;
    /// A wait without limit that lasts longer is for something that never comes.
    static constexpr std::chrono::hours kMaxWait{24 * 366};

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace IL
