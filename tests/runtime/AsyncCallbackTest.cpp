#include "runtime/AsyncCallback.h"

#include "runtime/engine/Simulation.h"

#include <gtest/gtest.h>
#include <memory>

namespace
{

TEST(Callback, EmptyMayBeCalledAndStaysEmptyWhenConverted)
{
    const Callback<int> empty;
    empty(1);
    const Callback<void> none;
    const Callback<> converted(none); // NOLINT(performance-unnecessary-copy-initialization): tests the copy
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

TEST(AsyncCallbackTest, PostsACopyOrNothingWithoutARunningTask)
{
    IL::Simulation simulation(1);
    NotifyTargetTaskIF* const task = IL::CreateTask("Target", "");
    int copies = 0;
    int calls = 0;
    const auto count = [&calls](const Counted&) { ++calls; };
    auto shortLived = std::make_unique<AsyncCallback<Counted>>(count, task);
    (*shortLived)(Counted(&copies));
    shortLived.reset();
    EXPECT_EQ(calls, 0) << "a call does not run on the calling thread";
    simulation.RunUntilIdle();
    EXPECT_EQ(calls, 1) << "a posted call does not need the callback";

    const AsyncCallback<Counted> async(count, task);
    const AsyncCallback<Counted> nowhere(count, nullptr);
    async(Counted(&copies));
    EXPECT_EQ(copies, 2);
    nowhere(Counted(&copies));
    IL::StopTask(task);
    simulation.RunUntilIdle();
    async(Counted(&copies));
    const AsyncCallback<Counted> late(count, task); // on a stopped task
    late(Counted(&copies));
    simulation.RunUntilIdle();
    EXPECT_EQ(copies, 2);
    EXPECT_EQ(calls, 1) << "an entry queued at the stop is dropped";
}

} // namespace
