#include "runtime/Timers.h"

#include "runtime/ConditionSemaphore.h"
#include "runtime/MonotonicClock.h"
#include "runtime/engine/Simulation.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"

#include <atomic>
#include <chrono>
#include <gmock/gmock.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

class SimulatedTimers : public testing::Test
{
protected:
    /// Milliseconds since the start of the test.
    std::int64_t Now() const
    {
        return MonotonicClock::NowMs() - m_begin;
    }
    Callback<void> Note()
    {
        return [this]
        {
            EXPECT_TRUE(m_task->IsCurrent());
            m_fired.push_back(Now());
        };
    }

    IL::Simulation m_simulation{7};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Timed", "");
    std::int64_t m_begin = MonotonicClock::NowMs();
    std::vector<std::int64_t> m_fired;
};

TEST_F(SimulatedTimers, FireOnceOrRepeatUntilStoppedOrRearmed)
{
    MessageTimer once("once", m_task);
    once.PostIn(1000, Note());
    m_simulation.RunFor(400ms);
    once.PostIn(5,
                [this, note = Note(), &once]
                {
                    note();
                    once.PostIn(5, note); // from its own callback
                });
    m_simulation.RunFor(9600ms);
    EXPECT_THAT(m_fired, ElementsAre(405, 410));

    const std::shared_ptr<APTimerIF> timer = APTimerFactory::CreateTimer(m_task, "timer");
    timer->SetTimeouts(10, 1000);
    timer->Start(Note());
    m_simulation.RunFor(1500ms);
    timer->SetTimeouts(700, 0); // takes effect at the next Start()
    m_simulation.RunFor(600ms);
    timer->Start(Note());
    m_simulation.RunFor(1h);
    EXPECT_THAT(m_fired, ElementsAre(405, 410, 10'010, 11'010, 12'010, 12'800));

    int ticks = 0;
    timer->SetTimeouts(1, 1);
    timer->Start(
        [&]
        {
            if (++ticks == 3)
            {
                timer->Stop();
            }
            throw std::runtime_error("a tick");
        });
    const LogCapture log;
    m_simulation.RunFor(1h);
    EXPECT_EQ(ticks, 3) << "must continue after an exception, not after Stop()";
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 3u) << log.Text();
}

TEST_F(SimulatedTimers, DoNotFireAfterTheirTaskStopped)
{
    const auto held = std::make_shared<int>(0);
    auto timer = std::make_unique<MessageTimer>("timer", m_task);
    const std::shared_ptr<APTimerIF> repeating = APTimerFactory::CreateTimer(m_task, "repeating");
    repeating->SetTimeouts(5, 5);
    repeating->Start([held] {});
    timer->PostIn(5, [held] {});
    m_simulation.RunFor(4ms);
    IL::StopTask(m_task);
    IL::JoinTask(m_task);
    EXPECT_EQ(held.use_count(), 1) << "the stop destroys the callbacks";
    timer->PostIn(5, Note());
    repeating->Start(Note());
    timer.reset();
    m_simulation.RunFor(30 * 24h);
    EXPECT_TRUE(m_fired.empty());
}

TEST(SimulatedTimersSeeds, CancelledWhenDueDoesNotFire)
{
    int cancelledFirst = 0;
    for (std::uint64_t seed = 1; seed <= 50; ++seed)
    {
        IL::Simulation simulation(seed);
        auto* const task = IL::CreateTask("Timed", "");
        std::optional<MessageTimer> victim(std::in_place, "victim", task);
        MessageTimer killer("killer", task);
        std::string fired;
        victim->PostIn(1000, [&] { fired += "victim "; });
        killer.PostIn(1000,
                      [&]
                      {
                          victim.reset(); // both are due at this instant
                          fired += "killer";
                      });
        simulation.RunFor(1h);
        cancelledFirst += fired == "killer" ? 1 : 0;
        EXPECT_THAT(fired, testing::AnyOf("killer", "victim killer"));
    }
    EXPECT_GT(cancelledFirst, 10);
    EXPECT_LT(cancelledFirst, 40) << "the seed orders what is due at one instant";
}

TEST(RealTimers, CancelledOrDestroyedWhenDueDoNotFire)
{
    const RealTask task;
    std::atomic<int> fired = 0;
    std::optional<MessageTimer> destroyed(std::in_place, "destroyed", task.Get());
    MessageTimer cancelled("cancelled", task.Get());
    MessageTimer replaced("replaced", task.Get());
    MessageTimer kept("kept", task.Get());
    ConditionSemaphore done(0);
    task.Run(
        [&]
        {
            destroyed->PostIn(1, [&] { ++fired; });
            cancelled.PostIn(1, [&] { ++fired; });
            replaced.PostIn(1, [&] { ++fired; });
            kept.PostIn(2, [&] { done.Signal(); });
            ConditionSemaphore never(0);
            never.Wait(20); // keeps the task busy until all are due
            destroyed.reset();
            cancelled.Cancel();
            replaced.PostIn(3, [&] { done.Signal(); });
        });
    EXPECT_TRUE(done.Wait(10'000));
    EXPECT_TRUE(done.Wait(10'000));
    EXPECT_EQ(fired, 0);
}

TEST(RealTimers, FireInTheOrderOfTheirTimesNotEarly)
{
    const RealTask task;
    Watched<std::string> order;
    MessageTimer farAway("far away", task.Get());
    farAway.PostIn(3'600'000, [] { ADD_FAILURE(); }); // must not delay timers armed later
    MessageTimer late("late", task.Get());
    MessageTimer early("early", task.Get());
    const auto before = std::chrono::steady_clock::now();
    late.PostIn(40, [&] { order.Change([](std::string& text) { text += "late"; }); });
    early.PostIn(20,
                 [&]
                 {
                     EXPECT_GE(std::chrono::steady_clock::now() - before, 20ms);
                     order.Change([](std::string& text) { text += "early "; });
                 });
    EXPECT_TRUE(order.WaitFor("early late"));
}

} // namespace
