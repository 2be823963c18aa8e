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

/// The protocol object and the mDNS logic on the simulated engine. The destructor of the protocol object waits for the
/// end of its task, so the task is stopped first.
class MdnsDiscoveryProtocolTest : public testing::Test
{
protected:
    ~MdnsDiscoveryProtocolTest() override
    {
        m_protocol->Stop();
        m_simulation.RunUntilIdle(); // runs the posted stop, which releases the mDNS logic
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
    std::vector<std::string> TakePublishCalls()
    {
        m_simulation.RunUntilIdle();
        return ::TakePublishCalls(m_mdns);
    }

    LogCapture m_log;
    IL::Simulation m_simulation{1};
    FakeMdns m_mdns;
    RecordingFactory m_factory;
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_protocol = MdnsDiscoveryProtocol::Create();
};

TEST_F(MdnsDiscoveryProtocolTest, RequestsAreConvertedAndPublished)
{
    m_simulation.RunUntilIdle();
    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Main"));
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("Y", "_y._tcp", 0x7FFF0000 + 8090)));
    EXPECT_THAT(TakePublishCalls(), ElementsAre("publish Main _kova-lanyard._tcp", "publish Y _y._tcp"));
    EXPECT_EQ(m_mdns.Find("Y", "_y._tcp")->address, Network::IpAddress(8090)) << "the low 16 bits are the port";
    EXPECT_EQ(m_mdns.Find("Y", "_y._tcp")->protocol, MDNS::Protocol::INET6);
    EXPECT_THAT(m_mdns.Find("Y", "_y._tcp")->txt, ElementsAre(Pair("K", "V")));
}

TEST_F(MdnsDiscoveryProtocolTest, StoredRequestsAreReplayedInOrderAndOnce)
{
    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Main"));
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("Y", "_y._tcp")));
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("Z", "_z._tcp")));
    EXPECT_THAT(TakePublishCalls(), testing::SizeIs(3));

    m_protocol->NetworkWentDown();
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("C", "_c._tcp")));
    EXPECT_THAT(Update(MakeMessage("B", "_b._tcp")), ElementsAre("false")) << "stored as an add, answered at once";
    m_protocol->RemoveService(MakeMessage("Z", "_z._tcp"));
    m_protocol->RemoveService(MakeMessage("Y", "_y._tcp"));
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Y", "_y._tcp"))) << "does not cancel the stored removal";
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Gone", "_g._tcp")));
    m_protocol->RemoveService(MakeMessage("Gone", "_g._tcp")); // cancels the stored add
    m_protocol->BroadcastInitialAccessoryAnnouncement(MakeDevice("Acc"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Old"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("New"));
    EXPECT_THAT(TakePublishCalls(), IsEmpty());
    m_protocol->NetworkWentUp();
    EXPECT_THAT(TakePublishCalls(),
                ElementsAre("withdraw Main _kova-lanyard._tcp", "publish New _kova-lanyard._tcp",
                            "withdraw New _kova-lanyard._tcp", "publish Accessory _kova-accessory._tcp",
                            "withdraw Y _y._tcp", "withdraw Z _z._tcp", "publish B _b._tcp", "publish C _c._tcp",
                            "publish Y _y._tcp"));
    m_protocol->NetworkWentDown();
    m_protocol->NetworkWentUp();
    EXPECT_THAT(TakePublishCalls(), IsEmpty());
}

TEST_F(MdnsDiscoveryProtocolTest, StoppedProtocolAnswersAtOnceAndKeepsStoredRequests)
{
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Parked")));
    m_protocol->Stop();
    m_protocol->Stop();
    int lists = 0;
    m_protocol->GetProductList("_a._tcp",
                               [&lists](const Sonarix::ProductList& list) { lists += list.products_size() + 1; });
    EXPECT_EQ(lists, 1) << "called before the return, with an empty list";
    m_protocol->NetworkWentUp(); // a fault of the caller; the stored requests are kept
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("A")));
    EXPECT_TRUE(m_log.Contains("Failed to AddService , MdnsService not started yet "));
    EXPECT_THAT(Update(MakeMessage("A")), ElementsAre("false"));
    m_protocol->RemoveService(MakeMessage("A"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    EXPECT_THAT(TakePublishCalls(), IsEmpty());

    int restarts = 0;
    m_protocol->RegisterForServiceRestartNotification(
        [&]
        {
            ++restarts;
            EXPECT_TRUE(m_protocol->AddService(MakeMessage("Back", "_b._tcp"))) << "inside the notification";
        });
    m_protocol->Start();
    m_protocol->Start();
    EXPECT_EQ(restarts, 1);
    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    EXPECT_THAT(TakePublishCalls(),
                ElementsAre("publish D _kova-lanyard._tcp", "publish Parked _a._tcp", "publish Back _b._tcp"));
}

TEST_F(MdnsDiscoveryProtocolTest, RenderersAndClocksBecomeProducts)
{
    std::vector<std::string> products;
    const auto take = [this, &products]
    {
        m_simulation.RunUntilIdle();
        return std::exchange(products, {});
    };
    m_protocol->RegisterProductStateCallback(
        [&products](const Sonarix::Product& product) {
            products.push_back(SXCommon::ProductState_Name(product.state()) + " " +
                               product.productinfo().friendlyname());
        });
    m_mdns.Announce(FakeMdns::MakeService("Kitchen", "_kova-lanyard._tcp"));
    m_mdns.Announce(FakeMdns::MakeService("Hall", "_kova-clock._tcp"));
    m_mdns.Announce(FakeMdns::MakeService("Accessory", "_kova-accessory._tcp"));
    EXPECT_THAT(take(), ElementsAre("ONLINE Kitchen", "ONLINE Hall")) << "no subscription takes accessories";

    m_protocol->NetworkWentUp();
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Own"));
    m_simulation.RunUntilIdle();
    m_protocol->NetworkWentDown();
    EXPECT_THAT(take(), ElementsAre("ONLINE Own")) << "published services and browsing are unaffected";

    m_protocol->Stop();
    EXPECT_THAT(take(), IsEmpty());
    m_protocol->Start();
    m_protocol->Stop(); // before the registrations of Start() have arrived
    m_mdns.Announce(FakeMdns::MakeService("Bath", "_kova-lanyard._tcp"));
    m_protocol->Start();
    EXPECT_THAT(take(), testing::UnorderedElementsAre("ONLINE Bath", "ONLINE Kitchen", "ONLINE Hall"));
    ASSERT_THAT(m_factory.m_services, testing::SizeIs(3));
    EXPECT_TRUE(m_factory.m_services[0].expired() && m_factory.m_services[1].expired())
        << "a stopped service is still referenced";

    m_mdns.Withdraw("Kitchen", "_kova-lanyard._tcp"); // the removal is queued when Stop() is called
    m_protocol->Stop();
    EXPECT_THAT(take(), IsEmpty());
    m_protocol->Start();
    m_protocol->Stop();
    m_simulation.RunUntilIdle();
    EXPECT_TRUE(m_factory.m_services[2].expired() && m_factory.m_services[3].expired());
}

TEST(MdnsDiscoveryProtocolThreadsTest, OperationsRunOnManyTasksUntilTheEnd)
{
    const LogCapture log;
    FakeMdns mdns; // used on the task of the protocol only
    RecordingFactory factory;
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
    EXPECT_EQ(factory.m_services.size(), 201U);
    protocol->Stop();
    ConditionSemaphore isFreed(0); // runs the posted stop, which releases the mDNS logic
    IL::BreakThread([&isFreed] { isFreed.Signal(); }, factory.m_task);
    EXPECT_TRUE(isFreed.Wait(10'000));
    IL::StopTask(factory.m_task);
    protocol.reset();
}

} // namespace
