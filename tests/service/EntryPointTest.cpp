#include "service/ServiceEntry.h"

#include "Mdns/MdnsDiscoveryProtocol.h"
#include "gateway/DiscoveryServicePorticoClient.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"
#include "tests/support/ForkedRun.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

using namespace SonarixService;

TEST(EntryPointTest, CrashReportIsOneLineForEachFrame)
{
    const LogCapture log("1");
    // The start line is logged before the backtrace is taken, in case that faults.
    LogCrash(
        [&log]
        {
            EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U);
            return std::vector<std::string>{"first()", "", "100%s"};
        });
    EXPECT_EQ(log.Text(), "1 SonarixService: ------- SonarixService Segmentation Fault Start --------\n"
                          "1 SonarixService: first()\n"
                          "1 SonarixService: <unresolved>\n"
                          "1 SonarixService: 100%s\n"
                          "1 SonarixService: -------- SonarixService Segmentation Fault End ---------\n"
                          "1 SonarixService: -------- SonarixService Shutting Down Cleanly where possible ---------\n");
}

TEST(EntryPointTest, ExceptionIsLoggedAndExitSkipsDestructors)
{
    for (const std::string thrower : {"constructor", "Initialize"})
    {
        const TempDirectory runDir;
        setenv("SONARIX_RUN_DIR", runDir.Path().c_str(), 1);
        static bool s_constructorThrows;
        s_constructorThrows = thrower == "constructor";
        const ForkedResult result = RunForked(
            []
            {
                static FakePortico s_portico;
                MdnsDiscoveryProtocol::s_factoryOverride.Set(
                    []() -> std::shared_ptr<MdnsDiscoveryProtocolIF>
                    {
                        if (s_constructorThrows)
                        {
                            throw std::runtime_error("constructor");
                        }
                        return {new FakeMdnsDiscoveryProtocol, [](void*) { std::cerr << "destroyed" << std::endl; }};
                    });
                DiscoveryServicePorticoClient::s_factoryOverride.Set(
                    [](NotifyTargetTaskIF*, const auto&, const auto&,
                       const auto&) -> std::shared_ptr<DiscoveryServicePorticoClientIF>
                    { throw std::runtime_error("Initialize"); });
                return RunService();
            });
        EXPECT_EQ(result.m_exitStatus, 1) << result.HowItEnded();
        EXPECT_THAT(result.m_output,
                    testing::EndsWith("SonarixService: Caught top level exception: " + thrower + "\n"));
        EXPECT_THAT(result.m_output, testing::Not(testing::HasSubstr("destroyed")));
    }
}
