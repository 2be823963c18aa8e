// What reports and children do to the table, and what the list shows.

#include "AggregatorWorld.h"
#include "DiscoveryServiceAggregator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

constexpr auto SSDP = SXCommon::SSDP;
constexpr auto MDNS = SXCommon::MDNS;

using ProductTableTest = AggregatorTest;

} // namespace

TEST_F(ProductTableTest, AnEmptyTableGivesAnEmptyList)
{
    m_world.Start();
    EXPECT_EQ(m_world.List().products_size(), 0);
    EXPECT_THAT(m_world.lists, IsEmpty()); // a subscriber gets nothing until the next change
}

TEST_F(ProductTableTest, ReportsOfOtherFamiliesAndServicesAreDropped)
{
    m_world.StartAs(SXCommon::HOST);
    Sonarix::Product stranger = Report{.guid = "a", .protocols = {SSDP}}.Product();
    for (const char* const family : {"", "orb2", "ORB2 "})
    {
        stranger.mutable_productinfo()->set_ecosystem(family);
        m_world.Ssdp(stranger);
    }
    m_world.Mdns(Report{.guid = "b", .protocols = {MDNS}, .type = "_kova-clock._tcp"}.Product());
    m_world.Mdns(Report{.guid = "b", .protocols = {MDNS}, .type = ""}.Product());
    EXPECT_THAT(m_world.Guids(), IsEmpty());

    // Seen by SSDP too, or not said by whom: the service type does not matter.
    m_world.Mdns(Report{.guid = "c", .protocols = {SSDP, MDNS}, .type = "other"}.Product());
    m_world.Ssdp(Report{.guid = "d", .protocols = {SSDP}, .type = ""}.Product());
    m_world.Mdns(Report{.guid = "e", .protocols = {}, .type = ""}.Product());
    EXPECT_THAT(m_world.Guids(), ElementsAre("c", "d", "e"));

    // Also where the product is tracked already.
    m_world.Mdns(Report{.guid = "c", .protocols = {MDNS}, .name = "No", .type = "_kova-clock._tcp"}.Product());
    EXPECT_EQ(m_world.Row("c").productinfo().friendlyname(), "");
    EXPECT_EQ(m_world.Queries("c"), 1U);
}

TEST_F(ProductTableTest, AReportNeverChangesStateOrAddress)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(Report{.guid = "a", .protocols = {SSDP}, .address = "1.1.1.1", .name = "Old"}.Product());
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);

    m_world.Answer("a");
    ASSERT_EQ(m_world.State("a"), SXCommon::ONLINE);
    const std::size_t notified = m_world.lists.size();
    m_world.Mdns(
        Report{.guid = "a", .state = SXCommon::OFFLINE, .protocols = {MDNS}, .address = "2.2.2.2", .name = "New"}
            .Product());
    const Sonarix::Product row = m_world.Row("a");
    EXPECT_EQ(row.state(), SXCommon::ONLINE);
    EXPECT_EQ(row.productinfo().ipaddress(), "1.1.1.1");
    EXPECT_EQ(row.productinfo().friendlyname(), "New");
    EXPECT_THAT(row.protocols(), ElementsAre(SSDP, MDNS));
    EXPECT_EQ(m_world.lists.size(), notified); // discovery alone is no news

    // The product's own word is.
    Sonarix::ProductInfo moved = AggregatorWorld::Info("a");
    moved.set_ipaddress("3.3.3.3");
    m_world.Answer("a", moved);
    EXPECT_EQ(m_world.Row("a").productinfo().ipaddress(), "3.3.3.3");
    EXPECT_EQ(m_world.lists.size(), notified + 1);
}

TEST_F(ProductTableTest, ARowWithoutAnAddressDoesNotGetOneFromAReport)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.Ssdp(Report{.guid = "a", .protocols = {SSDP}, .address = "2.2.2.2"}.Product());
    EXPECT_FALSE(m_world.Row("a").productinfo().has_ipaddress());
}

TEST_F(ProductTableTest, MdnsReportsWaitUntilTheModeIsKnown)
{
    m_world.Start();
    m_world.Mdns("b");
    m_world.Mdns("a");
    m_world.Ssdp("a");
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
    EXPECT_THAT(m_world.Row("a").protocols(), ElementsAre(SSDP));

    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b"));
    EXPECT_THAT(m_world.Row("a").protocols(), ElementsAre(SSDP, MDNS));
    EXPECT_EQ(m_world.Remote("b")->subProtocol, "tarsier");
}

TEST_F(ProductTableTest, AChildIsListedLastAndAsItWasPosted)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(Report{.guid = "a", .protocols = {SSDP}, .name = "Tracked"}.Product());
    m_world.Ssdp("b");
    m_world.Child(Portico::Verb::POST, Report{.guid = "a", .address = "9.9.9.9", .name = "Child"}.Product());
    EXPECT_THAT(m_world.Guids(), ElementsAre("b", "a"));
    EXPECT_EQ(m_world.Row("a").productinfo().friendlyname(), "Child");
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
    EXPECT_EQ(m_world.lists.size(), 1U);
    ASSERT_EQ(m_world.infos.size(), 1U);
    ASSERT_EQ(m_world.infos.back().children_size(), 1);
    EXPECT_EQ(m_world.infos.back().children(0).friendlyname(), "Child");

    // Wholesale, not merged; and no connection of its own.
    m_world.Child(Portico::Verb::PUT, Report{.guid = "a", .state = SXCommon::OFFLINE}.Product());
    EXPECT_EQ(m_world.Row("a").productinfo().friendlyname(), "");
    EXPECT_FALSE(m_world.Row("a").productinfo().has_ipaddress());
    m_world.Child(Portico::Verb::POST, Report{.guid = "c"}.Product());
    EXPECT_FALSE(m_world.Remote("c"));
    EXPECT_THAT(m_world.Guids(), ElementsAre("b", "a", "c"));

    m_world.Child(Portico::Verb::DELETE, Report{.guid = "a"}.Product());
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b", "c"));
    EXPECT_EQ(m_world.Row("a").productinfo().friendlyname(), "Tracked");
    EXPECT_EQ(m_world.lists.size(), 4U);
    EXPECT_EQ(m_world.infos.back().children_size(), 1);
}

TEST_F(ProductTableTest, AChildIsNotHeldBackButMustBeOfTheFamily)
{
    m_world.Start();
    Sonarix::Product child = Report{.guid = "a"}.Product();
    child.mutable_productinfo()->set_ecosystem("other");
    EXPECT_FALSE(m_world.Child(Portico::Verb::POST, child)->isError); // acknowledged all the same
    EXPECT_THAT(m_world.Guids(), IsEmpty());
    m_world.Child(Portico::Verb::POST, Report{.guid = "a"}.Product());
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
}

TEST_F(ProductTableTest, RemovingAnUnknownChildIsNoNews)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    const LogLines log;
    m_world.Child(Portico::Verb::DELETE, Report{.guid = "a"}.Product());
    EXPECT_EQ(log.Count("Child product with guid a not found in our children list. Not removing.", 2), 1U);
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
    EXPECT_THAT(m_world.lists, IsEmpty());
    EXPECT_THAT(m_world.infos, IsEmpty());
}

TEST_F(ProductTableTest, AChildReportForTheOwnGuidMakesUsAChildOfOurselves)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    m_world.Child(Portico::Verb::POST, Report{.guid = kOwn, .address = "9.9.9.9", .name = "Me"}.Product());
    EXPECT_EQ(m_world.Own().friendlyname(), "Me");
    EXPECT_EQ(m_world.Own().ipaddress(), "10.0.0.1");
    ASSERT_EQ(m_world.Own().children_size(), 1);
    EXPECT_EQ(m_world.Own().children(0).guid(), kOwn);
    EXPECT_THAT(m_world.Guids(), ElementsAre(kOwn));
    EXPECT_EQ(m_world.infos.size(), 2U); // the self update, then the child
}

TEST_F(ProductTableTest, TheOwnProductIsTrackedLikeAnyOther)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    m_world.Mdns(Report{.guid = kOwn, .protocols = {MDNS}, .address = "9.9.9.9", .name = "Me"}.Product());
    EXPECT_EQ(m_world.Own().friendlyname(), "Me");
    EXPECT_EQ(m_world.Own().ipaddress(), "10.0.0.1");
    EXPECT_EQ(m_world.State(kOwn), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.Queries(kOwn), 1U);
    EXPECT_EQ(m_world.infos.size(), 1U);
}

TEST_F(ProductTableTest, ABuildWithoutASourceRunsAndTakesItUpWhenItIsThere)
{
    m_world.controller->ssdp = nullptr;
    m_world.controller->mdns = nullptr;
    m_world.StartAs(SXCommon::HOST);
    m_world.Pass(std::chrono::hours(7)); // a refresh with nobody to ask
    m_world.controller->mdns = m_world.mdns;
    m_world.SetMode(SXCommon::HOST);
    m_world.SetMode(SXCommon::HOST);
    EXPECT_EQ(m_world.mdns->registrations, 1);
    EXPECT_EQ(m_world.ssdp->registrations, 0);
    m_world.Mdns("a");
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
}

TEST_F(ProductTableTest, AfterShutdownNothingComesInOrGoesOut)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp("a");
    m_world.aggregator->Shutdown();
    m_world.aggregator->Shutdown();
    m_world.Ssdp("b");
    m_world.Mdns("c");
    m_world.Answer("a");
    m_world.aggregator->SetSupportedWifiBands({"x"});
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
    EXPECT_THAT(m_world.lists, IsEmpty());
    EXPECT_THAT(m_world.infos, IsEmpty());
    EXPECT_FALSE(m_world.portico.Find("DiscoveryServiceOverPortico")->IsOpen());
}

TEST(CreateAggregatorTest, TheOverrideFactoryComesFirst)
{
    using SonarixService::DiscoveryServiceAggregator;
    static int s_calls = 0;
    DiscoveryServiceAggregator::SetFactoryOverride(
        [](NotifyTargetTaskIF*, const std::shared_ptr<SonarixService::DiscoveryServiceControllerIF>&)
            -> std::shared_ptr<SonarixService::DiscoveryServiceAggregatorIF>
        {
            ++s_calls;
            return nullptr;
        });
    EXPECT_FALSE(DiscoveryServiceAggregator::Create(nullptr, nullptr));
    DiscoveryServiceAggregator::SetFactoryOverride(nullptr);
    EXPECT_EQ(s_calls, 1);
}
