#include "ServiceProcess.h"

#include "DPrint.h"
#include "ServiceEntry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <string>
#include <vector>

#include <sys/wait.h>

using namespace SonarixService;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace
{

/// Log level 4 shows the entry into JoinTasks(), the last line of the start.
const char* const kStarted = "JoinTasks";

const char* const kCrashStart = "------- SonarixService Segmentation Fault Start --------";
const char* const kCrashEnd = "-------- SonarixService Segmentation Fault End ---------";
const char* const kCrashShutdown = "-------- SonarixService Shutting Down Cleanly where possible ---------";

} // namespace

TEST(EntryPointTest, FaultLogsItsFramesAndLeavesWithStatusOne)
{
    ServiceProcess service;
    ASSERT_TRUE(service.ReadUntil(kStarted)) << service.Output();
    const std::size_t begin = service.Output().size();
    service.Kill(SIGSEGV);
    const int status = service.Wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);

    const std::string lines = service.Output().substr(begin);
    const std::size_t start = lines.find(kCrashStart);
    const std::size_t end = lines.find(kCrashEnd);
    ASSERT_NE(start, std::string::npos) << lines;
    ASSERT_NE(end, std::string::npos) << lines;
    EXPECT_LT(start, end);
    EXPECT_LT(end, lines.find(kCrashShutdown)) << lines;
    EXPECT_THAT(lines.substr(start, end - start), HasSubstr("main")) << "the frames have no names";
}

TEST(EntryPointTest, CrashReportIsOneLineForEachFrame)
{
    std::vector<std::string> lines;
    DPrint::SetSink(
        [&lines](const std::string& channel, DPrint::Level level, const std::string& text)
        {
            if (channel == "SonarixService" && level == DPrint::LEVEL_ERROR)
            {
                lines.push_back(text);
            }
        });
    // The trace is taken between the first line and the next: a fault in it leaves the first one behind.
    LogCrash(
        [&lines]
        {
            EXPECT_THAT(lines, ElementsAre(kCrashStart));
            return std::vector<std::string>{"first()", "", "100%s"};
        });
    DPrint::SetSink(nullptr);
    EXPECT_THAT(lines, ElementsAre(kCrashStart, "first()", "<unresolved>", "100%s", kCrashEnd, kCrashShutdown));
}

TEST(EntryPointTest, TermAndIntEndItBySignalWithoutTheShutdownSequence)
{
    for (const int signal : {SIGTERM, SIGINT})
    {
        ServiceProcess service;
        ASSERT_TRUE(service.ReadUntil(kStarted)) << service.Output();
        service.Kill(SIGPIPE); // ignored, as for a write to a closed socket
        service.Kill(signal);
        const int status = service.Wait();
        ASSERT_TRUE(WIFSIGNALED(status));
        EXPECT_EQ(WTERMSIG(status), signal);
        EXPECT_THAT(service.Output(), Not(HasSubstr("Shutdown")));
    }
}

TEST(EntryPointTest, SecondInstanceSaysWhoHoldsTheLockAndLeaves)
{
    ServiceProcess first;
    ASSERT_TRUE(first.ReadUntil(kStarted)) << first.Output();

    ServiceProcess second(first.RunDir());
    const int status = second.Wait();
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
    EXPECT_THAT(second.Output(), HasSubstr(std::to_string(first.Pid())));

    // A lock whose holder was killed is free.
    first.Kill(SIGKILL);
    first.Wait();
    ServiceProcess third(first.RunDir());
    EXPECT_TRUE(third.ReadUntil(kStarted)) << third.Output();
}

TEST(EntryPointTest, ArgumentsAreIgnored)
{
    ServiceProcess service("", {"--version", "--nonsense"});
    EXPECT_TRUE(service.ReadUntil(kStarted)) << service.Output();
}
