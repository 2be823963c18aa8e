#include "MdnsWorker.h"

#include "FakeMdns.h"
#include "Simulation.h"
#include "Task.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

namespace
{

using Addresses = std::optional<std::vector<std::string>>;

class GatewayMdns : public testing::Test
{
protected:
    static MDNS::Service Product(const std::string& name, const std::string& guid, const std::string& address,
                                 const std::string& type = "_kova-lanyard._tcp")
    {
        return FakeMdns::MakeService(name, type, {{"GUID", guid}}, address);
    }
    std::shared_ptr<Addresses> Ask(const std::string& guid)
    {
        auto answer = std::make_shared<Addresses>();
        IL::BreakThread([this, guid, answer]
                        { m_worker->Find(guid, [answer](const auto& addresses) { *answer = addresses; }); },
                        m_task);
        return answer;
    }

    IL::Simulation m_simulation{11};
    FakeMdns m_mdns;
    NotifyTargetTaskIF* m_task = IL::CreateTask("PorticoGatewayMdns", "");
    std::shared_ptr<Gateway::MdnsWorker> m_worker = std::make_shared<Gateway::MdnsWorker>(m_task);
};

TEST_F(GatewayMdns, FindsTheRecordsOfAGuidAsTheyAreNow)
{
    m_mdns.Announce(Product("Kitchen", "g-1", "10.0.0.1"));
    m_mdns.Announce(Product("Bath", "g-2", "10.0.0.2", "_kova-accessory._tcp"));
    m_mdns.Announce(FakeMdns::MakeService("Clock", "_kova-clock._tcp", {{"GUID", "g-1"}}, "10.0.0.3"));
    auto answer = Ask("g-1");
    m_simulation.RunFor(100ms);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, ElementsAre("10.0.0.1"));
    answer = Ask("g-2");
    m_simulation.RunFor(100ms);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, ElementsAre("10.0.0.2"));

    m_mdns.Announce(Product("Kitchen", "g-1", "10.0.0.77")); // a new address, which no browser is told of
    m_mdns.Announce(Product("Liar", "g-1", "10.0.0.66"));
    m_simulation.RunFor(100ms);
    answer = Ask("g-1");
    m_simulation.RunFor(100ms);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, UnorderedElementsAre("10.0.0.77", "10.0.0.66"));
}

TEST_F(GatewayMdns, AnswersInTimeWhatNobodyKnows)
{
    auto first = Ask("g-1");
    m_simulation.RunFor(2400ms);
    EXPECT_FALSE(first->has_value()) << "a record may still come";
    m_simulation.RunFor(200ms);
    ASSERT_TRUE(first->has_value());
    EXPECT_THAT(**first, IsEmpty());
    auto second = Ask("g-1");
    m_simulation.RunFor(10ms);
    EXPECT_TRUE(second->has_value()) << "what browsing has not shown by now is not there";

    m_mdns.Announce(Product("Silent", "g-2", "10.0.0.2"));
    m_simulation.RunFor(100ms);
    m_mdns.SetAnswersResolves(false);
    auto third = Ask("g-2");
    m_simulation.RunFor(2600ms);
    ASSERT_TRUE(third->has_value());
    EXPECT_THAT(**third, ElementsAre("10.0.0.2")) << "the last that was known";
}

TEST_F(GatewayMdns, LeavesARecordAloneThatNobodyAnswersFor)
{
    m_mdns.Announce(Product("Kitchen", "g-1", "10.0.0.1"));
    Ask("g-1");
    m_simulation.RunFor(100ms);
    m_mdns.FallSilent("Kitchen", "_kova-lanyard._tcp");
    m_mdns.ClearCalls();
    for (int i = 0; i < 5; ++i) // the checks of a product that is away
    {
        auto answer = Ask("g-1");
        m_simulation.RunFor(2s);
        ASSERT_TRUE(answer->has_value());
        EXPECT_THAT(**answer, ElementsAre("10.0.0.1"));
    }
    EXPECT_THAT(m_mdns.Calls(), ElementsAre("resolve Kitchen"));
    m_mdns.Announce(Product("Kitchen", "g-1", "10.0.0.2"));
    m_simulation.RunFor(1s);
    auto answer = Ask("g-1");
    m_simulation.RunFor(100ms);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, ElementsAre("10.0.0.2"));
}

TEST_F(GatewayMdns, ComesBackAfterTheDaemonAndLivesWithoutABus)
{
    m_mdns.SetHasBus(false);
    auto answer = Ask("g-1");
    m_simulation.RunFor(10ms);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, IsEmpty());
    m_mdns.SetHasBus(true);
    m_simulation.RunFor(31s);
    m_mdns.Announce(Product("Kitchen", "g-1", "10.0.0.1"));
    answer = Ask("g-1");
    m_simulation.RunFor(100ms);
    ASSERT_TRUE(answer->has_value() && !(**answer).empty());

    auto unanswered = Ask("g-3");
    m_simulation.RunFor(10ms);
    m_mdns.KillDaemon();
    m_simulation.RunFor(10ms);
    ASSERT_TRUE(unanswered->has_value()) << "not left waiting";
    const int made = m_mdns.BrowsersMade();
    m_simulation.RunFor(60s);
    EXPECT_EQ(m_mdns.BrowsersMade(), made) << "nothing is made while nobody asks";
    m_mdns.StartDaemon();
    answer = Ask("g-1");
    m_simulation.RunFor(3s);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, ElementsAre("10.0.0.1"));
}

TEST_F(GatewayMdns, ResolvesAFewAtATime)
{
    m_mdns.SetAnswersResolves(false);
    for (int i = 0; i < 100; ++i)
    {
        m_mdns.Announce(Product("P" + std::to_string(i), "g-" + std::to_string(i), "10.0.1." + std::to_string(i)));
    }
    auto answer = Ask("g-99");
    m_simulation.RunFor(100ms);
    EXPECT_EQ(m_mdns.PendingResolves(), Gateway::MdnsWorker::kMaxResolves);
    m_mdns.SetAnswersResolves(true);
    m_mdns.AnswerResolves();
    m_simulation.RunFor(1s);
    ASSERT_TRUE(answer->has_value());
    EXPECT_THAT(**answer, ElementsAre("10.0.1.99"));
    m_worker->Stop();
}

} // namespace
