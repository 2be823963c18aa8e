#include "Mdns/MdnsDiscoveryProtocol.h"
#include "gateway/DiscoveryServicePorticoClient.h"
#include "ipc/DiscoveryServiceIPCServer.h"
#include "runtime/Task.h"
#include "service/DiscoveryServiceController.h"
#include "ssdp/SsdpDiscoveryProtocol.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"
#include "tests/support/ForkedRun.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <vector>

using namespace SonarixService;

namespace
{

FakePortico* s_portico = nullptr;
NotifyTargetTaskIF* s_task = nullptr;

/// Posts a child after the aggregator and before the gateway client exist: the earliest time of a request.
std::shared_ptr<DiscoveryServicePorticoClientIF>
CreateClientAfterPostOfChild(NotifyTargetTaskIF* task, const std::shared_ptr<DiscoveryServiceControllerIF>& controller,
                             const std::shared_ptr<PorticoClientIF>& portico,
                             const std::shared_ptr<DiscoveryServiceAggregatorIF>& aggregator)
{
    s_task = task;
    s_portico->Find("DiscoveryServiceOverPortico")
        ->Call(Portico::Verb::POST, "/sonarix/private/products",
               R"({"state":"ONLINE","productinfo":{"guid":"child","ecosystem":"ORB2"}})");
    static std::promise<void> s_isReached;
    IL::BreakThread([] { s_isReached.set_value(); }, task);
    EXPECT_EQ(s_isReached.get_future().wait_for(std::chrono::milliseconds(50)), std::future_status::timeout)
        << "the task is paused during the construction";
    return std::make_shared<DiscoveryServicePorticoClient>(task, controller, portico, aggregator);
}

} // namespace

/// With threads: no request is processed before all objects are constructed.
TEST(StartWithRealTasksTest, ChildPostedDuringTheStartIsNotified)
{
    const ForkedResult result = RunForked(
        []
        {
            FakePortico portico;
            s_portico = &portico;
            setenv("SONARIX_MFG_DATA", "/nonexistent/mfg.json", 1);
            setenv("SONARIX_PRODUCT_CONFIG", "/nonexistent/config.json", 1);
            setenv("SONARIX_ETC_DIR", "/nonexistent/", 1);
            setenv("SONARIX_RUN_DIR", "/nonexistent", 1);
            MdnsDiscoveryProtocol::s_factoryOverride.Set([]() -> std::shared_ptr<MdnsDiscoveryProtocolIF>
                                                         { return std::make_shared<FakeMdnsDiscoveryProtocol>(); });
            SsdpDiscoveryProtocol::s_factoryOverride.Set([]() -> std::shared_ptr<SsdpDiscoveryProtocolIF>
                                                         { return nullptr; });
            DiscoveryServiceIPCServer::s_factoryOverride.Set(
                [](const auto&) -> std::shared_ptr<DiscoveryServiceIPCServerIF> { return nullptr; });
            DiscoveryServicePorticoClient::s_factoryOverride.Set(CreateClientAfterPostOfChild);

            const auto controller = std::make_shared<DiscoveryServiceController>();
            controller->Initialize();
            // The request is processed in four entries, of which each posts the next.
            for (int hop = 0; hop < 4; ++hop)
            {
                std::promise<void> drained;
                IL::BreakThread([&drained] { drained.set_value(); }, s_task);
                drained.get_future().wait();
            }
            const std::vector<std::string> lists = portico.Find("SonarixService")->Notifications("/sonarix/products");
            EXPECT_THAT(lists, testing::ElementsAre(testing::HasSubstr("child")));
            return testing::Test::HasFailure() ? 1 : 0;
        });
    EXPECT_TRUE(result.Succeeded()) << result.HowItEnded() << '\n' << result.m_output;
}
