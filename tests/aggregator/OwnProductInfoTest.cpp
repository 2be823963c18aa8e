// The own information: its sources, its subscribers, and reports that are refused.

#include "tests/aggregator/AggregatorWorld.h"

#include <gmock/gmock.h>

#include <stdexcept>

using testing::ElementsAre;
using testing::IsEmpty;
using Info = Sonarix::ProductInfo;

TEST_F(AggregatorTest, SubscriberGetsCurrentInformationThenOnlyChanges)
{
    Start();
    ASSERT_EQ(infos.size(), 1U);
    EXPECT_EQ(infos[0].ShortDebugString(), R"(ipaddress: "" guid: "m-own" multiroom { } capabilities { } )"
                                           R"(configurations { currentProductMode: UNKNOWN_MODE })");

    aggregator->RegisterForMyProductInfo({}); // an empty subscriber is legal
    aggregator->GetMyProductInfo({}, {});
    BecomeHost();
    BecomeHost();
    aggregator->SetSupportedWifiBands({"5GHZ", "2_4GHZ"});
    aggregator->SetSupportedWifiBands({"6GHZ", "5GHZ"});
    ASSERT_EQ(infos.size(), 4U);
    EXPECT_EQ(infos[1].ipaddress(), "10.0.0.1");
    EXPECT_THAT(infos[2].capabilities().supportedwifibands(), ElementsAre("2_4GHZ", "5GHZ"));
    EXPECT_THAT(infos[3].capabilities().supportedwifibands(), ElementsAre("5GHZ", "6GHZ")); // replaced
}

TEST_F(AggregatorTest, OwnReportWithReservedFieldIsRefused)
{
    StartAsHost();
    const std::pair<const char*, std::function<void(Info&)>> faults[] = {
        {"capabilities", [](Info& info) { info.mutable_capabilities(); }},
        {"children", [](Info& info) { info.add_children(); }},
        {"configurations", [](Info& info) { info.mutable_configurations(); }},
    };
    for (const auto& [what, fault] : faults)
    {
        log.Clear();
        const Report bad{.guid = kOwn, .name = "Me", .more = fault};
        Ssdp(bad);
        EXPECT_TRUE(log.Contains(std::string("my product info has ") + what + " - that's bad"));
        EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U);
        EXPECT_THROW(aggregator->HandleProductInfoAdvertisement(bad.By(SXCommon::SSDP).productinfo()),
                     std::logic_error);
    }
    EXPECT_EQ(Own().friendlyname(), "");
    EXPECT_THAT(Guids(), IsEmpty());
    aggregator->HandleProductInfoAdvertisement(Report{"a", "Other"}.By(SXCommon::SSDP).productinfo());
    EXPECT_TRUE(log.Contains("Ignoring advertisements of products not my own...How did this even happen"));
    EXPECT_THAT(infos, IsEmpty());

    // Address and versions of an own report are ignored.
    const auto known = [](Info& info)
    {
        info.set_ipaddress("9.9.9.9");
        info.mutable_multiroom()->mutable_zonecontrol_version();
    };
    Ssdp({kOwn, "Me", known});
    EXPECT_EQ(Own().friendlyname(), "Me");
    EXPECT_EQ(Own().ipaddress(), "10.0.0.1");
    EXPECT_FALSE(Own().multiroom().has_zonecontrol_version());
}

TEST_F(AggregatorTest, BadHeldBackReportStopsNeitherPlaybackNorModeChange)
{
    Start();
    Mdns({.guid = kOwn, .more = [](Info& info) { info.mutable_configurations(); }});
    Mdns({"a", "First"});
    Mdns({"a", "Second"});
    EXPECT_THAT(Guids(), IsEmpty());
    log.Clear();
    BecomeHost();
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U) << log.Text();
    EXPECT_TRUE(log.Contains("my product info has configurations - that's bad"));
    EXPECT_EQ(Row("a").productinfo().friendlyname(), "Second");
    EXPECT_EQ(infos.back().configurations().currentproductmode(), SXCommon::HOST);
}

TEST_F(AggregatorTest, NameThatIsNotUtf8IsNotified)
{
    StartAsHost();
    Ssdp({kOwn, "\xff\xfe"});
    EXPECT_EQ(infos.size(), 1U);
    Ssdp({"a", "\xff"});
    Answer("a");
    EXPECT_EQ(lists.size(), 1U);
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U);
}
