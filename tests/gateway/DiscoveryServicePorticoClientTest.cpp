#include "gateway/DiscoveryServicePorticoClient.h"

#include "gateway/MacAddressInfo.h"
#include "runtime/engine/Simulation.h"
#include "schemas/NetManager.pb.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeAggregator.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/fakes/FakePortico.h"
#include "tests/support/LogCapture.h"
#include <ProtoToMarkup.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

using namespace SonarixService;
using Portico::EndpointScope;
using Portico::Verb;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

const char* const kStatusPath = "/network/status";
const char* const kUsagePath = "/network/wifi/stationUsage";
const char* const kAdvertisementPath = "/startDiscoveryAdvertisement";

const char* const kUp =
    R"({"isPrimaryUp":true,"primary":"WIRED_ETH","primaryIpAddress":"10.0.0.1","interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})";
const char* const kDown = R"({"isPrimaryUp":false,"primary":"WIRED_ETH"})";

const char* const kAdvertisement =
    R"({"deviceName":"Kitchen","guid":"guid-1","ecosys":"ORB2","productType":"T","productName":"N","productColor":"C",)"
    R"("softwareVersion":"1.2","productLanguage":"en","serialNumber":"S","country":"DE"})";

/// The client on a simulated task with fake neighbours. m_calls has the calls of all fakes.
class DiscoveryServicePorticoClientTest : public testing::Test
{
protected:
    DiscoveryServicePorticoClientTest()
    {
        m_controller->calls = m_calls;
        m_controller->mdns = m_mdns;
        m_aggregator->info.set_guid("own");
        Make("{}");
    }
    void Make(const char* config)
    {
        const std::string file = testing::TempDir() + "gateway-config-" + std::to_string(getpid());
        std::ofstream(file) << config;
        setenv("SONARIX_PRODUCT_CONFIG", file.c_str(), 1);
        setenv("SONARIX_MFG_DATA", (file + "/none").c_str(), 1);
        m_client = DiscoveryServicePorticoClient::Create(
            m_task, m_controller,
            Portico::PorticoClient::Create("Test", "localhost", 8084, "tarsier", "", nullptr, std::nullopt,
                                           Portico::CommonClientCreationInfo()),
            m_aggregator);
        m_gateway = m_portico.Find("Test");
        m_client->Initialize();
        std::filesystem::remove(file);
    }

    /// Delivers a notification and returns the calls that it causes.
    FakeCalls Notify(const std::string& path, const std::string& body)
    {
        m_calls->clear();
        m_gateway->PushText(path, body);
        m_simulation.RunUntilIdle();
        return *m_calls;
    }
    std::shared_ptr<const FakeAnswer> Call(Verb verb, const std::string& path, const std::string& body = {})
    {
        m_calls->clear();
        auto answer = m_gateway->Call(verb, path, body);
        m_simulation.RunUntilIdle();
        return answer;
    }

    LogCapture m_log;
    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Task", "");
    FakePortico m_portico;
    std::shared_ptr<FakeCalls> m_calls = std::make_shared<FakeCalls>();
    std::shared_ptr<FakeMdnsDiscoveryProtocol> m_mdns = std::make_shared<FakeMdnsDiscoveryProtocol>(m_calls);
    std::shared_ptr<FakeController> m_controller = std::make_shared<FakeController>();
    std::shared_ptr<FakeAggregator> m_aggregator = std::make_shared<FakeAggregator>(m_calls);
    std::shared_ptr<DiscoveryServicePorticoClientIF> m_client;
    std::shared_ptr<FakeConnection> m_gateway;
};

} // namespace

TEST_F(DiscoveryServicePorticoClientTest, FirstStatusComesByGetAndLaterOnesByNotification)
{
    EXPECT_THAT(m_gateway->Log(),
                ElementsAre("SUBSCRIBE /network/status", "SUBSCRIBE /network/wifi/stationUsage",
                            "GET /network/wifi/stationUsage", "GET /network/status", "SERVE GET /sonarix/info",
                            "SERVE GET /sonarix/products", "SERVE POST /startDiscoveryAdvertisement"));
    EXPECT_EQ(m_gateway->FindEndpoint(Verb::GET, "/sonarix/info")->scope, EndpointScope::PUBLIC);
    EXPECT_EQ(m_gateway->FindEndpoint(Verb::GET, "/sonarix/products")->scope, EndpointScope::PRIVATE);
    EXPECT_EQ(m_gateway->FindEndpoint(Verb::POST, kAdvertisementPath)->scope, EndpointScope::PRIVATE);

    ASSERT_TRUE(m_gateway->AnswerText(kStatusPath, kUp));
    ASSERT_TRUE(m_gateway->AnswerText(kUsagePath, R"({"stationBands":["WIFI_RADIO_BAND_5GHZ"]})"));
    m_simulation.RunUntilIdle();
    EXPECT_THAT(*m_calls, Contains("aggregator InitializeProtocols HOST 10.0.0.1"));
    EXPECT_THAT(m_aggregator->supportedWifiBands, ElementsAre("WIFI_RADIO_BAND_5GHZ"));

    Notify(kStatusPath, kDown);
    Notify(kUsagePath, R"({"stationBands":["WIFI_RADIO_BAND_6GHZ","WIFI_RADIO_BAND_2_4GHZ","WIFI_RADIO_BAND_6GHZ"]})");
    EXPECT_EQ(m_controller->statuses.size(), 2U);
    EXPECT_THAT(m_aggregator->supportedWifiBands, ElementsAre("WIFI_RADIO_BAND_2_4GHZ", "WIFI_RADIO_BAND_6GHZ"));
    EXPECT_THAT(Notify(kStatusPath, "[1]"), IsEmpty()) << "a body that does not parse is dropped";
    EXPECT_THAT(m_mdns->announcements, IsEmpty()) << "a host announces itself on request only";
}

TEST_F(DiscoveryServicePorticoClientTest, OwnInfoIsPostedToTheTaskAndAListIsSentAtOnce)
{
    m_simulation.RunUntilIdle();
    EXPECT_THAT(m_gateway->Notifications("/sonarix/info"), ElementsAre(R"({"guid":"own"})"));
    Sonarix::Product one;
    one.set_state(SXCommon::OFFLINE);
    m_client->SendSonarixNotification(one);
    m_aggregator->productLists.Send(m_aggregator->list, CallbackConnection());
    EXPECT_THAT(m_gateway->Notifications("/sonarix/products"),
                ElementsAre(R"({"products":[{"state":"OFFLINE"}]})", "{}"))
        << "a list must not wait in the task's queue";
}

TEST_F(DiscoveryServicePorticoClientTest, FailedGetsAreLoggedAndNotRepeated)
{
    m_gateway->Fail(kStatusPath, 404, 7, "not found");
    m_gateway->AnswerText(kUsagePath, "[]");
    m_simulation.RunFor(std::chrono::hours(1));
    EXPECT_TRUE(m_log.Contains("Error (404-7) not found")) << m_log.Text();
    EXPECT_TRUE(m_log.Contains("2005")) << m_log.Text();
    EXPECT_EQ(m_gateway->Requests(kStatusPath).size(), 1U);
    EXPECT_EQ(m_gateway->Requests(kUsagePath).size(), 1U);
    EXPECT_THAT(*m_calls, IsEmpty());
    Notify(kStatusPath, kUp); // works without the GET
    EXPECT_EQ(m_controller->statuses.size(), 1U);
}

TEST_F(DiscoveryServicePorticoClientTest, AdvertisementIsAnnouncedAndAnsweredOr503WithoutMdns)
{
    std::string answer;
    m_gateway->FindEndpoint(Verb::POST, kAdvertisementPath)
        ->body(std::string(kAdvertisement),
               PorticoClientIF::Response(
                   [&](const google::protobuf::Message& record)
                   {
                       m_calls->push_back("answer");
                       answer = ProtoToMarkup::ToJson(record, true, false, false);
                   }),
               PorticoClientIF::Response());
    m_simulation.RunUntilIdle();
    EXPECT_THAT(*m_calls, ElementsAre("mdns BroadcastInitialDeviceAnnouncement", "answer",
                                      "aggregator HandleProductInfoAdvertisement guid-1"));
    EXPECT_EQ(answer, kAdvertisement);

    SonarixPb::DeviceInfo device;
    ProtoToMarkup::FromJson(
        R"({"devicetype":"RENDERER","guid":"guid-1","friendlyname":"Kitchen","manufacturer":"Kova","ecosystem":"ORB2",)"
        R"("producttype":"T","modelname":"N","productcolor":"C","softwareversion":"1.2","serialnumber":"S","country":"DE"})",
        &device);
    device.set_macaddress(GetPrimaryMAC());
    EXPECT_EQ(m_mdns->announcements.at(0).DebugString(), device.DebugString());
    EXPECT_FALSE(m_aggregator->info.has_ipaddress());

    m_controller->mdns = nullptr;
    const auto refusal = Call(Verb::POST, kAdvertisementPath, kAdvertisement);
    EXPECT_TRUE(refusal->isError);
    EXPECT_EQ(refusal->body, R"({"code":503,"subcode":0,"message":"MDNS Service not available."})");
    EXPECT_THAT(*m_calls, ElementsAre("aggregator HandleProductInfoAdvertisement guid-1"));
    EXPECT_THAT(Call(Verb::POST, kAdvertisementPath, "{")->body, HasSubstr("2005"));
}

TEST_F(DiscoveryServicePorticoClientTest, ShutdownStopsAggregatorFirstAndConnectionLast)
{
    m_client->Shutdown();
    EXPECT_THAT(*m_calls, ElementsAre("aggregator Shutdown"));
    EXPECT_EQ(m_gateway->Log().back(), "SHUTDOWN");
    EXPECT_FALSE(m_gateway->IsOpen());
}

TEST_F(DiscoveryServicePorticoClientTest, PendingCallbacksDoNothingAfterDestruction)
{
    m_gateway->AnswerText(kStatusPath, kUp);
    m_gateway->PushText(kStatusPath, kDown);
    m_aggregator->productLists.Send(Sonarix::ProductList(), CallbackConnection());
    const auto answer = m_gateway->Call(Verb::POST, kAdvertisementPath, kAdvertisement);
    m_client.reset();
    m_simulation.RunUntilIdle();
    EXPECT_THAT(*m_calls, IsEmpty());
    EXPECT_FALSE(answer->isDone);
    EXPECT_THAT(m_gateway->Notifications("/sonarix/info"), IsEmpty());
}

TEST_F(DiscoveryServicePorticoClientTest, AccessoryAnnouncesItselfAtEachRisingEdge)
{
    Make(R"({"accessoryMode":true})");
    EXPECT_THAT(Notify(kStatusPath, "{}"), Contains("aggregator InitializeProtocols ACCESSORY "));
    EXPECT_THAT(Notify(kStatusPath, kUp),
                ElementsAre("controller SetNetworkStatus", "aggregator InitializeProtocols ACCESSORY 10.0.0.1",
                            "mdns BroadcastInitialAccessoryAnnouncement"));
    EXPECT_EQ(Notify(kStatusPath, kUp).size(), 2U);
    EXPECT_EQ(m_mdns->announcements.at(0).ShortDebugString(),
              R"(ipaddress: "10.0.0.1" guid: "guid.is.not.set.perhaps.x86")");

    // A status without primary or address also counts as the rising edge, so the next status announces nothing.
    for (const char* spent :
         {R"({"isPrimaryUp":true,"primaryIpAddress":"10.0.0.1"})", R"({"isPrimaryUp":true,"primary":"WIRED_ETH"})"})
    {
        Notify(kStatusPath, kDown);
        Notify(kStatusPath, spent);
        Notify(kStatusPath, kUp);
        EXPECT_THAT(m_mdns->announcements, SizeIs(1)) << spent;
    }

    Notify(kStatusPath, kDown);
    EXPECT_EQ(Notify(kStatusPath, kUp).size(), 3U);
    m_controller->mdns = nullptr;
    Notify(kStatusPath, kDown);
    EXPECT_EQ(Notify(kStatusPath, kUp).size(), 2U) << "without mDNS there is no announcement";
}
