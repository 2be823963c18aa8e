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

/// The guid that the manufacturing data of every test process has.
inline const char* const kOwn = "m-own"; // so that there are guids before it and behind it
inline const char* const kInfoPath = "/sonarix/info";

/// A report as a discovery source makes it, of a product that is there.
struct Report
{
    std::string guid;
    std::string name = {};
    std::function<void(Sonarix::ProductInfo&)> more = {};

    Sonarix::Product By(SXCommon::DiscoveryProtocol protocol) const;
};

/// An aggregator with everything around it, in virtual time.
struct AggregatorTest : testing::Test
{
    AggregatorTest();

    /// Makes the aggregator and subscribes to both of its registries.
    void Start();
    /// Start(), and the mode becomes known.
    void StartAsHost();

    // Each of these runs until nothing is queued any more.
    void Ssdp(const Report& report);
    void Mdns(const Report& report);
    void BecomeHost();
    void Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status);
    void Answer(const std::string& guid, const std::string& json);
    void Answer(const std::string& guid); ///< with that guid and nothing else

    /// Null where no connection to that product was ever made.
    std::shared_ptr<FakeConnection> Remote(const std::string& guid) const;
    bool IsWatched(const std::string& guid) const; ///< its connection is open

    std::vector<std::string> Guids() const;
    /// The listed product of that guid; an empty one where there is none.
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
    std::vector<Sonarix::ProductList> lists; ///< notified so far
    std::vector<Sonarix::ProductInfo> infos;
};
