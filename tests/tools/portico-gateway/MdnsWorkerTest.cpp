#include "tools/portico-gateway/MdnsWorker.h"

#include "runtime/Task.h"
#include "runtime/engine/Simulation.h"
#include "tests/fakes/FakeMdns.h"

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
using testing::Optional;
using testing::UnorderedElementsAre;

namespace
{

using Addresses = std::optional<std::vector<std::string>>;

class GatewayMdns : public testing::Test
{
protected:
    void Announce(const std::string& name, const std::string& guid, const std::string& address,
                  const std::string& type = "_kova-lanyard._tcp")
    {
        m_mdns.Announce(FakeMdns::MakeService(name, type, {{"GUID", guid}}, address));
    }
    std::shared_ptr<Addresses> StartFind(const std::string& guid)
    {
        auto answer = std::make_shared<Addresses>();
        IL::BreakThread([this, guid, answer]
                        { m_worker->Find(guid, [answer](const auto& addresses) { *answer = addresses; }); },
                        m_task);
        return answer;
    }
    /// The answer, if it came within `time`.
    Addresses Find(const std::string& guid, std::chrono::milliseconds time = 100ms)
    {
        const auto answer = StartFind(guid);
        m_simulation.RunFor(time);
        return *answer;
    }

    IL::Simulation m_simulation{11};
    FakeMdns m_mdns;
    NotifyTargetTaskIF* m_task = IL::CreateTask("PorticoGatewayMdns", "");
    std::shared_ptr<Gateway::MdnsWorker> m_worker = std::make_shared<Gateway::MdnsWorker>(m_task);
};

TEST_F(GatewayMdns, FindReturnsTheCurrentAddresses)
{
    Announce("Kitchen", "g-1", "10.0.0.1");
    Announce("Bath", "g-2", "10.0.0.2", "_kova-accessory._tcp");
    Announce("Clock", "g-1", "10.0.0.3", "_kova-clock._tcp");
    EXPECT_THAT(Find("g-1"), Optional(ElementsAre("10.0.0.1")));
    EXPECT_THAT(Find("g-2"), Optional(ElementsAre("10.0.0.2")));
    Announce("Kitchen", "g-1", "10.0.0.77"); // a new address, which browsing does not report
    Announce("Liar", "g-1", "10.0.0.66");
    m_simulation.RunFor(100ms);
    EXPECT_THAT(Find("g-1"), Optional(UnorderedElementsAre("10.0.0.77", "10.0.0.66")));
}

TEST_F(GatewayMdns, UnknownGuidIsAnsweredAtTheLimit)
{
    const auto first = StartFind("g-1");
    m_simulation.RunFor(2400ms);
    EXPECT_FALSE(first->has_value()) << "a record may still appear";
    m_simulation.RunFor(200ms);
    EXPECT_THAT(*first, Optional(IsEmpty()));
    EXPECT_TRUE(Find("g-1", 10ms)) << "browsing is complete, so the answer is immediate";

    Announce("Silent", "g-2", "10.0.0.2");
    m_simulation.RunFor(100ms);
    m_mdns.SetAnswersResolves(false);
    EXPECT_THAT(Find("g-2", 2600ms), Optional(ElementsAre("10.0.0.2"))) << "the last known address";
}

TEST_F(GatewayMdns, FailedResolveIsNotRepeatedFor10s)
{
    Announce("Kitchen", "g-1", "10.0.0.1");
    Find("g-1");
    m_mdns.FallSilent("Kitchen", "_kova-lanyard._tcp");
    m_mdns.ClearCalls();
    for (int i = 0; i < 5; ++i) // as the checks of an absent product do
    {
        EXPECT_THAT(Find("g-1", 2s), Optional(ElementsAre("10.0.0.1")));
    }
    EXPECT_THAT(m_mdns.Calls(), ElementsAre("resolve Kitchen"));
    Announce("Kitchen", "g-1", "10.0.0.2");
    m_simulation.RunFor(1s);
    EXPECT_THAT(Find("g-1"), Optional(ElementsAre("10.0.0.2")));
}

TEST_F(GatewayMdns, LostDaemonOrBusIsReplacedAtTheNextQuery)
{
    m_mdns.SetHasBus(false);
    EXPECT_THAT(Find("g-1", 10ms), Optional(IsEmpty()));
    m_mdns.SetHasBus(true);
    m_simulation.RunFor(31s);
    Announce("Kitchen", "g-1", "10.0.0.1");
    EXPECT_THAT(Find("g-1"), Optional(ElementsAre("10.0.0.1")));

    const auto unanswered = StartFind("g-3");
    m_simulation.RunFor(10ms);
    m_mdns.KillDaemon();
    m_simulation.RunFor(10ms);
    EXPECT_TRUE(unanswered->has_value()) << "the query must end";
    const int made = m_mdns.BrowsersMade();
    m_simulation.RunFor(60s);
    EXPECT_EQ(m_mdns.BrowsersMade(), made) << "no backend without a query";
    m_mdns.StartDaemon();
    EXPECT_THAT(Find("g-1", 3s), Optional(ElementsAre("10.0.0.1")));
}

TEST_F(GatewayMdns, ConcurrentResolvesAreLimited)
{
    m_mdns.SetAnswersResolves(false);
    for (int i = 0; i < 100; ++i)
    {
        Announce("P" + std::to_string(i), "g-" + std::to_string(i), "10.0.1." + std::to_string(i));
    }
    const auto answer = StartFind("g-99");
    m_simulation.RunFor(100ms);
    EXPECT_EQ(m_mdns.PendingResolves(), Gateway::MdnsWorker::kMaxResolves);
    m_mdns.SetAnswersResolves(true);
    m_mdns.AnswerResolves();
    m_simulation.RunFor(1s);
    EXPECT_THAT(*answer, Optional(ElementsAre("10.0.1.99")));
    m_worker->Stop();
}

} // namespace
