// What the product says about itself, and who may say it.

#include "AggregatorWorld.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <stdexcept>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

using OwnProductInfoTest = AggregatorTest;

Sonarix::Product OwnReport()
{
    return Report{.guid = kOwn, .protocols = {SXCommon::SSDP}, .name = "Me"}.Product();
}

} // namespace

TEST_F(OwnProductInfoTest, ASubscriberGetsThePresentInformationAtOnce)
{
    m_world.Start();
    ASSERT_EQ(m_world.infos.size(), 1U);
    const Sonarix::ProductInfo& first = m_world.infos.front();
    EXPECT_EQ(first.guid(), kOwn);
    EXPECT_TRUE(first.has_ipaddress());
    EXPECT_EQ(first.ipaddress(), "");
    EXPECT_TRUE(first.has_capabilities());
    EXPECT_TRUE(first.has_multiroom());
    EXPECT_EQ(first.configurations().currentproductmode(), SXCommon::UNKNOWN_MODE);

    m_world.aggregator->RegisterForMyProductInfo({}); // an empty subscriber is legal
    m_world.aggregator->GetMyProductInfo({}, {});
    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    EXPECT_EQ(m_world.infos.size(), 2U);
    EXPECT_EQ(m_world.infos.back().ipaddress(), "10.0.0.1");
    EXPECT_EQ(m_world.infos.back().configurations().currentproductmode(), SXCommon::HOST);
}

TEST_F(OwnProductInfoTest, AnUnchangedStatusIsNoNewsAndANewAddressAloneChangesNoTable)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    m_world.Ssdp("a");
    m_world.Ssdp(OwnReport());
    m_world.infos.clear();
    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    EXPECT_THAT(m_world.infos, IsEmpty());

    m_world.SetMode(SXCommon::HOST, "10.0.0.2");
    ASSERT_EQ(m_world.infos.size(), 1U);
    EXPECT_EQ(m_world.infos.back().ipaddress(), "10.0.0.2");
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", kOwn));
    EXPECT_TRUE(m_world.IsWatched("a"));
}

TEST_F(OwnProductInfoTest, WifiBandsAreListedSortedAndReplaced)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.aggregator->SetSupportedWifiBands({"WIFI_RADIO_BAND_5GHZ", "WIFI_RADIO_BAND_2_4GHZ"});
    m_world.aggregator->SetSupportedWifiBands({"WIFI_RADIO_BAND_6GHZ", "WIFI_RADIO_BAND_5GHZ"});
    ASSERT_EQ(m_world.infos.size(), 2U);
    EXPECT_THAT(m_world.infos.front().capabilities().supportedwifibands(),
                ElementsAre("WIFI_RADIO_BAND_2_4GHZ", "WIFI_RADIO_BAND_5GHZ"));
    EXPECT_THAT(m_world.Own().capabilities().supportedwifibands(),
                ElementsAre("WIFI_RADIO_BAND_5GHZ", "WIFI_RADIO_BAND_6GHZ"));
}

TEST_F(OwnProductInfoTest, AnOwnReportMayNotSayWhatOnlyWeKnow)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    Sonarix::Product capabilities = OwnReport();
    capabilities.mutable_productinfo()->mutable_capabilities();
    Sonarix::Product children = OwnReport();
    children.mutable_productinfo()->add_children();
    Sonarix::Product configurations = OwnReport();
    configurations.mutable_productinfo()->mutable_configurations();
    Sonarix::Product all = capabilities;
    all.mutable_productinfo()->add_children();
    all.mutable_productinfo()->mutable_configurations();

    const LogLines log;
    for (const Sonarix::Product& bad : {capabilities, children, configurations, all})
    {
        m_world.Ssdp(bad);
        EXPECT_EQ(m_world.Own().friendlyname(), "");
        EXPECT_THAT(m_world.Guids(), IsEmpty());
        EXPECT_THAT(m_world.infos, IsEmpty());
    }
    EXPECT_EQ(log.Count("my product info has capabilities - that's bad!", 1), 2U);
    EXPECT_EQ(log.Count("my product info has children - that's bad", 1), 1U);
    EXPECT_EQ(log.Count("my product info has configurations - that's bad", 1), 1U);
    EXPECT_THROW(m_world.aggregator->HandleProductInfoAdvertisement(children.productinfo()), std::logic_error);

    m_world.Ssdp("a"); // the task lives on
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
    m_world.Ssdp(OwnReport());
    EXPECT_EQ(m_world.Own().friendlyname(), "Me");
}

TEST_F(OwnProductInfoTest, AnOwnReportIsMergedButForWhatWeKnowBetter)
{
    m_world.StartAs(SXCommon::HOST, "10.0.0.1");
    Sonarix::Product report = OwnReport();
    report.mutable_productinfo()->set_ipaddress("9.9.9.9");
    report.mutable_productinfo()->mutable_multiroom()->mutable_zonecontrol_version()->set_major_version(7);
    for (int width = 1; width <= 2; ++width)
    {
        report.mutable_productinfo()->clear_icons();
        for (const char* const url : {"/b", "/a"})
        {
            SXCommon::Icon& icon = *report.mutable_productinfo()->add_icons();
            icon.set_url(url);
            icon.set_width(width);
        }
        m_world.Ssdp(report);
    }
    EXPECT_EQ(m_world.infos.size(), 2U);
    const Sonarix::ProductInfo own = m_world.Own();
    EXPECT_EQ(own.friendlyname(), "Me");
    EXPECT_EQ(own.ipaddress(), "10.0.0.1");
    EXPECT_FALSE(own.multiroom().has_zonecontrol_version());
    ASSERT_EQ(own.icons_size(), 2);
    EXPECT_EQ(own.icons(0).url(), "/a");
    EXPECT_EQ(own.icons(0).width(), 2);
}

TEST_F(OwnProductInfoTest, AnAdvertisementLoopsBackOnlyWhileTheModeIsUnknown)
{
    const LogLines log;
    m_world.Start();
    m_world.infos.clear();
    m_world.aggregator->HandleProductInfoAdvertisement(AggregatorWorld::Info("a", "Other"));
    EXPECT_EQ(log.Count("Ignoring advertisements of products not my own...How did this even happen", 1), 1U);
    EXPECT_FALSE(m_world.Remote(kOwn));
    EXPECT_THAT(m_world.infos, IsEmpty());

    m_world.aggregator->HandleProductInfoAdvertisement(AggregatorWorld::Info(kOwn, "Me"));
    EXPECT_EQ(m_world.Queries(kOwn), 1U);
    EXPECT_THAT(m_world.Guids(), IsEmpty()); // its answer makes the row
    ASSERT_EQ(m_world.infos.size(), 1U);
    EXPECT_EQ(m_world.infos.back().friendlyname(), "Me");

    m_world.SetMode(SXCommon::HOST, "10.0.0.1");
    EXPECT_EQ(m_world.Queries(kOwn), 1U); // a new connection, asked once
    m_world.aggregator->HandleProductInfoAdvertisement(AggregatorWorld::Info(kOwn, "Renamed"));
    EXPECT_EQ(m_world.Queries(kOwn), 1U);
    EXPECT_EQ(m_world.Own().friendlyname(), "Renamed");
}

TEST_F(OwnProductInfoTest, ANameThatIsNotUtf8StopsNoNotification)
{
    m_world.StartAs(SXCommon::HOST);
    const LogLines log;
    m_world.Ssdp(Report{.guid = kOwn, .protocols = {SXCommon::SSDP}, .name = "\xff\xfe"}.Product());
    EXPECT_EQ(m_world.infos.size(), 1U);
    EXPECT_EQ(log.Count("", 1), 0U);
    m_world.Ssdp(Report{.guid = "a", .protocols = {SXCommon::SSDP}, .name = "\xff"}.Product());
    m_world.Answer("a");
    EXPECT_EQ(m_world.lists.size(), 1U);
}

// Manufacturing data are read once a process.
TEST(OwnGuidDeathTest, AMachineWithoutAGuidHasAFixedOne)
{
    testing::FLAGS_gtest_death_test_style = "threadsafe";
    const auto run = []
    {
        setenv("SONARIX_MFG_DATA", "/nonexistent", 1);
        AggregatorWorld world;
        world.StartAs(SXCommon::HOST, "10.0.0.1");
        const char* const guid = "guid.is.not.set.perhaps.x86";
        world.Ssdp(Report{.guid = guid, .protocols = {SXCommon::SSDP}, .name = "Me"}.Product());
        std::exit(world.Own().guid() == guid && world.Own().friendlyname() == "Me" ? 0 : 1);
    };
    EXPECT_EXIT(run(), testing::ExitedWithCode(0), "");
}
