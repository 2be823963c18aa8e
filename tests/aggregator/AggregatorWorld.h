#pragma once

#include "interfaces/DiscoveryServiceAggregatorIF.h"
#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"
#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <functional>
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
    AggregatorTest();

    /// Creates the aggregator and subscribes to both of its registries.
    void Start();
    /// Start(), then BecomeHost().
    void StartAsHost();

    // Each of these runs until all queues are empty.
    void Ssdp(const Report& report);
    void Mdns(const Report& report);
    void BecomeHost();
    void Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status);
    void Answer(const std::string& guid, const std::string& json);
    void Answer(const std::string& guid); ///< with only that guid

    /// Null if no connection to that product has been created.
    std::shared_ptr<FakeConnection> Remote(const std::string& guid) const;
    bool IsWatched(const std::string& guid) const; ///< its connection is open

    std::vector<std::string> Guids() const;
    /// The listed product of that guid, or an empty record.
    Sonarix::Product Row(const std::string& guid) const;
    Sonarix::ProductInfo Own() const;

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
