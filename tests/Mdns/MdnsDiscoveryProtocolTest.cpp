#include "Mdns/MdnsDiscoveryProtocol.h"

#include "runtime/ConditionSemaphore.h"
#include "schemas/Sonarix.pb.h"
#include "tests/Mdns/MdnsServiceFixture.h"
#include "tests/support/RealTask.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <atomic>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace
{

SonarixPb::Service MakeMessage(const std::string& name, const std::string& type = "_a._tcp", int port = 1)
{
    SonarixPb::Service message;
    google::protobuf::TextFormat::ParseFromString(
        R"(id { interface: -1 protocol: INET6 domain: "local" } txt { key: "K" value: "V" })", &message);
    message.mutable_id()->set_name(name);
    message.mutable_id()->set_type(type);
    message.set_address(port);
    return message;
}

/// The protocol object and the mDNS logic on the simulated engine. The object waits for the end of its task when it
/// goes, so the task ends first.
class MdnsDiscoveryProtocolTest : public testing::Test
{
protected:
    ~MdnsDiscoveryProtocolTest() override
    {
        m_protocol->Stop();
        m_simulation.RunUntilIdle(); // what the stop has posted frees the logic
        IL::StopTask(m_factory.m_task);
        m_protocol.reset();
    }
    std::vector<std::string> Update(const SonarixPb::Service& service)
    {
        std::vector<std::string> answers;
        m_protocol->UpdateServiceTxtRecords(service, [&answers](const bool& result)
                                            { answers.emplace_back(result ? "true" : "false"); });
        return answers;
    }
    std::vector<std::string> News()
    {
        m_simulation.RunUntilIdle();
        return ::News(m_mdns);
    }

    LogCapture m_log;
    IL::Simulation m_simulation{1};
    FakeMdns m_mdns;
    RememberingFactory m_factory;
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_protocol = MdnsDiscoveryProtocol::Create();
};

TEST_F(MdnsDiscoveryProtocolTest, WhatIsParkedIsReplayedInItsOrderAndOnceOnly)
{
    m_simulation.RunUntilIdle();
    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Main"));
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("Y", "_y._tcp", 0x7FFF0000 + 8090)));
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("Z", "_z._tcp")));
    EXPECT_THAT(News(), ElementsAre("publish Main _kova-lanyard._tcp", "publish Y _y._tcp", "publish Z _z._tcp"));
    EXPECT_EQ(m_mdns.Find("Y", "_y._tcp")->address, Network::IpAddress(8090)) << "the low 16 bits are the port";
    EXPECT_EQ(m_mdns.Find("Y", "_y._tcp")->protocol, MDNS::Protocol::INET6);
    EXPECT_THAT(m_mdns.Find("Y", "_y._tcp")->txt, ElementsAre(Pair("K", "V")));

    m_protocol->NetworkWentDown();
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("C", "_c._tcp")));
    EXPECT_THAT(Update(MakeMessage("B", "_b._tcp")), ElementsAre("false")) << "parked as an add, answered at once";
    m_protocol->RemoveService(MakeMessage("Z", "_z._tcp"));
    m_protocol->RemoveService(MakeMessage("Y", "_y._tcp"));
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Y", "_y._tcp"))) << "the removal stays, the add follows it";
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Gone", "_g._tcp")));
    m_protocol->RemoveService(MakeMessage("Gone", "_g._tcp")); // the two cancel out
    m_protocol->BroadcastInitialAccessoryAnnouncement(MakeDevice("Acc"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Old"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("New"));
    EXPECT_THAT(News(), IsEmpty());
    m_protocol->NetworkWentUp();
    EXPECT_THAT(News(), ElementsAre("withdraw Main _kova-lanyard._tcp", "publish New _kova-lanyard._tcp",
                                    "withdraw New _kova-lanyard._tcp", "publish Accessory _kova-accessory._tcp",
                                    "withdraw Y _y._tcp", "withdraw Z _z._tcp", "publish B _b._tcp",
                                    "publish C _c._tcp", "publish Y _y._tcp"));
    m_protocol->NetworkWentDown();
    m_protocol->NetworkWentUp();
    EXPECT_THAT(News(), IsEmpty());
}

TEST_F(MdnsDiscoveryProtocolTest, StoppedItAnswersAtOnceAndKeepsWhatIsParked)
{
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Parked")));
    m_protocol->Stop();
    m_protocol->Stop();
    int lists = 0;
    m_protocol->GetProductList("_a._tcp",
                               [&lists](const Sonarix::ProductList& list) { lists += list.products_size() + 1; });
    EXPECT_EQ(lists, 1) << "empty, before the return";
    m_protocol->NetworkWentUp(); // a fault of the caller: nothing is lost by it
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("A")));
    EXPECT_TRUE(m_log.Contains("Failed to AddService , MdnsService not started yet "));
    EXPECT_THAT(Update(MakeMessage("A")), ElementsAre("false"));
    m_protocol->RemoveService(MakeMessage("A"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    EXPECT_THAT(News(), IsEmpty());

    int restarts = 0;
    m_protocol->RegisterForServiceRestartNotification(
        [&]
        {
            ++restarts;
            EXPECT_TRUE(m_protocol->AddService(MakeMessage("Back", "_b._tcp"))) << "from within the notification";
        });
    m_protocol->Start();
    m_protocol->Start();
    EXPECT_EQ(restarts, 1);
    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    EXPECT_THAT(News(), ElementsAre("publish D _kova-lanyard._tcp", "publish Parked _a._tcp", "publish Back _b._tcp"));
}

TEST_F(MdnsDiscoveryProtocolTest, RenderersAndClocksBecomeProductsAcrossRestarts)
{
    std::vector<std::string> heard;
    const auto hears = [this, &heard]
    {
        m_simulation.RunUntilIdle();
        return std::exchange(heard, {});
    };
    m_protocol->RegisterProductStateCallback(
        [&heard](const Sonarix::Product& product) {
            heard.push_back(SXCommon::ProductState_Name(product.state()) + " " + product.productinfo().friendlyname());
        });
    m_mdns.Announce(FakeMdns::MakeService("Kitchen", "_kova-lanyard._tcp"));
    m_mdns.Announce(FakeMdns::MakeService("Hall", "_kova-clock._tcp"));
    m_mdns.Announce(FakeMdns::MakeService("Accessory", "_kova-accessory._tcp"));
    EXPECT_THAT(hears(), ElementsAre("ONLINE Kitchen", "ONLINE Hall")) << "accessories are browsed only";

    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Own"));
    m_simulation.RunUntilIdle();
    m_protocol->NetworkWentDown();
    EXPECT_THAT(hears(), ElementsAre("ONLINE Own")) << "what is published stays, browsing goes on";

    m_protocol->Stop();
    EXPECT_THAT(hears(), IsEmpty());
    m_protocol->Start();
    m_protocol->Stop(); // its task has not run yet: the registrations are still on their way
    m_mdns.Announce(FakeMdns::MakeService("Bath", "_kova-lanyard._tcp"));
    m_protocol->Start();
    EXPECT_THAT(hears(), testing::UnorderedElementsAre("ONLINE Bath", "ONLINE Kitchen", "ONLINE Hall"));
    ASSERT_THAT(m_factory.m_made, testing::SizeIs(3));
    EXPECT_TRUE(m_factory.m_made[0].expired() && m_factory.m_made[1].expired()) << "something holds a stopped service";

    m_mdns.Withdraw("Kitchen", "_kova-lanyard._tcp"); // on its way when the end comes
    m_protocol->Stop();
    EXPECT_THAT(hears(), IsEmpty());
    m_protocol->Start();
    m_protocol->Stop();
    m_simulation.RunUntilIdle();
    EXPECT_TRUE(m_factory.m_made[2].expired() && m_factory.m_made[3].expired());
}

TEST(MdnsDiscoveryProtocolThreadsTest, ManyTasksAtOnceAndAnEndWithCallsInFlight)
{
    const LogCapture log;
    FakeMdns mdns; // on the protocol's task alone until that has ended
    RememberingFactory factory;
    auto protocol = std::make_shared<MdnsDiscoveryProtocol>();
    std::atomic<int> restarts = 0;
    protocol->RegisterForServiceRestartNotification([&restarts] { ++restarts; });
    {
        const RealTask controller("Controller");
        const RealTask clients("Clients");
        const RealTask lists("Lists");
        for (int round = 0; round < 200; ++round)
        {
            IL::BreakThread(
                [&protocol]
                {
                    protocol->NetworkWentDown();
                    protocol->Stop();
                    protocol->Start();
                    protocol->NetworkWentUp();
                },
                controller.Get());
            IL::BreakThread(
                [&protocol, round]
                {
                    protocol->AddService(MakeMessage("A" + std::to_string(round)));
                    protocol->RemoveService(MakeMessage("A" + std::to_string(round)));
                    protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
                },
                clients.Get());
            IL::BreakThread([&protocol] { protocol->GetProductList("_a._tcp", {}); }, lists.Get());
        }
        controller.Drain();
        clients.Drain();
        lists.Drain();
    }
    EXPECT_EQ(restarts, 200);
    EXPECT_EQ(factory.m_made.size(), 201U);
    protocol->Stop();
    ConditionSemaphore isFreed(0); // what the stop has posted frees the logic
    IL::BreakThread([&isFreed] { isFreed.Signal(); }, factory.m_task);
    EXPECT_TRUE(isFreed.Wait(10'000));
    IL::StopTask(factory.m_task);
    protocol.reset();
}

} // namespace
