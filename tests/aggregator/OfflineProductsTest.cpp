// Products that stay away lose their connection, not their row; every six hours both sources are asked.

#include "AggregatorWorld.h"

#include "MonotonicClock.h"
#include "Task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

class OfflineProductsTest : public AggregatorTest
{
protected:
    void StartWithOnline(const std::vector<std::string>& guids)
    {
        m_world.StartAs(SXCommon::HOST);
        for (const std::string& guid : guids)
        {
            m_world.Ssdp(guid);
            m_world.Answer(guid);
        }
    }

    static std::string FiresIn(int ms)
    {
        return "Setting timer for next HandleReapOfflineProducts. Fires in " + std::to_string(ms) + " milliseconds ";
    }
};

using RefreshTest = AggregatorTest;

} // namespace

TEST_F(OfflineProductsTest, AProductIsGivenUpAfter1800SecondsAndStaysListed)
{
    StartWithOnline({"a"});
    LogLines log;
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    EXPECT_EQ(log.Count(FiresIn(1800000), 3), 1U);
    EXPECT_EQ(log.Count("secondsToNextTimeout = 1800.000000", 4), 1U);
    m_world.lists.clear();

    m_world.Pass(1799s);
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE); // does not extend the time
    EXPECT_TRUE(m_world.IsWatched("a"));
    EXPECT_EQ(log.Count(FiresIn(1000), 3), 1U);
    m_world.Pass(999ms);
    EXPECT_TRUE(m_world.IsWatched("a"));
    m_world.Pass(1ms);
    EXPECT_FALSE(m_world.IsWatched("a"));
    EXPECT_EQ(log.Count("Product has been offline too long, stop tracking its heartbeat! Guid: a", 3), 1U);
    EXPECT_EQ(log.Count("No products left offline! Not starting the Reap timer!", 3), 1U);
    EXPECT_EQ(m_world.State("a"), SXCommon::OFFLINE);
    EXPECT_THAT(m_world.lists, IsEmpty());

    log.Forget();
    m_world.Pass(5h);
    EXPECT_EQ(log.Count("HandleReapOfflineProducts"), 0U); // the timer is not running
}

TEST_F(OfflineProductsTest, AnAnswerInTimeEndsTheWatch)
{
    StartWithOnline({"a"});
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    m_world.Pass(1799s);
    m_world.Answer("a");
    LogLines log;
    m_world.Pass(5h);
    EXPECT_TRUE(m_world.IsWatched("a"));
    EXPECT_EQ(log.Count(""), 0U);

    m_world.Heartbeat("a", HEARTBEAT_OFFLINE); // the time begins anew
    m_world.Pass(1799s);
    EXPECT_TRUE(m_world.IsWatched("a"));
    m_world.Pass(1s);
    EXPECT_FALSE(m_world.IsWatched("a"));
}

TEST_F(OfflineProductsTest, SeveralProductsEachHaveTheirOwnTime)
{
    StartWithOnline({"a", "b"});
    m_world.Heartbeat("b", HEARTBEAT_OFFLINE);
    m_world.Pass(600s);
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    LogLines log;
    m_world.Pass(1200s);
    EXPECT_FALSE(m_world.IsWatched("b"));
    EXPECT_TRUE(m_world.IsWatched("a"));
    EXPECT_EQ(log.Count("Setting timer"), 1U); // does not run in circles until the second is over
    m_world.Pass(599s);
    EXPECT_TRUE(m_world.IsWatched("a"));
    m_world.Pass(1s);
    EXPECT_FALSE(m_world.IsWatched("a"));
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b"));
}

TEST_F(OfflineProductsTest, ANewProductWithoutAStampKeepsThePassGoing)
{
    StartWithOnline({"b"}); // its answer makes the first pass
    m_world.Ssdp("a");
    LogLines log;
    m_world.Heartbeat("b", 1042);
    EXPECT_EQ(log.Count("No devices are stamped as offline...waiting the max amount possible: 1800", 3), 1U);
    EXPECT_EQ(log.Count(FiresIn(1800000), 3), 1U);
    m_world.Pass(3600s);
    EXPECT_EQ(log.Count(FiresIn(1800000), 3), 3U);
    EXPECT_TRUE(m_world.IsWatched("a"));
}

TEST_F(OfflineProductsTest, AReportOfAGivenUpProductWatchesItUntilTheNextPassOrItsAnswer)
{
    StartWithOnline({"a", "b"});
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    m_world.Pass(1900s);
    ASSERT_FALSE(m_world.IsWatched("a"));

    LogLines log;
    const std::string pronounced = "Product a already pronounced dead by reaper. Don't try connecting to it";
    m_world.Ssdp("a", SXCommon::ONLINE);
    EXPECT_EQ(log.Count(pronounced), 0U);
    m_world.Ssdp("a", SXCommon::OFFLINE);
    EXPECT_EQ(log.Count(pronounced, 3), 1U);
    EXPECT_TRUE(m_world.IsWatched("a"));
    EXPECT_EQ(m_world.Queries("a"), 2U);
    m_world.Heartbeat("b", 1042); // any pass
    EXPECT_FALSE(m_world.IsWatched("a"));

    m_world.Ssdp("a");
    m_world.Answer("a");
    EXPECT_EQ(m_world.State("a"), SXCommon::ONLINE);
    m_world.Heartbeat("b", 1042);
    EXPECT_TRUE(m_world.IsWatched("a"));
}

TEST_F(OfflineProductsTest, AStampOfTheFarPastIsLeftOutOfTheCalculation)
{
    StartWithOnline({"a", "b"});
    m_world.Heartbeat("a", HEARTBEAT_OFFLINE);
    m_world.Pass(1801s);
    ASSERT_FALSE(m_world.IsWatched("a"));
    LogLines log;
    m_world.Ssdp("c"); // watched, OFFLINE, no stamp
    m_world.Heartbeat("b", 1042);
    EXPECT_EQ(log.Count("Product has timed out in the future?? Deering until then. Guid: a", 1), 1U);
    EXPECT_EQ(log.Count(FiresIn(1800000), 3), 1U);
}

TEST_F(RefreshTest, EverySixHoursSsdpIsAskedBeforeMdns)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.mdns->isStopped = true;
    m_world.Pass(6h - 1ms);
    EXPECT_THAT(*m_world.ssdp->calls, IsEmpty());
    m_world.Pass(1ms);
    EXPECT_THAT(*m_world.ssdp->calls, ElementsAre("ssdp GetProductList", "mdns GetProductList _kova-lanyard._tcp"));
    m_world.Pass(12h);
    EXPECT_EQ(m_world.ssdp->calls->size(), 6U);
}

TEST_F(RefreshTest, KnownRowsTakeTheAddressAndNewOnesTheStateOfTheSource)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Ssdp(Report{.guid = "known", .protocols = {SXCommon::SSDP}, .address = "1.1.1.1"}.Product());
    *m_world.ssdp->list.add_products() =
        Report{.guid = "known", .protocols = {SXCommon::SSDP}, .address = "2.2.2.2"}.Product();
    Sonarix::Product stranger = Report{.guid = "new", .protocols = {SXCommon::SSDP}, .name = "Ssdp"}.Product();
    stranger.mutable_productinfo()->set_ecosystem("other"); // the sources decide what they list
    *m_world.ssdp->list.add_products() = stranger;
    m_world.mdns->answerAtOnce.emplace();
    *m_world.mdns->answerAtOnce->add_products() =
        Report{.guid = "new", .state = SXCommon::OFFLINE, .protocols = {SXCommon::MDNS}, .name = "Mdns"}.Product();

    m_world.Pass(6h);
    EXPECT_EQ(m_world.Row("known").productinfo().ipaddress(), "2.2.2.2");
    EXPECT_EQ(m_world.State("known"), SXCommon::OFFLINE);
    EXPECT_EQ(m_world.Queries("known"), 1U);
    EXPECT_EQ(m_world.State("new"), SXCommon::ONLINE);
    EXPECT_EQ(m_world.Row("new").productinfo().friendlyname(), "Mdns");
    EXPECT_THAT(m_world.Row("new").protocols(), ElementsAre(SXCommon::SSDP, SXCommon::MDNS));
    EXPECT_EQ(m_world.Queries("new"), 1U);
    EXPECT_THAT(m_world.lists, IsEmpty());
}

TEST_F(RefreshTest, AnAnswerWithinASecondIsMergedInTheRefreshItself)
{
    m_world.StartAs(SXCommon::HOST);
    Sonarix::ProductList list;
    *list.add_products() = Report{.guid = "a", .protocols = {SXCommon::MDNS}}.Product();
    NotifyTargetTaskIF* const mdnsTask = IL::CreateTask("MdnsDiscoveryProtocolTask", "");
    m_world.simulation.Schedule(6h + 900ms,
                                [&]
                                {
                                    IL::BreakThread(
                                        [&]
                                        {
                                            ASSERT_TRUE(m_world.mdns->AnswerList(list));
                                            EXPECT_THAT(m_world.Guids(), IsEmpty()); // not on this task
                                        },
                                        mdnsTask);
                                });
    m_world.Pass(6h + 900ms);
    m_world.simulation.RunUntilIdle();
    EXPECT_THAT(m_world.Guids(), ElementsAre("a"));
    EXPECT_EQ(m_world.mdns->WaitingLists(), 0U);

    // The next one is six hours after the end of this one.
    m_world.Pass(6h - 1ms);
    EXPECT_EQ(m_world.mdns->WaitingLists(), 0U);
    m_world.Pass(1ms);
    EXPECT_EQ(m_world.mdns->WaitingLists(), 1U);
}

TEST_F(RefreshTest, ALateAnswerIsMergedByTheTaskAndAMissingOneIsNotWaitedFor)
{
    m_world.StartAs(SXCommon::HOST);
    m_world.Pass(6h);
    ASSERT_EQ(m_world.mdns->WaitingLists(), 1U);
    m_world.Ssdp("b"); // comes during the wait
    m_world.Pass(1s);
    EXPECT_THAT(m_world.Guids(), ElementsAre("b"));

    Sonarix::ProductList list;
    *list.add_products() = Report{.guid = "a", .protocols = {SXCommon::MDNS}}.Product();
    ASSERT_TRUE(m_world.mdns->AnswerList(list));
    EXPECT_THAT(m_world.Guids(), ElementsAre("b")); // posted
    m_world.simulation.RunUntilIdle();
    EXPECT_THAT(m_world.Guids(), ElementsAre("a", "b"));
    EXPECT_TRUE(m_world.IsWatched("a"));

    m_world.Pass(12h + 10s); // answers that never come: the refresh goes on
    EXPECT_EQ(m_world.mdns->WaitingLists(), 2U);
}
