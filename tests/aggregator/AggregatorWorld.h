#pragma once

#include "DiscoveryServiceAggregatorIF.h"
#include "FakeDiscovery.h"
#include "FakePortico.h"
#include "LogCapture.h"
#include "Simulation.h"
#include "Sonarix.pb.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

/// The guid that the manufacturing data of every test process has.
inline const char* const kOwn = "m-own"; // so that there are guids before it and behind it

/// Log lines while it lives, with everything switched on.
class LogLines
{
public:
    std::size_t Count(const std::string& part, int level = 0) const; ///< level 0: any
    void Forget()
    {
        m_capture.Clear();
    }

private:
    struct QuietAfterwards
    {
        ~QuietAfterwards();
    };
    QuietAfterwards m_quiet;
    LogCapture m_capture{"7"};
};

/// A report as a discovery source makes it.
struct Report
{
    std::string guid = {};
    SXCommon::ProductState state = SXCommon::ONLINE;
    std::vector<SXCommon::DiscoveryProtocol> protocols = {};
    std::string address = {};
    std::string name = {};
    std::string type = "_kova-lanyard._tcp";

    Sonarix::Product Product() const;
};

/// An aggregator with everything around it, in virtual time.
class AggregatorWorld
{
public:
    explicit AggregatorWorld(std::uint64_t seed = 1);
    ~AggregatorWorld();
    AggregatorWorld(const AggregatorWorld&) = delete;
    AggregatorWorld& operator=(const AggregatorWorld&) = delete;

    /// Makes the aggregator and subscribes to both of its registries.
    void Start();
    /// Start(), and the mode becomes known.
    void StartAs(SXCommon::ProductMode mode, const std::string& address = "10.0.0.1");

    // Each of these runs until nothing is queued any more.
    void Ssdp(const Sonarix::Product& product);
    void Mdns(const Sonarix::Product& product);
    void Ssdp(const std::string& guid, SXCommon::ProductState state = SXCommon::ONLINE);
    void Mdns(const std::string& guid, SXCommon::ProductState state = SXCommon::ONLINE);
    std::shared_ptr<const FakeAnswer> Child(Portico::Verb verb, const Sonarix::Product& product);
    void SetMode(SXCommon::ProductMode mode);
    void SetMode(SXCommon::ProductMode mode, const std::string& address);
    void Heartbeat(const std::string& guid, int status);
    void Answer(const std::string& guid, const Sonarix::ProductInfo& info);
    void Answer(const std::string& guid); ///< with that guid and nothing else
    void Pass(std::chrono::milliseconds duration);

    /// Null where no connection to that product was ever made.
    std::shared_ptr<FakeConnection> Remote(const std::string& guid) const;
    bool IsWatched(const std::string& guid) const; ///< its connection is open
    std::size_t Queries(const std::string& guid) const;

    Sonarix::ProductList List() const;
    std::vector<std::string> Guids() const;
    /// The listed product of that guid; an empty one where there is none.
    Sonarix::Product Row(const std::string& guid) const;
    SXCommon::ProductState State(const std::string& guid) const;
    Sonarix::ProductInfo Own() const;
    static Sonarix::ProductInfo Info(const std::string& guid, const std::string& name = {});

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

class AggregatorTest : public testing::Test
{
protected:
    AggregatorWorld m_world;
};
