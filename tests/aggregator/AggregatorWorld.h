#pragma once

#include "aggregator/DiscoveryServiceAggregator.h"
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

/// The guid of the manufacturing data in each test process. Other guids sort before and after it.
inline const char* const kOwn = "m-own";
inline const char* const kInfoPath = "/sonarix/info";

/// A report of a discovery source about a product that is ONLINE.
struct Report
{
    std::string guid;
    std::string name = {};
    std::function<void(Sonarix::ProductInfo&)> more = {};

    Sonarix::Product By(SXCommon::DiscoveryProtocol protocol) const;
};

/// An aggregator with fake neighbours, in virtual time.
struct AggregatorTest : testing::Test
{
    AggregatorTest()
    {
        controller->ssdp = ssdp;
        controller->mdns = mdns;
    }

    /// Creates the aggregator and subscribes to both of its registries.
    void Start()
    {
        aggregator = SonarixService::DiscoveryServiceAggregator::Create(task, controller);
        aggregator->RegisterForProductList([this](const Sonarix::ProductList& list) { lists.push_back(list); });
        aggregator->RegisterForMyProductInfo([this](const Sonarix::ProductInfo& info) { infos.push_back(info); });
        simulation.RunUntilIdle();
    }
    void StartAsHost()
    {
        Start();
        BecomeHost();
        infos.clear();
    }

    // Each of the following functions runs until all queues are empty.
    void Ssdp(const Report& report)
    {
        ssdp->Report(report.By(SXCommon::SSDP));
        simulation.RunUntilIdle();
    }
    void Mdns(const Report& report)
    {
        mdns->Report(report.By(SXCommon::MDNS));
        simulation.RunUntilIdle();
    }
    void BecomeHost()
    {
        aggregator->InitializeProtocols(SXCommon::HOST, "10.0.0.1");
        simulation.RunUntilIdle();
    }
    void Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status)
    {
        ASSERT_TRUE(IsWatched(guid) && Remote(guid)->SendHeartbeat(status)) << guid;
        simulation.RunUntilIdle();
    }
    void Answer(const std::string& guid, const std::string& json)
    {
        ASSERT_TRUE(IsWatched(guid) && Remote(guid)->AnswerText(kInfoPath, json)) << guid;
        simulation.RunUntilIdle();
    }
    /// Answers with information that has only the guid.
    void Answer(const std::string& guid)
    {
        Answer(guid, R"({"guid":")" + guid + R"("})");
    }

    /// Returns the connection to that product, null if none has been created.
    std::shared_ptr<FakeConnection> Remote(const std::string& guid) const
    {
        return portico.Find("DiscoveryServiceAggregator-" + guid);
    }
    /// True if the connection to that product is open.
    bool IsWatched(const std::string& guid) const
    {
        return Remote(guid) && Remote(guid)->IsOpen();
    }

    std::vector<std::string> Guids() const
    {
        Sonarix::ProductList list;
        list.add_products(); // GetProductList must remove it
        aggregator->GetProductList(list);
        std::vector<std::string> guids;
        std::transform(list.products().begin(), list.products().end(), std::back_inserter(guids),
                       [](const Sonarix::Product& product) { return product.productinfo().guid(); });
        return guids;
    }
    /// The listed product of that guid, or an empty record.
    Sonarix::Product Row(const std::string& guid) const
    {
        Sonarix::ProductList list;
        aggregator->GetProductList(list);
        const auto row =
            std::find_if(list.products().begin(), list.products().end(),
                         [&guid](const Sonarix::Product& one) { return one.productinfo().guid() == guid; });
        return row != list.products().end() ? *row : Sonarix::Product();
    }
    Sonarix::ProductInfo Own() const
    {
        Sonarix::ProductInfo own;
        aggregator->GetMyProductInfo([&own](const Sonarix::ProductInfo& info) { own = info; }, {});
        return own;
    }

    LogCapture log{"7"};
    IL::Simulation simulation{1};
    FakePortico portico;
    std::shared_ptr<FakeSsdpDiscoveryProtocol> ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    std::shared_ptr<FakeMdnsDiscoveryProtocol> mdns = std::make_shared<FakeMdnsDiscoveryProtocol>(ssdp->calls);
    std::shared_ptr<FakeController> controller = std::make_shared<FakeController>();
    NotifyTargetTaskIF* task = IL::CreateTask("DiscoveryServiceControllerTask", "");
    std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF> aggregator;
    std::vector<Sonarix::ProductList> lists; ///< received notifications
    std::vector<Sonarix::ProductInfo> infos;
};
