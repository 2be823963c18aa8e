#include "AsyncCallback.h"

#include "LogCapture.h"
#include "RealTask.h"
#include "Simulation.h"
#include "Watched.h"

#include <atomic>
#include <gtest/gtest.h>
#include <memory>
#include <stdexcept>
#include <string>

namespace
{

TEST(Callback, EmptyOnesMayBeCalledAndStayEmptyWhenConverted)
{
    const Callback<int> empty;
    empty(1);
    const Callback<void> none;
    const Callback<> converted(none); // NOLINT(performance-unnecessary-copy-initialization): the point
    EXPECT_FALSE(converted);
    EXPECT_FALSE(Callback<void>(converted));
    EXPECT_FALSE(Callback<int>(std::function<void(const int&)>()));
    EXPECT_FALSE(Callback<int>(nullptr));

    const auto held = std::make_shared<int>(0);
    int sum = 0;
    Callback<int> callback = [held, &sum](const int& value) { sum += value; };
    const Callback<int> copy = callback;
    callback.Clear();
    callback(1);
    copy(10);
    EXPECT_EQ(sum, 10);
    EXPECT_EQ(held.use_count(), 2);
}

class AsyncCallbackTest : public testing::Test
{
protected:
    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Target", "");
    std::string m_seen;
};

TEST_F(AsyncCallbackTest, RunsOnItsTaskLaterWithCopiesOfTheArguments)
{
    std::string text = "before ";
    int number = 1;
    {
        const AsyncCallback<std::string, const int> async(
            [this](const std::string& first, const int& second)
            {
                EXPECT_TRUE(m_task->IsCurrent());
                m_seen += first + std::to_string(second);
            },
            m_task);
        const Callback<std::string, const int> callback = async;
        callback(text, number);
        text = "after ";
        number = 2;
    }
    EXPECT_EQ(text + std::to_string(number), "after 2");
    EXPECT_EQ(m_seen, "") << "the caller does not wait, and nothing runs on it";
    m_simulation.RunUntilIdle();
    EXPECT_EQ(m_seen, "before 1") << "a call in flight outlives every copy of the callback";
}

TEST_F(AsyncCallbackTest, DroppedWithoutCopyingAfterTheStopAndWithoutTask)
{
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
    int copies = 0;
    int calls = 0;
    const auto count = [&calls](const Counted&) { ++calls; };
    const AsyncCallback<Counted> async(count, m_task);
    const AsyncCallback<Counted> nowhere(count, nullptr);
    async(Counted(&copies));
    EXPECT_EQ(copies, 1);
    nowhere(Counted(&copies));

    IL::StopTask(m_task);
    m_simulation.RunUntilIdle();
    async(Counted(&copies));
    const AsyncCallback<Counted> late(count, m_task); // its task has stopped already
    late(Counted(&copies));
    m_simulation.RunUntilIdle();
    EXPECT_EQ(copies, 1);
    EXPECT_EQ(calls, 0) << "what was queued at the stop is thrown away";
}

TEST_F(AsyncCallbackTest, ThrowingAndEmptyFunctionsLeaveTheTaskRunning)
{
    const LogCapture log;
    const AsyncCallback<int> empty(std::function<void(const int&)>(), m_task);
    const AsyncCallback<> throwing([] { throw std::runtime_error("told so"); }, m_task);
    const AsyncCallback<> fine([this] { m_seen = "alive"; }, m_task);
    empty(1);
    throwing();
    fine();
    m_simulation.RunUntilIdle();
    EXPECT_EQ(m_seen, "alive");
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 2u) << log.Text();
    EXPECT_TRUE(log.Contains("bad_function_call"));
    EXPECT_TRUE(log.Contains("\"Target\"") && log.Contains("told so"));
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
