#include "runtime/TaskCheck.h"

#include "runtime/engine/Simulation.h"
#include "tests/support/ForkedRun.h"
#include "tests/support/RealTask.h"

#include <csignal>
#include <gmock/gmock.h>

#ifndef NDEBUG // release builds contain no checks

namespace
{

using testing::HasSubstr;

/// Returns the output of a process that `body` aborts.
std::string OutputOfAbort(const std::function<void()>& body)
{
    const ForkedResult result = RunForked(
        [&]
        {
            body();
            return 0;
        });
    EXPECT_EQ(result.m_signal, SIGABRT) << result.HowItEnded();
    return result.m_output;
}

TEST(TaskCheckTest, OtherThreadEndsTheProcessAndIsNamed)
{
    const auto check = []
    {
        const RealTask owner("Owner");
        TASK_CHECK(owner.Get());
    };
    const std::string output = OutputOfAbort([&check] { RealTask("Other").Run(check); });
    EXPECT_THAT(output, HasSubstr("OtherThreadEndsTheProcessAndIsNamed"));
    EXPECT_THAT(output, HasSubstr("belongs to task Owner and runs on task Other\n"));
    EXPECT_THAT(OutputOfAbort(check), HasSubstr("task Owner and runs on a thread outside all tasks\n"));
}

TEST(TaskCheckTest, AcceptsOwnTaskEndedTaskAndNull)
{
    const RealTask owner("Owner");
    const RealTask other("Other");
    owner.Run([&] { TASK_CHECK(owner.Get()); });
    TASK_CHECK(nullptr);
    owner.StopAndJoin();
    TASK_CHECK(owner.Get());
    other.Run([&] { TASK_CHECK(owner.Get()); });
}

TEST(TaskCheckTest, SimulationAcceptsScriptsAndEndsOnAnotherTask)
{
    IL::Simulation simulation(1);
    NotifyTargetTaskIF* const owner = IL::CreateTask("Owner", "");
    NotifyTargetTaskIF* const other = IL::CreateTask("Other", "");
    const auto check = [owner] { TASK_CHECK(owner); };
    check();
    simulation.Schedule(std::chrono::seconds(1), check);
    IL::BreakThread(check, owner);
    simulation.RunFor(std::chrono::seconds(2));
    IL::BreakThread(check, other);
    const std::string output = OutputOfAbort([&] { simulation.RunUntilIdle(); });
    EXPECT_THAT(output, HasSubstr("belongs to task Owner and runs on task Other\n"));
}

} // namespace

#endif
