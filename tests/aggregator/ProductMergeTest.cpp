#include "ProductMerge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;

namespace
{

void AddIcon(Sonarix::ProductInfo& info, const std::string& url, int width)
{
    SXCommon::Icon& icon = *info.add_icons();
    icon.set_url(url);
    icon.set_width(width);
}

void AddService(Sonarix::ProductInfo& info, const std::string& id, const std::string& type)
{
    SXCommon::Service& service = *info.add_services();
    service.set_serviceid(id);
    service.set_servicetype(type);
}

} // namespace

TEST(ProductMergeTest, ALaterReportWinsForTheFieldsThatItSets)
{
    Sonarix::ProductInfo older;
    older.set_friendlyname("Kitchen");
    older.set_modelname("M1");
    older.mutable_multiroom()->mutable_grouping_version()->set_major_version(3);
    Sonarix::ProductInfo later;
    later.set_friendlyname("Bath");
    later.mutable_multiroom()->mutable_grouping_version()->set_minor_version(4);

    const Sonarix::ProductInfo merged = MergeProductInfo(older, later);
    EXPECT_EQ(merged.friendlyname(), "Bath");
    EXPECT_EQ(merged.modelname(), "M1");
    EXPECT_EQ(merged.multiroom().grouping_version().major_version(), 3);
    EXPECT_EQ(merged.multiroom().grouping_version().minor_version(), 4);
}

TEST(ProductMergeTest, IconsAndServicesAreOneAKeySortedAndTheLatestOne)
{
    Sonarix::ProductInfo older;
    AddIcon(older, "/c", 1);
    AddIcon(older, "/a", 2);
    AddIcon(older, "/a", 3);
    AddService(older, "s2", "old");
    AddService(older, "s1", "old");
    Sonarix::ProductInfo later;
    AddIcon(later, "/c", 4);
    AddIcon(later, "/b", 5);
    AddService(later, "s2", "new");

    const Sonarix::ProductInfo merged = MergeProductInfo(older, later);
    std::vector<std::string> icons;
    for (const SXCommon::Icon& icon : merged.icons())
    {
        icons.push_back(icon.url() + " " + std::to_string(icon.width()));
    }
    EXPECT_THAT(icons, ElementsAre("/a 3", "/b 5", "/c 4"));
    std::vector<std::string> services;
    for (const SXCommon::Service& service : merged.services())
    {
        services.push_back(service.serviceid() + " " + service.servicetype());
    }
    EXPECT_THAT(services, ElementsAre("s1 old", "s2 new"));
}

TEST(ProductMergeTest, CapabilitiesAreReplacedWholeAndOnlyWhereTheyAreSet)
{
    Sonarix::ProductInfo older;
    older.mutable_capabilities()->set_hasbattery(true);
    older.mutable_capabilities()->add_supportedwifibands("band");
    Sonarix::ProductInfo later;
    EXPECT_TRUE(MergeProductInfo(older, later).capabilities().hasbattery());
    EXPECT_EQ(MergeProductInfo(older, later).capabilities().supportedwifibands_size(), 1);

    later.mutable_capabilities()->add_supportedwifibands("band");
    EXPECT_FALSE(MergeProductInfo(older, later).capabilities().has_hasbattery());
    EXPECT_EQ(MergeProductInfo(older, later).capabilities().supportedwifibands_size(), 1);
}

TEST(ProductMergeTest, ChildrenAreAlwaysThoseOfTheLaterReport)
{
    Sonarix::ProductInfo older;
    older.add_children()->set_guid("a");
    Sonarix::ProductInfo later;
    EXPECT_EQ(MergeProductInfo(older, later).children_size(), 0);
    later.add_children()->set_guid("b");
    ASSERT_EQ(MergeProductInfo(older, later).children_size(), 1);
    EXPECT_EQ(MergeProductInfo(older, later).children(0).guid(), "b");
}

TEST(ProductMergeTest, AProductSeenByBothSourcesHasBothProtocolsOnceAndAscending)
{
    Sonarix::Product older;
    older.add_protocols(SXCommon::MDNS);
    older.mutable_productinfo()->set_friendlyname("Kitchen");
    older.mutable_serviceid()->set_type("_kova-lanyard._tcp");
    Sonarix::Product later;
    later.add_protocols(SXCommon::SSDP);
    later.add_protocols(SXCommon::MDNS);

    const Sonarix::Product merged = MergeProducts(older, later);
    EXPECT_THAT(merged.protocols(), ElementsAre(SXCommon::SSDP, SXCommon::MDNS));
    EXPECT_EQ(merged.productinfo().friendlyname(), "Kitchen"); // an absent record changes nothing
    EXPECT_EQ(merged.serviceid().type(), "_kova-lanyard._tcp");
}
