// Destruction of the aggregator with callbacks pending, missing sources, and sources on other threads.

#include "tests/aggregator/AggregatorWorld.h"
#include "tests/support/RealTask.h"

#include <gmock/gmock.h>

#include <thread>

using namespace std::chrono_literals;
using testing::ElementsAre;

namespace
{

/// A thread that calls `act` 200 times, with 20 guids in turn.
std::thread Repeat(const std::function<void(const std::string&)>& act)
{
    return std::thread(
        [act]
        {
            for (int i = 0; i < 200; ++i)
            {
                act("g" + std::to_string(i % 20));
            }
        });
}

} // namespace

TEST_F(AggregatorTest, PendingCallbacksDoNothingAfterDestruction)
{
    StartAsHost();
    Ssdp({"a"});
    Answer("a");
    Heartbeat("a", HEARTBEAT_OFFLINE); // arms the reap timer
    simulation.RunFor(6h);
    ASSERT_EQ(mdns->WaitingLists(), 1U); // a refresh is pending
    simulation.RunFor(1s);
    Ssdp({"b"});
    const auto remote = Remote("b");
    const auto notified = lists.size();

    ssdp->Report(Report{"c"}.By(SXCommon::SSDP));
    mdns->Report(Report{"d"}.By(SXCommon::MDNS));
    remote->PushText(kInfoPath, R"({"guid":"b"})");
    remote->AnswerText(kInfoPath, R"({"guid":"b"})");
    remote->SendHeartbeat(HEARTBEAT_OFFLINE);
    portico.Find("DiscoveryServiceOverPortico")
        ->Call(Portico::Verb::POST, "/sonarix/private/products", R"({"productinfo":{"guid":"x","ecosystem":"ORB2"}})");

    const std::weak_ptr<SonarixService::DiscoveryServiceAggregatorIF> weak = aggregator;
    aggregator.reset();
    ASSERT_TRUE(weak.expired());
    const auto made = portico.Made();
    EXPECT_TRUE(std::none_of(made.begin(), made.end(), [](const auto& connection) { return connection->IsOpen(); }));

    Sonarix::ProductList list;
    *list.add_products() = Report{"e"}.By(SXCommon::MDNS);
    mdns->AnswerList(list);
    Ssdp({"f"}); // the subscription still exists
    (*remote->heartbeat)("b", HEARTBEAT_ONLINE);
    simulation.RunFor(24h);
    EXPECT_EQ(portico.Made().size(), made.size());
    EXPECT_EQ(lists.size(), notified);
}

TEST_F(AggregatorTest, LateSourceIsSubscribedOnceAndShutdownEndsTraffic)
{
    controller->mdns = nullptr;
    StartAsHost();
    simulation.RunFor(7h); // includes a refresh
    controller->mdns = mdns;
    BecomeHost();
    BecomeHost();
    EXPECT_EQ(mdns->registrations, 1);
    Mdns({"a"});
    EXPECT_THAT(Guids(), ElementsAre("a"));

    aggregator->Shutdown();
    aggregator->Shutdown();
    Ssdp({"b"});
    Mdns({"c"});
    Answer("a");
    aggregator->SetSupportedWifiBands({"x"});
    EXPECT_THAT(Guids(), ElementsAre("a"));
    EXPECT_TRUE(lists.empty() && infos.empty());
    EXPECT_FALSE(portico.Find("DiscoveryServiceOverPortico")->IsOpen());
}

TEST(AggregatorOnRealTasksTest, ReportsOfOtherThreadsAreHandledOnTheTask)
{
    const LogCapture quiet;
    FakePortico portico;
    const auto ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    const auto mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
    const auto controller = std::make_shared<FakeController>();
    controller->ssdp = ssdp;
    controller->mdns = mdns;
    const RealTask task;
    std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF> aggregator;
    task.Run(
        [&]
        {
            aggregator = SonarixService::DiscoveryServiceAggregator::Create(task.Get(), controller);
            aggregator->InitializeProtocols(SXCommon::HOST, "10.0.0.1");
        });

    const auto answer = [&portico](const std::string& guid)
    {
        if (const auto remote = portico.Find("DiscoveryServiceAggregator-" + guid))
        {
            remote->AnswerText(kInfoPath, R"({"guid":")" + guid + R"("})");
            remote->SendHeartbeat(guid < "g15" ? HEARTBEAT_OFFLINE : HEARTBEAT_ONLINE);
        }
    };
    std::thread threads[] = {Repeat([&](const std::string& guid) { ssdp->Report(Report{guid}.By(SXCommon::SSDP)); }),
                             Repeat([&](const std::string& guid) { mdns->Report(Report{guid}.By(SXCommon::MDNS)); }),
                             Repeat(answer)};
    for (std::thread& thread : threads)
    {
        thread.join();
    }
    task.Run(
        [&]
        {
            Sonarix::ProductList list;
            aggregator->GetProductList(list);
            EXPECT_EQ(list.products_size(), 20);
            for (const Sonarix::Product& product : list.products())
            {
                EXPECT_THAT(product.protocols(), ElementsAre(SXCommon::SSDP, SXCommon::MDNS));
            }
        });
    ssdp->Report(Report{"late"}.By(SXCommon::SSDP));
    task.Run([&] { aggregator.reset(); });
    ssdp->Report(Report{"later"}.By(SXCommon::SSDP));
    task.Drain();
}
