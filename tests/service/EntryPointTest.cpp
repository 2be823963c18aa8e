#include "ServiceProcess.h"

#include "DPrint.h"
#include "DiscoveryServicePorticoClient.h"
#include "FakeDiscovery.h"
#include "FakePortico.h"
#include "ForkedRun.h"
#include "MdnsDiscoveryProtocol.h"
#include "ServiceEntry.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <stdexcept>
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

/// Runs the entry point in a process of its own, after `prepare`; whatever it prints is the result's output.
ForkedResult RunEntryPoint(const std::function<void()>& prepare)
{
    std::string runDir = (std::filesystem::temp_directory_path() / "sonarix-run-XXXXXX").string();
    mkdtemp(runDir.data());
    const ForkedResult result = RunForked(
        [&]
        {
            setenv("SONARIX_RUN_DIR", runDir.c_str(), 1);
            prepare();
            return RunService();
        });
    std::filesystem::remove_all(runDir);
    return result;
}

/// An mDNS protocol that says so when something destroys it.
std::shared_ptr<MdnsDiscoveryProtocolIF> MakeTellingMdnsProtocol()
{
    return {new FakeMdnsDiscoveryProtocol, [](FakeMdnsDiscoveryProtocol* mdns)
            {
                std::cerr << "mDNS destroyed" << std::endl;
                delete mdns;
            }};
}

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
    // Any thread may be the one that faults; the handler is on its stack.
    EXPECT_THAT(lines.substr(start, end - start), HasSubstr("SonarixService::LogCrash")) << "no names";
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

TEST(EntryPointTest, ExceptionOfTheConstructorIsToldOnTheStandardLogStream)
{
    const ForkedResult result = RunEntryPoint(
        []
        {
            MdnsDiscoveryProtocol::SetFactoryOverride([]() -> std::shared_ptr<MdnsDiscoveryProtocolIF>
                                                      { throw std::runtime_error("no mDNS today"); });
        });
    EXPECT_EQ(result.m_exitStatus, 1) << result.HowItEnded();
    EXPECT_EQ(result.m_output, "SonarixService: Caught top level exception: no mDNS today\n");
}

TEST(EntryPointTest, ExceptionOfInitializeLeavesWithoutDestructorsAndShutdown)
{
    const ForkedResult result = RunEntryPoint(
        []
        {
            static FakePortico s_portico;
            MdnsDiscoveryProtocol::SetFactoryOverride(MakeTellingMdnsProtocol);
            DiscoveryServicePorticoClient::SetFactoryOverride(
                [](NotifyTargetTaskIF*, const std::shared_ptr<DiscoveryServiceControllerIF>&,
                   const std::shared_ptr<PorticoClientIF>&, const std::shared_ptr<DiscoveryServiceAggregatorIF>&)
                    -> std::shared_ptr<DiscoveryServicePorticoClientIF> { throw std::runtime_error("no gateway"); });
        });
    EXPECT_EQ(result.m_exitStatus, 1) << result.HowItEnded();
    EXPECT_THAT(result.m_output, HasSubstr("\nSonarixService: Caught top level exception: no gateway\n"));
    EXPECT_THAT(result.m_output, Not(HasSubstr("mDNS")));
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
