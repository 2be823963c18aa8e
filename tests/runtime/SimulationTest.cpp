#include "runtime/engine/Simulation.h"

#include "runtime/ConditionSemaphore.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "runtime/Timers.h"
#include "runtime/engine/RandomSequence.h"
#include "tests/support/LogCapture.h"

#include <chrono>
#include <gmock/gmock.h>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using namespace std::chrono_literals;
using testing::ElementsAre;

/// Returns the order in which three tasks run that post to each other from timers for a simulated hour.
std::string OrderOf(std::uint64_t seed)
{
    IL::Simulation simulation(seed);
    std::string order;
    std::vector<NotifyTargetTaskIF*> tasks;
    std::vector<std::shared_ptr<APTimerIF>> timers;
    for (const char* name : {"A", "B", "C"})
    {
        tasks.push_back(IL::CreateTask(name, ""));
        timers.push_back(APTimerFactory::CreateTimer(tasks.back(), name));
        timers.back()->SetTimeouts(1000, 60'000);
        timers.back()->Start(
            [&, name]
            {
                order += name;
                auto* const other = tasks[simulation.Random(tasks.size())];
                IL::BreakThread([&order, other] { order += other->Name(); }, other);
            });
    }
    simulation.RunFor(1h);
    return order + std::to_string(simulation.Fingerprint());
}

TEST(Simulation, RunDependsOnTheSeedOnly)
{
    std::set<std::string> orders;
    for (std::uint64_t seed = 0; seed < 20; ++seed)
    {
        orders.insert(OrderOf(seed));
        EXPECT_TRUE(orders.contains(OrderOf(seed)));
        EXPECT_EQ(orders.size(), seed + 1);
    }

    // These numbers must never change: a seed from an old report must still repeat its run.
    IL::RandomSequence sequence(0); // the published first numbers of xoshiro256** seeded by splitmix64
    EXPECT_EQ(sequence.Next(), 11091344671253066420U);
    EXPECT_EQ(sequence.Next(), 13793997310169335082U);
}

TEST(Simulation, TimeJumpsAndStopsExactly)
{
    IL::Simulation simulation(3);
    auto* const task = IL::CreateTask("task", "");
    const std::time_t begin = MonotonicClock::NowSec();
    EXPECT_GT(begin, 0);
    int ticks = 0;
    const auto timer = APTimerFactory::CreateTimer(task, "tick");
    timer->SetTimeouts(2000, 2000);
    timer->Start([&ticks] { ++ticks; });
    std::string order;
    simulation.Schedule(4001ms, [&] { order += task->IsCurrent() ? "inside" : "4 "; });
    simulation.Schedule(1s, [&] { IL::BreakThread([&] { order += task->IsCurrent() ? "task " : "outside"; }, task); });
    simulation.RunFor(4s);
    EXPECT_EQ(order, "task ");
    simulation.RunUntilIdle(); // nothing is due, so the clock does not advance
    EXPECT_EQ(MonotonicClock::NowSec() - begin, 4);
    EXPECT_TRUE(simulation.RunUntil([&] { return ticks == 4; }, 1h));
    EXPECT_EQ(order, "task 4 ");
    EXPECT_EQ(MonotonicClock::NowSec() - begin, 8);
    EXPECT_FALSE(simulation.RunUntil([] { return false; }, 10s));
    EXPECT_EQ(MonotonicClock::NowSec() - begin, 18);
    simulation.RunFor(30 * 24h); // more steps than one instant may have
    EXPECT_EQ(ticks, 30 * 24 * 1800 + 9);
    EXPECT_GT(simulation.Events(), IL::Simulation::kMaxStepsAtOneInstant);
}

TEST(Simulation, WaitStepsTheOtherTasksOnly)
{
    IL::Simulation simulation(5);
    auto* const waiter = IL::CreateTask("waiter", "");
    auto* const helper = IL::CreateTask("helper", "");
    std::vector<std::string> events;
    IL::BreakThread(
        [&]
        {
            ConditionSemaphore semaphore(0);
            const std::int64_t begin = MonotonicClock::NowMs();
            IL::BreakThread([&] { events.emplace_back("own entry"); }, waiter);
            MessageTimer own("own", waiter);
            own.PostIn(1, [&] { events.emplace_back("own timer"); });
            MessageTimer timer("timer", helper);
            timer.PostIn(200,
                         [&]
                         {
                             EXPECT_TRUE(helper->IsCurrent() && !waiter->IsCurrent());
                             semaphore.Signal();
                         });
            EXPECT_TRUE(semaphore.Wait(1000));
            EXPECT_TRUE(waiter->IsCurrent());
            EXPECT_EQ(MonotonicClock::NowMs() - begin, 200);
            EXPECT_FALSE(semaphore.Wait(1000));
            EXPECT_EQ(MonotonicClock::NowMs() - begin, 1200);
            own.Cancel(); // has been due for more than a second
            events.emplace_back("waited");
        },
        waiter);
    simulation.RunFor(1h);
    EXPECT_THAT(events, ElementsAre("waited", "own entry"));
}

TEST(Simulation, ClockNeverGoesBackAfterANestedWait)
{
    IL::Simulation simulation(5);
    auto* const below = IL::CreateTask("below", "");
    auto* const above = IL::CreateTask("above", "");
    std::vector<std::int64_t> ends;
    const std::int64_t begin = MonotonicClock::NowMs();
    IL::BreakThread(
        [&]
        {
            ConditionSemaphore semaphore(0);
            IL::BreakThread(
                [&]
                {
                    EXPECT_FALSE(ConditionSemaphore(0).Wait(1000));
                    ends.push_back(MonotonicClock::NowMs() - begin);
                },
                above);
            EXPECT_FALSE(semaphore.Wait(100));
            ends.push_back(MonotonicClock::NowMs() - begin);
        },
        below);
    simulation.RunFor(500ms);
    EXPECT_EQ(MonotonicClock::NowMs() - begin, 1000);
    simulation.RunFor(500ms);
    EXPECT_EQ(MonotonicClock::NowMs() - begin, 1500);
    EXPECT_THAT(ends, ElementsAre(1000, 1000));
}

TEST(Simulation, JoinStepsUntilTheTaskHasEnded)
{
    const LogCapture log;
    IL::Simulation simulation(5);
    auto* const task = IL::CreateTask("task", "");
    auto* const owner = IL::CreateTask("owner", "");
    std::string events;
    const CallbackConnection gone = task->ConnectStopNotification([&] { events += "disconnected "; });
    task->ConnectStopNotification([] { throw std::runtime_error("a stop notification"); });
    task->ConnectStopNotification([&] { events += task->IsCurrent() ? "on task " : "elsewhere "; });
    gone.Disconnect();
    IL::BreakThread(
        [&]
        {
            IL::StopTask(task);
            IL::BreakThread([&] { events += "after the stop "; }, task);
            IL::JoinTask(task);
            events += "joined";
            IL::JoinTask(owner); // itself
        },
        owner);
    simulation.RunUntilIdle();
    EXPECT_EQ(events, "on task joined");
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 2u) << log.Text();
}

} // namespace
