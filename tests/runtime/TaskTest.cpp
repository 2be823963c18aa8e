#include "runtime/AsyncCallback.h"
#include "runtime/CallbackConnection.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/Timers.h"
#include "tests/support/LogCapture.h"
#include "tests/support/RealTask.h"
#include "tests/support/Watched.h"

#include <atomic>
#include <filesystem>
#include <gmock/gmock.h>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace
{

using testing::ElementsAre;

TEST(Task, RunsEntriesOneAtATimeInTheirOrder)
{
    const RealTask target;
    constexpr int kEach = 500;
    std::vector<int> seen; // not locked, because only the task uses it
    const auto post = [&](int first)
    {
        for (int i = 0; i < kEach; ++i)
        {
            IL::BreakThread([&seen, value = first + i] { seen.push_back(value); }, target.Get());
        }
    };
    std::thread other([&post] { post(kEach); });
    post(0);
    other.join();
    target.Drain();
    ASSERT_EQ(seen.size(), std::size_t{2} * kEach);
    int low = 0;
    int high = kEach;
    for (const int value : seen)
    {
        EXPECT_EQ(value, value < kEach ? low++ : high++);
    }
}

TEST(Task, ContinuesAfterExceptionsAndCannotJoinItself)
{
    const LogCapture log;
    const RealTask task("Selfish");
    IL::BreakThread([] { throw std::runtime_error("standard text"); }, task.Get());
    IL::BreakThread([] { throw 5; }, task.Get());
    IL::BreakThread(nullptr, task.Get());
    task.Drain();
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 3u) << log.Text();
    EXPECT_TRUE(log.Contains("standard text") && log.Contains("type int") && log.Contains("bad_function_call"));
    std::atomic<bool> after = false;
    IL::BreakThread(
        [&]
        {
            IL::StopTask(task.Get());
            IL::JoinTask(task.Get());
            IL::BreakThread([&after] { after = true; }, task.Get());
        },
        task.Get());
    IL::JoinTask(task.Get());
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 4u) << log.Text();
    EXPECT_FALSE(after);
}

TEST(Task, StopLetsTheRunningEntryEndAndThrowsTheRestAway)
{
    const RealTask task;
    Watched<std::vector<std::string>> events;
    const auto add = [&events](const std::string& event)
    { events.Change([&event](std::vector<std::string>& all) { all.push_back(event); }); };
    ConditionSemaphore entered(0);
    ConditionSemaphore goOn(0);
    const CallbackConnection gone = task.Get()->ConnectStopNotification([&] { add("disconnected one"); });
    task.Get()->ConnectStopNotification([] { throw std::runtime_error("a stop notification"); });
    task.Get()->ConnectStopNotification([&]
                                        { add(task.Get()->IsCurrent() ? "notified on task" : "notified elsewhere"); });
    IL::BreakThread(
        [&]
        {
            entered.Signal();
            goOn.Wait(10'000);
            add("entry ended");
        },
        task.Get());
    // The destructor of a dropped entry may post to the task.
    std::shared_ptr<void> dying(nullptr,
                                [&](void*)
                                {
                                    add("thrown away");
                                    IL::BreakThread([&] { add("posted after the stop"); }, task.Get());
                                });
    IL::BreakThread([owned = std::move(dying), &add] { add("queued entry"); }, task.Get());

    ASSERT_TRUE(entered.Wait(10'000));
    const LogCapture log;
    IL::StopTask(task.Get());
    IL::StopTask(task.Get());
    gone.Disconnect();
    goOn.Signal();

    // Several threads may join, before and after the end.
    std::thread other([&task] { IL::JoinTask(task.Get()); });
    IL::JoinTask(task.Get());
    EXPECT_THAT(events.Get(), ElementsAre("entry ended", "thrown away", "notified on task"));
    other.join();
    IL::JoinTask(task.Get());
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1u) << log.Text();

    bool atOnce = false;
    task.Get()->ConnectStopNotification([&atOnce] { atOnce = true; });
    EXPECT_TRUE(atOnce);
    IL::BreakThread([&add] { add("posted after the end"); }, task.Get());
    EXPECT_THROW(task.Run([] {}), std::future_error);
    EXPECT_EQ(events.Get().size(), 3u);
}

std::ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(Task, HoldsDescriptorsOnlyWithTimersWhileRunning)
{
    const RealTask first; // opens what the process opens once
    first.Drain();
    const std::ptrdiff_t before = OpenDescriptors();
    std::vector<std::unique_ptr<RealTask>> tasks;
    for (int i = 0; i < 20; ++i)
    {
        tasks.push_back(std::make_unique<RealTask>("short"));
        tasks.back()->Drain();
    }
    EXPECT_EQ(OpenDescriptors(), before) << "an idle task holds a descriptor";

    std::vector<std::unique_ptr<MessageTimer>> timers;
    Watched<int> fired;
    for (const std::unique_ptr<RealTask>& task : tasks)
    {
        timers.push_back(std::make_unique<MessageTimer>("timer", task->Get()));
        timers.back()->PostIn(0, [&fired] { fired.Change([](int& count) { ++count; }); });
    }
    EXPECT_TRUE(fired.WaitFor(20));
    tasks.clear();
    EXPECT_EQ(OpenDescriptors(), before) << "an ended task holds a descriptor for its timers";
}

// Two threads arm and cancel timers, and create, call and destroy callbacks, while the task stops. No callback runs
// after the stop notification. The sanitizers verify that nothing destroyed is accessed.
TEST(Task, MayStopWhileThreadsUseItsTimersAndCallbacks)
{
    for (int repetition = 0; repetition < 20; ++repetition)
    {
        const RealTask target("target");
        auto timer = std::make_unique<MessageTimer>("timer", target.Get());
        const std::shared_ptr<APTimerIF> repeating = APTimerFactory::CreateTimer(target.Get(), "repeating");
        repeating->SetTimeouts(0, 1);
        std::atomic<bool> stopped = false;
        std::atomic<int> late = 0;
        target.Get()->ConnectStopNotification([&stopped] { stopped = true; });
        const auto count = [&] { late += stopped ? 1 : 0; };
        const AsyncCallback<std::string> shared([&count](const std::string&) { count(); }, target.Get());
        Watched<int> running;
        const auto churn = [&]
        {
            running.Change([](int& threads) { ++threads; });
            for (int i = 0; i < 200; ++i)
            {
                timer->PostIn(i % 2, count);
                repeating->Start(count);
                (i % 3 == 0) ? timer->Cancel() : repeating->Stop();
                MessageTimer("short-lived", target.Get()).PostIn(0, [] {});
                shared("shared");
                const AsyncCallback<int> own([](const int&) {}, target.Get());
                own(i);
            }
        };
        {
            const std::jthread first(churn);
            const std::jthread second(churn);
            running.WaitFor(2);
            target.StopAndJoin();
            EXPECT_TRUE(stopped);
        }
        timer.reset(); // after the end of its task
        EXPECT_EQ(late, 0);
    }
}

// The woken waiter destroys the semaphore at once, while Signal() may still run.
TEST(Semaphore, MayBeDestroyedByTheWokenWaiter)
{
    const RealTask task;
    for (int i = 0; i < 200; ++i)
    {
        auto shortLived = std::make_unique<ConditionSemaphore>(0);
        IL::BreakThread([raw = shortLived.get()] { raw->Signal(); }, task.Get());
        EXPECT_TRUE(shortLived->Wait(10'000));
        EXPECT_FALSE(shortLived->Wait(0));
    }
}

} // namespace
