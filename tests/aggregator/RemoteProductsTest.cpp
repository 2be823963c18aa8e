// Connections to products: who is asked, and what answers, pushes and heartbeats do.

#include "AggregatorWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

const char* const kInfoPath = "/sonarix/info";

using RemoteProductsTest = AggregatorTest;

} // namespace

TEST_F(RemoteProductsTest, OneConnectionAndOneSubscriptionAProductAndAQueryAReport)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Mdns("a");
    ASSERT_EQ(m_world.portico.Made("DiscoveryServiceAggregator-a").size(), 1U);
    const auto remote = m_world.Remote("a");
    EXPECT_EQ(remote->host, "localhost");
    EXPECT_EQ(remote->port, 8084);
    EXPECT_EQ(remote->guid, "a");
    EXPECT_EQ(remote->Subscriptions(kInfoPath), 1U);
    EXPECT_THAT(remote->Log(), ElementsAre("SUBSCRIBE /sonarix/info", "GET /sonarix/info", "GET /sonarix/info"));
    EXPECT_EQ(remote->Requests(kInfoPath).front().version, 1.0);
}

TEST_F(RemoteProductsTest, TheSubProtocolFollowsTheOwnMode)
{
    m_world.Start();
    m_world.Ssdp("a");
    EXPECT_EQ(m_world.Remote("a")->subProtocol, "tarsier");
    const std::pair<SXCommon::ProductMode, const char*> expected[] = {
        {SXCommon::SETUP, "tarsier_mTLS"}, {SXCommon::HOST, "tarsier"}, {SXCommon::ACCESSORY, "tarsier_mTLS"}};
    for (const auto& [mode, protocol] : expected)
    {
        m_world.SetMode(mode);
        EXPECT_FALSE(m_world.IsWatched("a")); // a connection of the old mode does not survive
        m_world.Ssdp("a");
        EXPECT_EQ(m_world.Remote("a")->subProtocol, protocol);
    }
}

TEST_F(RemoteProductsTest, AnswersAndPushesTakeTheSameWayAndEachIsNews)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(Report{.guid = "a", .protocols = {SXCommon::SSDP}, .name = "Found"}.Product());
    m_world.Answer("a", AggregatorWorld::Info("a", "Told"));
    m_world.Remote("a")->Push(kInfoPath, AggregatorWorld::Info("a", "Pushed"));
    m_world.simulation.RunUntilIdle();
    m_world.Remote("a")->PushText(kInfoPath, "{ no JSON");
    m_world.simulation.RunUntilIdle();
    ASSERT_EQ(m_world.lists.size(), 2U);
    EXPECT_EQ(m_world.lists[0].products(0).productinfo().friendlyname(), "Told");
    EXPECT_EQ(m_world.lists[1].products(0).productinfo().friendlyname(), "Pushed");
    EXPECT_EQ(m_world.lists[1].products(0).state(), SXCommon::ONLINE);
    EXPECT_EQ(m_world.Row("a").productinfo().ecosystem(), "ORB2"); // merged over what discovery said
}

TEST_F(RemoteProductsTest, AFailedQueryIsLoggedAndChangesNothing)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    const LogLines log;
    m_world.Remote("a")->Fail(kInfoPath, 503, 17, "not reachable", "x");
    m_world.simulation.RunUntilIdle();
    m_world.Ssdp("a");
    m_world.Remote("a")->AnswerText(kInfoPath, "[1]");
    m_world.simulation.RunUntilIdle();
    EXPECT_EQ(log.Count("Error getting remote product info (delays device going online) from remote guid: a. "
                        "Reason: |not reachable| subcode: |17|",
                        1),
              1U);
    EXPECT_EQ(log.Count("| subcode: |2005|", 1), 1U);
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);
    EXPECT_TRUE(m_world.IsWatched("a"));
    EXPECT_THAT(m_world.lists, IsEmpty());
}

TEST_F(RemoteProductsTest, TheGuidInTheAnswerCountsNotTheOneAsked)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Answer("a", AggregatorWorld::Info("b", "Somebody else"));
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.State("b"), SXCommon::ONLINE);
    EXPECT_FALSE(m_world.Remote("b"));

    m_world.Ssdp("a");
    m_world.Answer("a", Sonarix::ProductInfo()); // nobody
    EXPECT_THAT(m_world.Guids(), ElementsAre("", "a", "b"));
}

TEST_F(RemoteProductsTest, TheOwnRowShowsTheOwnInformationWhateverTheAnswer)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    m_world.aggregator->SetSupportedWifiBands({"band"});
    m_world.Child(Portico::Verb::POST, Report{.guid = "child"}.Product());
    m_world.Ssdp(kOwn);
    m_world.Ssdp("a");

    Sonarix::ProductInfo lie = AggregatorWorld::Info(kOwn, "Impostor");
    lie.set_ipaddress("6.6.6.6");
    lie.mutable_configurations()->set_currentproductmode(SXCommon::SETUP);
    lie.mutable_capabilities()->add_supportedwifibands("other");
    lie.mutable_multiroom()->mutable_zonecontrol_version();
    lie.add_children()->set_guid("no");
    m_world.Answer("a", lie); // a neighbour that says that it is us
    const Sonarix::ProductInfo own = m_world.Row(kOwn).productinfo();
    EXPECT_EQ(m_world.State(kOwn), SXCommon::ONLINE);
    EXPECT_EQ(own.friendlyname(), m_world.Own().friendlyname());
    EXPECT_EQ(own.ipaddress(), "10.0.0.1");
    EXPECT_EQ(own.configurations().currentproductmode(), SXCommon::HOST);
    EXPECT_THAT(own.capabilities().supportedwifibands(), ElementsAre("band"));
    EXPECT_FALSE(own.multiroom().has_zonecontrol_version());
    ASSERT_EQ(own.children_size(), 1);
    EXPECT_EQ(own.children(0).guid(), "child");
}

TEST_F(RemoteProductsTest, HeartbeatsMakeOfflineOnceAndNeverOnline)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(Report{.guid = "a", .protocols = {SXCommon::SSDP}, .name = "Kitchen"}.Product());
    m_world.Answer("a");
    m_world.lists.clear();
    const LogLines log;

    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    ASSERT_EQ(m_world.lists.size(), 1U);
    EXPECT_EQ(m_world.lists.back().products(0).state(), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.Queries("a"), 2U);
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    EXPECT_EQ(m_world.lists.size(), 1U);
    EXPECT_EQ(m_world.Queries("a"), 3U);
    EXPECT_EQ(log.Count("Heartbeat says device Kitchen is OFFLINE. Guid: a", 3), 2U);

    m_world.Heartbeat("a", HEARTBEAT_ONLINE);
    EXPECT_EQ(log.Count("Heartbeat says device Kitchen is ONLINE. Guid: a", 3), 1U);
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.Queries("a"), 4U);
    EXPECT_EQ(m_world.lists.size(), 1U);

    m_world.Heartbeat("a", 1042);
    EXPECT_EQ(m_world.Queries("a"), 4U);
    EXPECT_EQ(log.Count("Potential product to reap: a", 3), 4U); // the pass runs after each of the four

    m_world.Answer("a");
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
    EXPECT_EQ(m_world.lists.size(), 2U);
    m_world.Heartbeat("a", HEARTBEAT_ONLINE);
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
    EXPECT_EQ(m_world.lists.size(), 2U);
}
