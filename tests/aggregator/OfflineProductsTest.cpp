// Products that stay away lose their connection, not their row; every six hours both sources are asked.

#include "tests/aggregator/AggregatorWorld.h"

#include <gmock/gmock.h>

#include <algorithm>

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST_F(AggregatorTest, EachHasItsOwnTimeAndTheTimerRunsInNoCircles)
{
    StartAsHost();
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
    const std::vector<LogCapture::Line> lines = log.Lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.m_text.find("Setting timer") != std::string::npos; }),
              1); // not until the second is over
    simulation.RunFor(599s);
    EXPECT_TRUE(IsWatched("a"));
    simulation.RunFor(1s);
    EXPECT_FALSE(IsWatched("a"));

    simulation.RunFor(1s);
    Ssdp({"c"}); // watched, OFFLINE, without a stamp
    Heartbeat("c", static_cast<PORTICO_CLIENT_ERRORS>(1042));
    EXPECT_TRUE(log.Contains("Product has timed out in the future?? Deering until then. Guid: a"));
    EXPECT_TRUE(log.Contains("Setting timer for next HandleReapOfflineProducts. Fires in 1800000 milliseconds "));
}

TEST_F(AggregatorTest, ALateAnswerToARefreshIsMergedByTheTaskAndAFailedRefreshIsNotTheLast)
{
    StartAsHost();
    ssdp->isListBroken = true;
    simulation.RunFor(6h);
    ssdp->isListBroken = false;
    EXPECT_THAT(*ssdp->calls, ElementsAre("ssdp GetProductList")) << "it threw";
    simulation.RunFor(6h);
    ASSERT_EQ(mdns->WaitingLists(), 1U);
    Ssdp({"b"}); // comes during the wait
    simulation.RunFor(1s);
    EXPECT_THAT(Guids(), ElementsAre("b"));

    Sonarix::ProductList list;
    *list.add_products() = Report{"a"}.By(SXCommon::MDNS);
    ASSERT_TRUE(mdns->AnswerList(list));
    EXPECT_THAT(Guids(), ElementsAre("b")) << "not on this task";
    simulation.RunUntilIdle();
    EXPECT_THAT(Guids(), ElementsAre("a", "b"));
    EXPECT_TRUE(IsWatched("a"));

    simulation.RunFor(12h + 10s); // answers that never come: the refresh goes on
    EXPECT_EQ(mdns->WaitingLists(), 2U);
}
