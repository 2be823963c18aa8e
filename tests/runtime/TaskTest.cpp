#include "CallbackConnection.h"
#include "ConditionSemaphore.h"
#include "LogCapture.h"
#include "RealTask.h"
#include "TaskIo.h"
#include "Timers.h"
#include "Watched.h"

#include <array>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/local/connect_pair.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/read.hpp>
#include <boost/asio/write.hpp>
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

TEST(Task, EntriesOfAllPostersRunOneAtATimeInTheirOrder)
{
    const RealTask target;
    const RealTask other;
    constexpr int kEach = 500;
    std::vector<int> seen; // not guarded: the task is its guard
    const auto post = [&](int first)
    {
        for (int i = 0; i < kEach; ++i)
        {
            IL::BreakThread([&seen, value = first + i] { seen.push_back(value); }, target.Get());
        }
    };
    IL::BreakThread([&post] { post(kEach); }, other.Get());
    post(0);
    other.Drain();
    target.Drain();
    ASSERT_EQ(seen.size(), std::size_t{2} * kEach);
    int low = 0;
    int high = kEach;
    for (const int value : seen)
    {
        EXPECT_EQ(value, value < kEach ? low++ : high++);
    }
}

TEST(Task, GoesOnAfterExceptionsOfAnyKindAndCannotJoinItself)
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
    // An entry that is thrown away may still reach the task when it is destroyed.
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

    // Several may wait for the end, before and after it.
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

// The usual end of an owner: stop, join, go. What is still in flight towards it, entries and the handlers of its
// sockets, must not touch it any more.
TEST(Task, OwnerDestroyedWithCallsAndReadsInFlight)
{
    using Socket = boost::asio::local::stream_protocol::socket;
    struct Owner
    {
        explicit Owner(NotifyTargetTaskIF* task)
            : m_here(IL::IoContextOf(task))
            , m_there(IL::IoContextOf(task))
        {
            boost::asio::local::connect_pair(m_here, m_there);
        }
        void Read(Watched<int>& bytes)
        {
            boost::asio::async_read(m_here, boost::asio::buffer(m_byte),
                                    [this, &bytes, alive = m_alive](boost::system::error_code error, std::size_t count)
                                    {
                                        bytes.Set(static_cast<int>(count));
                                        if (!error)
                                        {
                                            Read(bytes);
                                        }
                                    });
        }
        std::array<char, 1> m_byte{};
        std::shared_ptr<int> m_alive = std::make_shared<int>(0);
        Socket m_here;
        Socket m_there;
    };
    const RealTask task;
    Watched<int> bytes;
    auto owner = std::make_unique<Owner>(task.Get());
    task.Run([&] { owner->Read(bytes); });
    boost::asio::write(owner->m_there, boost::asio::buffer("1", 1));
    EXPECT_TRUE(bytes.WaitFor(1));
    for (int i = 0; i < 100; ++i)
    {
        IL::BreakThread([alive = owner->m_alive, raw = owner.get()] { ++*raw->m_alive; }, task.Get());
    }
    const std::weak_ptr<int> alive = owner->m_alive;
    task.StopAndJoin();
    EXPECT_EQ(alive.use_count(), 1) << "entries and the pending read are thrown away with the task";
    owner.reset();
    EXPECT_TRUE(alive.expired());
}

std::ptrdiff_t OpenDescriptors()
{
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
}

TEST(Task, HoldsDescriptorsOnlyWhileItHasTimersAndRuns)
{
    const RealTask first; // whatever the process opens once
    first.Drain();
    const std::ptrdiff_t before = OpenDescriptors();
    std::vector<std::unique_ptr<RealTask>> tasks;
    for (int i = 0; i < 20; ++i)
    {
        tasks.push_back(std::make_unique<RealTask>("short"));
        tasks.back()->Drain();
    }
    EXPECT_EQ(OpenDescriptors(), before) << "a task at rest";

    std::vector<std::unique_ptr<MessageTimer>> timers;
    Watched<int> fired;
    for (const std::unique_ptr<RealTask>& task : tasks)
    {
        timers.push_back(std::make_unique<MessageTimer>("timer", task->Get()));
        timers.back()->PostIn(0, [&fired] { fired.Change([](int& count) { ++count; }); });
    }
    EXPECT_TRUE(fired.WaitFor(20));
    tasks.clear();
    EXPECT_EQ(OpenDescriptors(), before) << "tasks that have ended, their timers still there";
}

// Destroyed by the waiter as soon as it is woken, while the signaller may still be inside.
TEST(Semaphore, MayGoAsSoonAsItsWaiterIsWoken)
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
