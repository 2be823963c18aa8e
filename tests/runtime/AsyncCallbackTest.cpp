#include "AsyncCallback.h"

#include "RealTask.h"
#include "Simulation.h"
#include "Watched.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <string>

namespace
{

TEST(Callback, EmptyOnesMayBeCalledAndStayEmptyWhenConverted)
{
    const Callback<int> empty;
    empty(1);
    const Callback<void> none;
    const Callback<> converted(none); // NOLINT(performance-unnecessary-copy-initialization): the point
    EXPECT_FALSE(converted || Callback<void>(converted));
    EXPECT_FALSE(Callback<int>(std::function<void(const int&)>()) || Callback<int>(nullptr));
}

struct Counted
{
    explicit Counted(int* copies)
        : m_copies(copies)
    {
    }
    Counted(const Counted& other)
        : m_copies(other.m_copies)
    {
        ++*m_copies;
    }
    Counted& operator=(const Counted&) = delete;
    int* m_copies;
};

TEST(AsyncCallbackTest, RunsLaterWithACopyAndIsDroppedAfterTheStopAndWithoutATask)
{
    IL::Simulation simulation(1);
    NotifyTargetTaskIF* const task = IL::CreateTask("Target", "");
    int copies = 0;
    int calls = 0;
    const auto count = [&calls](const Counted&) { ++calls; };
    auto shortLived = std::make_unique<AsyncCallback<Counted>>(count, task);
    (*shortLived)(Counted(&copies));
    shortLived.reset();
    EXPECT_EQ(calls, 0) << "the caller does not wait, and nothing runs on it";
    simulation.RunUntilIdle();
    EXPECT_EQ(calls, 1) << "a call in flight outlives every copy of the callback";

    const AsyncCallback<Counted> async(count, task);
    const AsyncCallback<Counted> nowhere(count, nullptr);
    async(Counted(&copies));
    EXPECT_EQ(copies, 2);
    nowhere(Counted(&copies));
    IL::StopTask(task);
    simulation.RunUntilIdle();
    async(Counted(&copies));
    const AsyncCallback<Counted> late(count, task); // its task has stopped already
    late(Counted(&copies));
    simulation.RunUntilIdle();
    EXPECT_EQ(copies, 2);
    EXPECT_EQ(calls, 1) << "what was queued at the stop is thrown away";
}

// Callers on three threads, some making and dropping callbacks, while the task stops: after the stop notification
// nobody is called, and nothing of a dropped callback is touched.
TEST(AsyncCallbackThreads, CalledAndDroppedWhileTheTaskStops)
{
    for (int repetition = 0; repetition < 20; ++repetition)
    {
        const RealTask target("target");
        std::atomic<bool> stopped = false;
        std::atomic<int> late = 0;
        target.Get()->ConnectStopNotification([&stopped] { stopped = true; });
        const AsyncCallback<std::string> shared([&](const std::string&) { late += stopped ? 1 : 0; }, target.Get());
        {
            const RealTask first("first");
            const RealTask second("second");
            Watched<int> running;
            for (const RealTask* caller : {&first, &second})
            {
                IL::BreakThread(
                    [&]
                    {
                        running.Change([](int& count) { ++count; });
                        for (int i = 0; i < 200; ++i)
                        {
                            shared("shared");
                            const AsyncCallback<int> own([](const int&) {}, target.Get());
                            own(i);
                        }
                    },
                    caller->Get());
            }
            running.WaitFor(2);
            target.StopAndJoin();
            first.Drain();
            second.Drain();
        }
        EXPECT_EQ(late, 0);
        EXPECT_TRUE(stopped);
    }
}

} // namespace
