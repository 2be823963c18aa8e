// A change of the own mode resets nearly all of what is known of others.

#include "AggregatorWorld.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(AggregatorTest, TheOwnRowStaysWithTheNewModeAndTheLoopBackIsMadeAnew)
{
    StartAs(SXCommon::HOST);
    for (const char* const guid : {"a", kOwn, "z"})
    {
        Ssdp({guid});
        Answer(guid);
    }
    const auto oldOwn = Remote(kOwn);
    SetMode(SXCommon::ACCESSORY);
    EXPECT_THAT(Guids(), ElementsAre(kOwn));
    EXPECT_EQ(Row(kOwn).state(), SXCommon::ONLINE);
    EXPECT_EQ(Row(kOwn).productinfo().configurations().currentproductmode(), SXCommon::ACCESSORY);
    EXPECT_FALSE(IsWatched("a") || IsWatched("z") || oldOwn->IsOpen());
    EXPECT_EQ(Remote(kOwn)->subProtocol, "tarsier_mTLS");
    lists.clear();
    ASSERT_TRUE(Remote(kOwn)->PushText(kInfoPath, R"({"guid":"m-own"})")); // it is subscribed anew
    simulation.RunUntilIdle();
    EXPECT_EQ(lists.size(), 1U);

    Ssdp({"a"}); // the others come back by their next report
    EXPECT_EQ(Row("a").state(), SXCommon::OFFLINE);
    Answer("a");
    EXPECT_EQ(Row("a").state(), SXCommon::ONLINE);
}

TEST_F(AggregatorTest, PlaybackRunsInOrderAfterTheLoopBackWhateverOneReportHolds)
{
    Start();
    aggregator->HandleProductInfoAdvertisement(Report{kOwn}.By({}).productinfo());
    Mdns({"b"});
    Mdns({"a", "First"});
    Mdns({.guid = kOwn, .more = [](Sonarix::ProductInfo& info) { info.mutable_configurations(); }});
    Mdns({"a", "Second"});
    EXPECT_THAT(Guids(), IsEmpty());

    log.Clear();
    SetMode(SXCommon::HOST);
    std::vector<std::string> made;
    for (const auto& connection : portico.Made())
    {
        made.push_back(connection->guid);
    }
    EXPECT_THAT(made, ElementsAre("", kOwn, kOwn, "b", "a"));
    EXPECT_EQ(Row("a").productinfo().friendlyname(), "Second");
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U) << log.Text();
    EXPECT_TRUE(log.Contains("my product info has configurations - that's bad"));
    EXPECT_EQ(infos.back().ipaddress(), "10.0.0.1"); // and the rest of the change took place
    EXPECT_EQ(infos.back().configurations().currentproductmode(), SXCommon::HOST);

    SetMode(SXCommon::UNKNOWN_MODE);
    Mdns({"c"});
    SetMode(SXCommon::ACCESSORY);
    EXPECT_THAT(Guids(), ElementsAre("a", "b", "c"));
    SetMode(SXCommon::HOST);
    EXPECT_EQ(Logged("Done playing-back any mDNS updates we received while initializing"), 2); // nothing twice
}
