// Reaping of offline products and the refresh every 6 hours.

#include "tests/aggregator/AggregatorWorld.h"

#include <gmock/gmock.h>

#include <algorithm>

using namespace std::chrono_literals;
using testing::ElementsAre;

TEST_F(AggregatorTest, OfflineProductsExpireSeparatelyWithoutTimerLoop)
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
              1); // the next pass waits for the next second
    simulation.RunFor(599s);
    EXPECT_TRUE(IsWatched("a"));
    simulation.RunFor(1s);
    EXPECT_FALSE(IsWatched("a"));

    simulation.RunFor(1s);
    Ssdp({"c"}); // OFFLINE with a client, without a stamp
    Heartbeat("c", static_cast<PORTICO_CLIENT_ERRORS>(1042));
    EXPECT_TRUE(log.Contains("Product has timed out in the future?? Deering until then. Guid: a"));
    EXPECT_TRUE(log.Contains("Setting timer for next HandleReapOfflineProducts. Fires in 1800000 milliseconds "));
}

TEST_F(AggregatorTest, RefreshMergesLateAnswerOnTaskAndSurvivesFailure)
{
    StartAsHost();
    ssdp->isListBroken = true;
    simulation.RunFor(6h);
    ssdp->isListBroken = false;
    EXPECT_THAT(*ssdp->calls, ElementsAre("ssdp GetProductList")) << "the exception skips mDNS";
    simulation.RunFor(6h);
    ASSERT_EQ(mdns->WaitingLists(), 1U);
    Ssdp({"b"}); // queued during the wait
    simulation.RunFor(1s);
    EXPECT_THAT(Guids(), ElementsAre("b"));

    Sonarix::ProductList list;
    *list.add_products() = Report{"a"}.By(SXCommon::MDNS);
    ASSERT_TRUE(mdns->AnswerList(list));
    EXPECT_THAT(Guids(), ElementsAre("b")) << "the answer is posted to the task";
    simulation.RunUntilIdle();
    EXPECT_THAT(Guids(), ElementsAre("a", "b"));
    EXPECT_TRUE(IsWatched("a"));

    simulation.RunFor(12h + 10s); // without answers the refresh goes on
    EXPECT_EQ(mdns->WaitingLists(), 2U);
}
