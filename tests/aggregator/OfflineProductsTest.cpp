// Products that stay away lose their connection, not their row; every six hours both sources are asked.

#include "AggregatorWorld.h"
#include "Task.h"

#include <gmock/gmock.h>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

TEST_F(AggregatorTest, EachHasItsOwnTimeAndTheTimerRunsInNoCircles)
{
    StartAs(SXCommon::HOST);
    for (const char* const guid : {"a", "b"})
    {
        Ssdp({guid});
        Answer(guid);
    }
    Heartbeat("b", HEARTBEAT_OFFLINE);
    simulation.RunFor(600s);
    Heartbeat("a", HEARTBEAT_OFFLINE);
    log.Clear();
    simulation.RunFor(1200s);
    EXPECT_FALSE(IsWatched("b"));
    EXPECT_EQ(Logged("Setting timer"), 1); // not until the second is over
    simulation.RunFor(599s);
    EXPECT_TRUE(IsWatched("a"));
    simulation.RunFor(1s);
    EXPECT_FALSE(IsWatched("a"));
    EXPECT_THAT(Guids(), ElementsAre("a", "b"));

    simulation.RunFor(1s);
    Ssdp({"c"}); // watched, OFFLINE, without a stamp
    Heartbeat("c", static_cast<PORTICO_CLIENT_ERRORS>(1042));
    EXPECT_TRUE(log.Contains("Product has timed out in the future?? Deering until then. Guid: a"));
    EXPECT_TRUE(log.Contains("Setting timer for next HandleReapOfflineProducts. Fires in 1800000 milliseconds "));
}

TEST_F(AggregatorTest, EverySixHoursSsdpIsAskedBeforeMdnsWhichMayAnswerWithinASecond)
{
    StartAs(SXCommon::HOST);
    Sonarix::ProductList list;
    *list.add_products() = Report{"a"}.By({SXCommon::MDNS});
    NotifyTargetTaskIF* const mdnsTask = IL::CreateTask("MdnsDiscoveryProtocolTask", "");
    const auto answer = [&]
    {
        ASSERT_TRUE(mdns->AnswerList(list));
        EXPECT_THAT(Guids(), IsEmpty()); // not on this task
    };
    simulation.Schedule(6h + 900ms, [&] { IL::BreakThread(answer, mdnsTask); });
    simulation.RunFor(6h - 1ms);
    EXPECT_THAT(*ssdp->calls, IsEmpty());
    simulation.RunFor(901ms);
    simulation.RunUntilIdle();
    EXPECT_THAT(*ssdp->calls, ElementsAre("ssdp GetProductList", "mdns GetProductList _kova-lanyard._tcp"));
    EXPECT_THAT(Guids(), ElementsAre("a"));

    simulation.RunFor(6h - 1ms); // from the end of this one
    EXPECT_EQ(ssdp->calls->size(), 2U);
    ssdp->isListBroken = true;
    simulation.RunFor(1ms);
    ssdp->isListBroken = false;
    EXPECT_EQ(ssdp->calls->size(), 3U); // it threw; the next refresh comes nevertheless
    simulation.RunFor(6h);
    EXPECT_EQ(ssdp->calls->size(), 5U);
}

TEST_F(AggregatorTest, ALateAnswerIsMergedByTheTaskAndAMissingOneIsNotWaitedFor)
{
    StartAs(SXCommon::HOST);
    Sonarix::ProductList list;
    *list.add_products() = Report{"a"}.By({SXCommon::MDNS});
    simulation.RunFor(6h);
    ASSERT_EQ(mdns->WaitingLists(), 1U);
    Ssdp({"b"}); // comes during the wait
    simulation.RunFor(1s);
    EXPECT_THAT(Guids(), ElementsAre("b"));

    ASSERT_TRUE(mdns->AnswerList(list));
    EXPECT_THAT(Guids(), ElementsAre("b")); // posted
    simulation.RunUntilIdle();
    EXPECT_THAT(Guids(), ElementsAre("a", "b"));
    EXPECT_TRUE(IsWatched("a"));

    simulation.RunFor(12h + 10s); // answers that never come: the refresh goes on
    EXPECT_EQ(mdns->WaitingLists(), 2U);
}
