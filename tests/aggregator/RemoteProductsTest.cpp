// Connections to products: how they are asked, and what children do beside them.

#include "AggregatorWorld.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

TEST_F(AggregatorTest, AnswersAndPushesAreNewsAndMalformedOnesChangeNothing)
{
    StartAs(SXCommon::HOST);
    Ssdp({"a", "Found"});
    Mdns({"a"});
    EXPECT_EQ(Remote("a")->port, 8084);
    EXPECT_THAT(Remote("a")->Log(), ElementsAre("SUBSCRIBE /sonarix/info", "GET /sonarix/info", "GET /sonarix/info"));

    Remote("a")->Fail(kInfoPath, 503, 17, "not reachable");
    Answer("a", "[1]");
    Remote("a")->PushText(kInfoPath, "{ no JSON");
    simulation.RunUntilIdle();
    EXPECT_EQ(Logged("Error getting remote product info (delays device going online) from remote guid: a. "
                     "Reason: |not reachable| subcode: |17|"),
              1);
    EXPECT_EQ(Logged("| subcode: |2005|"), 1);
    EXPECT_EQ(Row("a").state(), SXCommon::OFFLINE);
    EXPECT_TRUE(IsWatched("a"));
    EXPECT_TRUE(lists.empty());

    Ssdp({"a"});
    Answer("a", R"({"guid":"a","friendlyname":"Told"})");
    Remote("a")->PushText(kInfoPath, R"({"guid":"a","friendlyname":"Pushed"})");
    simulation.RunUntilIdle();
    ASSERT_EQ(lists.size(), 2U);
    EXPECT_EQ(lists[0].products(0).productinfo().friendlyname(), "Told");
    EXPECT_EQ(lists[1].products(0).productinfo().friendlyname(), "Pushed");
    EXPECT_EQ(Row("a").productinfo().ecosystem(), "ORB2"); // merged over what discovery said
}

TEST_F(AggregatorTest, NoNeighbourGrowsItsRowBeyondWhatAListCanHold)
{
    StartAs(SXCommon::HOST);
    Ssdp({"a"});
    Answer("a", R"({"guid":"a","friendlyname":")" + std::string(70000, 'x') + R"("})");
    EXPECT_TRUE(lists.empty());
    EXPECT_EQ(Logged("The information of a takes 70"), 1);

    for (int report = 0; report < 200; ++report)
    {
        const std::string number = std::to_string(report);
        Remote("a")->PushText(kInfoPath, R"({"guid":"a","icons":[{"url":"/)" + number +
                                             R"("}],"services":[{"serviceid":")" + number + R"("}]})");
        simulation.RunUntilIdle();
    }
    EXPECT_LE(Row("a").productinfo().icons_size(), 64);
    EXPECT_LE(Row("a").productinfo().services_size(), 64);
    EXPECT_EQ(Row("a").state(), SXCommon::ONLINE);
}

TEST_F(AggregatorTest, AChildIsListedAsItWasPostedInPlaceOfItsRow)
{
    StartAs(SXCommon::HOST);
    Ssdp({"a", "Tracked"});
    Ssdp({"b"});
    const Sonarix::Product child = Report{"a", "Child", "9.9.9.9"}.By({});
    Child(Portico::Verb::POST, child);
    EXPECT_THAT(Guids(), ElementsAre("b", "a"));
    EXPECT_EQ(Row("a").ShortDebugString(), child.ShortDebugString());
    EXPECT_EQ(Own().children(0).ShortDebugString(), child.productinfo().ShortDebugString());
    Child(Portico::Verb::DELETE, child);
    EXPECT_EQ(Row("a").productinfo().friendlyname(), "Tracked");
    EXPECT_EQ(Own().children_size(), 0);

    Child(Portico::Verb::DELETE, child); // unknown by now: no news
    EXPECT_TRUE(log.Contains("Child product with guid a not found in our children list. Not removing."));
    EXPECT_EQ(lists.size(), 2U);
    ASSERT_EQ(infos.size(), 2U);
    EXPECT_EQ(infos[0].children_size(), 1);
    EXPECT_EQ(infos[1].children_size(), 0);
}
