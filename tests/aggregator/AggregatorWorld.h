#pragma once

#include "DiscoveryServiceAggregatorIF.h"
#include "FakeDiscovery.h"
#include "FakePortico.h"
#include "LogCapture.h"
#include "Simulation.h"
#include "Sonarix.pb.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// The guid that the manufacturing data of every test process has.
inline const char* const kOwn = "m-own"; // so that there are guids before it and behind it
inline const char* const kInfoPath = "/sonarix/info";

/// A report as a discovery source makes it.
struct Report
{
    std::string guid = {};
    std::string name = {};
    std::string address = {};
    SXCommon::ProductState state = SXCommon::ONLINE;
    std::string type = "_kova-lanyard._tcp";
    std::string ecosystem = "ORB2";
    std::function<void(Sonarix::ProductInfo&)> more = {};

    Sonarix::Product By(const std::vector<SXCommon::DiscoveryProtocol>& protocols) const;
};

/// An aggregator with everything around it, in virtual time.
class AggregatorWorld
{
public:
    explicit AggregatorWorld(std::uint64_t seed = 1, const std::string& logLevels = "7");

    /// Makes the aggregator and subscribes to both of its registries.
    void Start();
    /// Start(), and the mode becomes known.
    void StartAs(SXCommon::ProductMode mode);

    // Each of these runs until nothing is queued any more.
    void Ssdp(const Report& report);
    void Mdns(const Report& report);
    void SetMode(SXCommon::ProductMode mode, const std::string& address = "10.0.0.1");
    void Heartbeat(const std::string& guid, PORTICO_CLIENT_ERRORS status);
    void Answer(const std::string& guid, const std::string& json);
    void Answer(const std::string& guid); ///< with that guid and nothing else

    /// Null where no connection to that product was ever made.
    std::shared_ptr<FakeConnection> Remote(const std::string& guid) const;
    bool IsWatched(const std::string& guid) const; ///< its connection is open

    Sonarix::ProductList List() const;
    std::vector<std::string> Guids() const;
    /// The listed product of that guid; an empty one where there is none.
    Sonarix::Product Row(const std::string& guid) const;
    Sonarix::ProductInfo Own() const;
    std::ptrdiff_t Logged(const std::string& part) const; ///< lines with it

    LogCapture log;
    IL::Simulation simulation;
    FakePortico portico;
    std::shared_ptr<FakeSsdpDiscoveryProtocol> ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    std::shared_ptr<FakeMdnsDiscoveryProtocol> mdns = std::make_shared<FakeMdnsDiscoveryProtocol>(ssdp->calls);
    std::shared_ptr<FakeController> controller = std::make_shared<FakeController>();
    NotifyTargetTaskIF* task;
    std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF> aggregator;
    std::vector<Sonarix::ProductList> lists; ///< notified so far
    std::vector<Sonarix::ProductInfo> infos;
};

/// A test that lives in such a world.
class AggregatorTest : public testing::Test, public AggregatorWorld
{
};
