// A change of the own mode resets nearly all of what is known of others.

#include "AggregatorWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using ModeChangeTest = AggregatorTest;

} // namespace

TEST_F(ModeChangeTest, WithTheOwnRowInTheTableAllOthersGo)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Ssdp(kOwn);
    m_world.Ssdp("z");
    m_world.Answer("a");
    m_world.Answer(kOwn);
    const auto oldOwn = m_world.Remote(kOwn);
    EXPECT_EQ(oldOwn->subProtocol, "tarsier");

    m_world.SetMode(SXCommon::ACCESSORY);
    EXPECT_THAT(m_world.Guids(), ElementsAre(kOwn));
    EXPECT_EQ(m_world.State(kOwn), SXCommon::ONLINE);
    EXPECT_EQ(m_world.Row(kOwn).productinfo().configurations().currentproductmode(), SXCommon::ACCESSORY);
    EXPECT_FALSE(m_world.IsWatched("a"));
    EXPECT_FALSE(m_world.IsWatched("z"));

    // The loop-back connection is made anew, for the sub-protocol of the new mode.
    EXPECT_FALSE(oldOwn->IsOpen());
    ASSERT_TRUE(m_world.IsWatched(kOwn));
    EXPECT_EQ(m_world.Remote(kOwn)->subProtocol, "tarsier_mTLS");
    EXPECT_EQ(m_world.Remote(kOwn)->Subscriptions("/sonarix/info"), 1U);

    // The others come back by their next report, from OFFLINE.
    m_world.Ssdp("a");
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.Remote("a")->subProtocol, "tarsier_mTLS");
    m_world.Answer("a");
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
}

TEST_F(ModeChangeTest, WithoutTheOwnRowTheTableStaysAndOnlyTheConnectionsGo)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Ssdp("b");
    m_world.Answer("a");
    m_world.Heartbeat("b", HEARTBEAT_OFFLINE);
    m_world.lists.clear();

    m_world.SetMode(SXCommon::SETUP);
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b"));
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
    EXPECT_FALSE(m_world.IsWatched("a"));
    EXPECT_FALSE(m_world.IsWatched("b"));
    EXPECT_FALSE(m_world.Remote(kOwn));
    EXPECT_THAT(m_world.lists, IsEmpty());
    EXPECT_EQ(m_world.infos.size(), 1U);

    // b's stamp is still there: after its time is over, a new connection lasts until the next pass.
    m_world.Pass(std::chrono::seconds(1800));
    m_world.Ssdp("b");
    EXPECT_TRUE(m_world.IsWatched("b"));
    m_world.Heartbeat("b", HEARTBEAT_ONLINE);
    EXPECT_FALSE(m_world.IsWatched("b"));
}

TEST_F(ModeChangeTest, TheReapTimerStopsUntilTheNextPass)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Answer("a");
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE); // arms it
    m_world.SetMode(SXCommon::SETUP);
    m_world.Ssdp("a");
    m_world.Pass(std::chrono::hours(2));
    EXPECT_TRUE(m_world.IsWatched("a")); // expired, but no pass has run
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    EXPECT_FALSE(m_world.IsWatched("a"));
}

TEST_F(ModeChangeTest, PlaybackRunsInOrderAfterTheLoopBackAndOnlyOutOfUnknownMode)
{
    m_world.Start();
    m_world.aggregator->HandleProductInfoAdvertisement(AggregatorWorld::Info(kOwn));
    m_world.Mdns("b");
    m_world.Mdns(Report{.guid = "a", .protocols = {SXCommon::MDNS}, .name = "First"}.Product());
    m_world.Mdns(Report{.guid = "a", .protocols = {SXCommon::MDNS}, .name = "Second"}.Product());
    EXPECT_THAT(m_world.Guids(), IsEmpty());

    const LogLines log;
    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    std::vector<std::string> made;
    for (const auto& connection : m_world.portico.Made())
    {
        made.push_back(connection->guid);
    }
    EXPECT_THAT(made, ElementsAre("", kOwn, kOwn, "b", "a"));
    EXPECT_EQ(m_world.Row("a").productinfo().friendlyname(), "Second");
    EXPECT_EQ(log.Count("Playing-back any mDNS updates we received while initializing", 3), 1U);
    EXPECT_EQ(log.Count("Done playing-back any mDNS updates we received while initializing", 3), 1U);

    m_world.SetMode(SXCommon::UNKNOWN_MODE); // forgets nobody, as the own row is not there
    m_world.Mdns("c");
    m_world.SetMode(SXCommon::ACCESSORY);
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b", "c"));
    m_world.SetMode(SXCommon::HOST);
    EXPECT_EQ(log.Count("Playing-back"), 2U); // nothing twice
}

TEST_F(ModeChangeTest, OneBadReportDoesNotCostThePlaybackOfTheOthers)
{
    m_world.Start();
    m_world.Mdns("a");
    Sonarix::Product bad = Report{.guid = kOwn, .protocols = {SXCommon::MDNS}}.Product();
    bad.mutable_productinfo()->mutable_configurations();
    m_world.Mdns(bad);
    m_world.Mdns("b");

    const LogLines log;
    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b"));
    EXPECT_EQ(log.Count("my product info has configurations - that's bad", 1), 1U);
    EXPECT_EQ(m_world.infos.back().ipaddress(), "10.0.0.1"); // and the rest of the change took place
    EXPECT_EQ(m_world.infos.back().configurations().currentproductmode(), SXCommon::HOST);
}

TEST_F(ModeChangeTest, AHeartbeatThatWasOnItsWayLeavesARowWithoutInformation)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(kOwn);
    m_world.Ssdp("a");
    const LogLines log;
    m_world.Remote("a")->SendHeartbeat(HEARTBEAT_OFFLINE); // posted, not handled yet
    m_world.SetMode(SXCommon::ACCESSORY);
    EXPECT_THAT(m_world.Guids(), ElementsAre("", kOwn));
    EXPECT_EQ(log.Count("No PorticoClient for guid |a|", 1), 1U);

    // The empty place counts as a connection: reports ask, in vain, until a mode change.
    m_world.Ssdp("a");
    EXPECT_EQ(log.Count("No PorticoClient for guid |a|", 1), 2U);
    EXPECT_FALSE(m_world.IsWatched("a"));
    m_world.SetMode(SXCommon::HOST);
    m_world.Ssdp("a");
    EXPECT_TRUE(m_world.IsWatched("a"));
    m_world.Answer("a");
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
}
