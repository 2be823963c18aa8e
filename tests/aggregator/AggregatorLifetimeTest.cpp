// What is on its way when the aggregator goes, and real tasks beside it.

#include "AggregatorWorld.h"
#include "DiscoveryServiceAggregator.h"
#include "Task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <thread>

using namespace std::chrono_literals;

namespace
{

const char* const kInfoPath = "/sonarix/info";

} // namespace

TEST(AggregatorLifetimeTest, WhatWasOnItsWayTouchesNothingAfterTheEnd)
{
    AggregatorWorld world;
    world.StartAs(SXCommon::HOST);
    world.Ssdp("a");
    world.Answer("a");
    world.Heartbeat("a", HEARTBEAT_OFFLINE); // the reap timer runs
    world.Pass(6h);
    ASSERT_EQ(world.mdns->WaitingLists(), 1U); // a refresh waits for its answer
    world.Pass(1s);
    const std::weak_ptr<SonarixService::DiscoveryServiceAggregatorIF> weak = world.aggregator;
    world.Ssdp("b");
    const auto remote = world.Remote("b");
    const auto heartbeat = remote->Heartbeat();

    world.ssdp->Report(Report{.guid = "c", .protocols = {SXCommon::SSDP}}.Product());
    world.mdns->Report(Report{.guid = "d", .protocols = {SXCommon::MDNS}}.Product());
    remote->Push(kInfoPath, AggregatorWorld::Info("b"));
    remote->Answer(kInfoPath, AggregatorWorld::Info("b"));
    remote->SendHeartbeat(HEARTBEAT_OFFLINE);
    world.portico.Find("DiscoveryServiceOverPortico")
        ->Call(Portico::Verb::POST, "/sonarix/private/products", R"({"productinfo":{"guid":"x","ecosystem":"ORB2"}})");

    world.aggregator.reset();
    ASSERT_TRUE(weak.expired());
    EXPECT_EQ(world.portico.OpenConnections(), 0U);
    const std::size_t made = world.portico.Made().size();

    Sonarix::ProductList list;
    *list.add_products() = Report{.guid = "e"}.Product();
    world.mdns->AnswerList(list);
    world.ssdp->Report(Report{.guid = "f", .protocols = {SXCommon::SSDP}}.Product()); // nobody disconnected us
    (*heartbeat)("b", HEARTBEAT_ONLINE);
    world.Pass(24h);
    EXPECT_EQ(world.portico.Made().size(), made);
    EXPECT_TRUE(world.lists.empty() || world.lists.back().products_size() <= 2);
}

TEST(AggregatorLifetimeTest, SourcesOnThreadsOfTheirOwnReportToTheTask)
{
    FakePortico portico;
    auto ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    auto mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
    auto controller = std::make_shared<FakeController>();
    controller->ssdp = ssdp;
    controller->mdns = mdns;
    NotifyTargetTaskIF* const task = IL::CreateTask("DiscoveryServiceControllerTask", "");
    const auto onTask = [task](const std::function<void()>& function)
    {
        std::promise<void> done;
        IL::BreakThread(
            [&]
            {
                function();
                done.set_value();
            },
            task);
        done.get_future().wait();
    };

    std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF> aggregator;
    onTask(
        [&]
        {
            aggregator = SonarixService::DiscoveryServiceAggregator::Create(task, controller);
            aggregator->InitializeProtocols(SXCommon::HOST, "10.0.0.1");
        });

    constexpr int kReports = 200;
    const auto guid = [](int number) { return "g" + std::to_string(number % 20); };
    std::thread first(
        [&]
        {
            for (int i = 0; i < kReports; ++i)
            {
                ssdp->Report(Report{.guid = guid(i), .protocols = {SXCommon::SSDP}}.Product());
            }
        });
    std::thread second(
        [&]
        {
            for (int i = 0; i < kReports; ++i)
            {
                mdns->Report(Report{.guid = guid(i), .protocols = {SXCommon::MDNS}}.Product());
            }
        });
    std::thread gateway(
        [&]
        {
            for (int i = 0; i < kReports; ++i)
            {
                if (const auto remote = portico.Find("DiscoveryServiceAggregator-" + guid(i)))
                {
                    remote->Answer(kInfoPath, AggregatorWorld::Info(guid(i)));
                    remote->SendHeartbeat(i % 3 == 0 ? HEARTBEAT_OFFLINE : HEARTBEAT_ONLINE);
                }
            }
        });
    first.join();
    second.join();
    gateway.join();

    onTask(
        [&]
        {
            Sonarix::ProductList list;
            aggregator->GetProductList(list);
            EXPECT_EQ(list.products_size(), 20);
            for (const Sonarix::Product& product : list.products())
            {
                EXPECT_THAT(product.protocols(), testing::ElementsAre(SXCommon::SSDP, SXCommon::MDNS));
            }
        });
    ssdp->Report(Report{.guid = "late", .protocols = {SXCommon::SSDP}}.Product());
    onTask([&] { aggregator.reset(); });
    ssdp->Report(Report{.guid = "later", .protocols = {SXCommon::SSDP}}.Product());
    onTask([] {});
    IL::StopTask(task);
    IL::JoinTask(task);
}
