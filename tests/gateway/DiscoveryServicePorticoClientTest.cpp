#include "DiscoveryServicePorticoClient.h"

#include "DPrint.h"
#include "FakeAggregator.h"
#include "FakeDiscovery.h"
#include "FakePortico.h"
#include "MacAddressInfo.h"
#include "MfgData.h"
#include "NetManager.pb.h"
#include "ProtoToMarkup.h"
#include "Simulation.h"
#include "Sonarix.pb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

using namespace SonarixService;
using Portico::EndpointScope;
using Portico::Verb;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

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

/// The client on a simulated task, with everything around it faked. What the fakes are told stands in m_calls.
class DiscoveryServicePorticoClientTest : public testing::Test
{
protected:
    explicit DiscoveryServicePorticoClientTest(bool isAccessory = false)
    {
        std::string name = (std::filesystem::temp_directory_path() / "gateway-XXXXXX").string();
        m_directory = mkdtemp(name.data());
        std::ofstream(m_directory + "/config") << (isAccessory ? R"({"accessoryMode":true})" : "{}");
        setenv("SONARIX_PRODUCT_CONFIG", (m_directory + "/config").c_str(), 1);
        setenv("SONARIX_MFG_DATA", (m_directory + "/none").c_str(), 1);
        DPrint::SetSink(
            [this](const std::string& channel, DPrint::Level level, const std::string& text)
            {
                if (channel == "DiscoveryServicePorticoClient")
                {
                    m_log.push_back(std::to_string(level) + " " + text);
                }
            });

        m_controller->calls = m_calls;
        m_controller->mdns = m_mdns;
        m_aggregator->info.set_guid("own");
        m_client = DiscoveryServicePorticoClient::Create(
            m_task, m_controller,
            Portico::PorticoClient::Create("Test", "localhost", 8084, "tarsier", "", nullptr, std::nullopt,
                                           Portico::CommonClientCreationInfo()),
            m_aggregator);
        m_gateway = m_portico.Find("Test");
    }
    ~DiscoveryServicePorticoClientTest() override
    {
        DPrint::SetSink(nullptr);
        std::filesystem::remove_all(m_directory);
    }

    void Initialize()
    {
        m_client->Initialize();
        m_simulation.RunUntilIdle();
        m_calls->clear();
        m_log.clear();
    }
    void Notify(const std::string& path, const std::string& body)
    {
        m_gateway->PushText(path, body);
        m_simulation.RunUntilIdle();
    }
    std::shared_ptr<const FakeAnswer> Call(Verb verb, const std::string& path, const std::string& body = {})
    {
        auto answer = m_gateway->Call(verb, path, body);
        m_simulation.RunUntilIdle();
        return answer;
    }

    std::string m_directory;
    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Task", "");
    FakePortico m_portico;
    std::shared_ptr<FakeCalls> m_calls = std::make_shared<FakeCalls>();
    std::shared_ptr<FakeMdnsDiscoveryProtocol> m_mdns = std::make_shared<FakeMdnsDiscoveryProtocol>(m_calls);
    std::shared_ptr<FakeController> m_controller = std::make_shared<FakeController>();
    std::shared_ptr<FakeAggregator> m_aggregator = std::make_shared<FakeAggregator>(m_calls);
    std::shared_ptr<DiscoveryServicePorticoClientIF> m_client;
    std::shared_ptr<FakeConnection> m_gateway;
    std::vector<std::string> m_log; ///< "level function text"
};

class AccessoryPorticoClientTest : public DiscoveryServicePorticoClientTest
{
protected:
    AccessoryPorticoClientTest()
        : DiscoveryServicePorticoClientTest(true)
    {
    }
};

} // namespace

TEST_F(DiscoveryServicePorticoClientTest, RegistersAndAsksInTheFixedOrder)
{
    m_client->Initialize();
    EXPECT_THAT(m_gateway->Log(),
                ElementsAre("SUBSCRIBE /network/status", "SUBSCRIBE /network/wifi/stationUsage",
                            "GET /network/wifi/stationUsage", "GET /network/status", "SERVE GET /sonarix/info",
                            "SERVE GET /sonarix/products", "SERVE POST /startDiscoveryAdvertisement"));
    const struct
    {
        Verb verb;
        const char* path;
        EndpointScope scope;
    } served[] = {{Verb::GET, "/sonarix/info", EndpointScope::PUBLIC},
                  {Verb::GET, "/sonarix/products", EndpointScope::PRIVATE},
                  {Verb::POST, kAdvertisementPath, EndpointScope::PRIVATE}};
    for (const auto& row : served)
    {
        const auto endpoint = m_gateway->FindEndpoint(row.verb, row.path);
        ASSERT_TRUE(endpoint) << row.path;
        EXPECT_EQ(endpoint->scope, row.scope) << row.path;
        EXPECT_EQ(endpoint->version, 1.0);
        EXPECT_EQ(endpoint->label, "Unknown");
        EXPECT_EQ(endpoint->option, 0);
    }
}

TEST_F(DiscoveryServicePorticoClientTest, OwnInfoAndListAreNotifiedAtTheirChange)
{
    m_simulation.RunUntilIdle();
    EXPECT_THAT(m_gateway->Notifications("/sonarix/info"), ElementsAre(R"({"guid":"own"})"));
    EXPECT_THAT(m_gateway->Notifications("/sonarix/products"), IsEmpty());

    Sonarix::ProductList list;
    list.add_products()->mutable_productinfo()->set_guid("a");
    list.add_products()->mutable_productinfo()->set_guid("b");
    m_aggregator->productLists.Send(list, CallbackConnection());
    m_aggregator->productInfos.Send(m_aggregator->info, CallbackConnection());
    m_simulation.RunUntilIdle();
    EXPECT_EQ(m_gateway->Notifications("/sonarix/info").size(), 2U);
    EXPECT_THAT(m_gateway->Notifications("/sonarix/products"),
                ElementsAre(R"({"products":[{"productinfo":{"guid":"a"}},{"productinfo":{"guid":"b"}}]})"));

    m_gateway->ForgetNotifications();
    m_client->SendSonarixNotification(list.products(1));
    EXPECT_THAT(m_gateway->Notifications("/sonarix/products"),
                ElementsAre(R"({"products":[{"productinfo":{"guid":"b"}}]})"));
}

TEST_F(DiscoveryServicePorticoClientTest, EachStatusGivesTheModeAfterTheControllerActed)
{
    Initialize();
    const struct
    {
        const char* status;
        const char* mode;
    } rows[] = {
        {kUp, "HOST 10.0.0.1"},
        {R"({"isPrimaryUp":false,"primary":"WIRELESS_AP","primaryIpAddress":"192.0.2.1"})", "SETUP 192.0.2.1"},
        {R"({"isPrimaryUp":true,"primaryIpAddress":"10.0.0.1"})", "HOST 10.0.0.1"},
        {R"({"isPrimaryUp":true,"primary":"WIRED_ETH","primaryIpAddress":""})", "UNKNOWN_MODE "},
        {kDown, "UNKNOWN_MODE "},
        {"{}", "UNKNOWN_MODE "},
        {"{}", "UNKNOWN_MODE "}, // also an unchanged one
    };
    for (const auto& row : rows)
    {
        m_calls->clear();
        Notify(kStatusPath, row.status);
        EXPECT_THAT(*m_calls, ElementsAre("controller SetNetworkStatus",
                                          std::string("aggregator InitializeProtocols ") + row.mode))
            << row.status;
    }
    EXPECT_EQ(m_controller->statuses.front().interfaces(0).name(), "eth0");
    EXPECT_THAT(m_log, Contains(HasSubstr("NetworkStatus: has_primary: true, primary: WIRED_ETH, isPrimaryUp: true, "
                                          "primaryIpAddress: |10.0.0.1| ")));
    EXPECT_THAT(m_log, Contains(HasSubstr("Primary IP address is empty, cannot determine product mode.")));
    EXPECT_THAT(m_log, Contains(AllOf(HasSubstr("2 "), HasSubstr("Hopefully it handles UNKNOWN_MODE properly"))));
    EXPECT_THAT(m_mdns->announcements, IsEmpty()) << "a host announces itself on request only";
}

TEST_F(DiscoveryServicePorticoClientTest, FirstStatusComesByTheGetAndLaterOnesByNotification)
{
    m_client->Initialize();
    ASSERT_TRUE(m_gateway->AnswerText(kStatusPath, kUp));
    ASSERT_TRUE(m_gateway->AnswerText(kUsagePath, R"({"stationBands":["WIFI_RADIO_BAND_5GHZ"]})"));
    m_simulation.RunUntilIdle();
    EXPECT_THAT(*m_calls, Contains("aggregator InitializeProtocols HOST 10.0.0.1"));
    EXPECT_THAT(m_aggregator->supportedWifiBands, ElementsAre("WIFI_RADIO_BAND_5GHZ"));

    Notify(kStatusPath, kDown);
    Notify(kUsagePath, R"({"stationBands":["WIFI_RADIO_BAND_6GHZ","WIFI_RADIO_BAND_2_4GHZ","WIFI_RADIO_BAND_6GHZ"]})");
    EXPECT_EQ(m_controller->statuses.size(), 2U);
    EXPECT_THAT(m_aggregator->supportedWifiBands, ElementsAre("WIFI_RADIO_BAND_2_4GHZ", "WIFI_RADIO_BAND_6GHZ"));

    Notify(kStatusPath, "[1]"); // what does not parse is nobody's news
    EXPECT_EQ(m_controller->statuses.size(), 2U);
}

TEST_F(DiscoveryServicePorticoClientTest, FailedGetsAreLoggedAndNotRepeated)
{
    Initialize();
    m_gateway->Fail(kStatusPath, 404, 7, "nobody there");
    m_gateway->Fail(kUsagePath, 503, 0, "gone");
    m_simulation.RunFor(std::chrono::hours(1));
    EXPECT_THAT(m_log, Contains(AllOf(HasSubstr("2 "), HasSubstr("Error (404-7) nobody there"))));
    EXPECT_THAT(m_log, Contains(AllOf(HasSubstr("3 "), HasSubstr(R"("code":503)"))));
    EXPECT_EQ(m_gateway->Requests(kStatusPath).size(), 1U);
    EXPECT_EQ(m_gateway->Requests(kUsagePath).size(), 1U);
    EXPECT_THAT(*m_calls, IsEmpty());

    Notify(kStatusPath, kUp); // sets things going all the same
    EXPECT_EQ(m_controller->statuses.size(), 1U);
}

TEST_F(DiscoveryServicePorticoClientTest, GetReplyThatDoesNotParseEndsInTheErrorHandlers)
{
    Initialize();
    m_gateway->AnswerText(kStatusPath, "{");
    m_gateway->AnswerText(kUsagePath, "[]");
    m_simulation.RunUntilIdle();
    EXPECT_THAT(m_log, Contains(HasSubstr("Error (0-2005) ")));
    EXPECT_THAT(m_log, Contains(AllOf(HasSubstr("2005"), HasSubstr(R"("guid":"1")"))));
    EXPECT_THAT(*m_calls, IsEmpty());
}

TEST_F(DiscoveryServicePorticoClientTest, InfoAndListAreServed)
{
    Initialize();
    EXPECT_EQ(Call(Verb::GET, "/sonarix/info")->body, R"({"guid":"own"})");
    EXPECT_EQ(Call(Verb::GET, "/sonarix/products")->body, "{}");
    m_aggregator->list.add_products()->set_state(SXCommon::OFFLINE);
    EXPECT_EQ(Call(Verb::GET, "/sonarix/products")->body, R"({"products":[{"state":"OFFLINE"}]})");
}

TEST_F(DiscoveryServicePorticoClientTest, AdvertisementIsAnnouncedAnsweredAndTold)
{
    Initialize();
    const auto answer = Call(Verb::POST, kAdvertisementPath, kAdvertisement);
    EXPECT_FALSE(answer->isError);
    EXPECT_EQ(answer->body, kAdvertisement);
    EXPECT_THAT(*m_calls, ElementsAre("mdns BroadcastInitialDeviceAnnouncement",
                                      "aggregator HandleProductInfoAdvertisement guid-1"));

    SonarixPb::DeviceInfo device;
    ProtoToMarkup::FromJson(
        R"({"devicetype":"RENDERER","guid":"guid-1","friendlyname":"Kitchen","manufacturer":"Kova","ecosystem":"ORB2",)"
        R"("producttype":"T","modelname":"N","productcolor":"C","softwareversion":"1.2","serialnumber":"S","country":"DE"})",
        &device);
    device.set_macaddress(GetPrimaryMAC());
    EXPECT_EQ(m_mdns->announcements.at(0).DebugString(), device.DebugString());
    EXPECT_FALSE(m_aggregator->info.has_ipaddress());
    EXPECT_EQ(m_aggregator->info.modelname(), "N");
}

TEST_F(DiscoveryServicePorticoClientTest, AnswerToAnAdvertisementGoesOutBeforeTheAggregatorIsTold)
{
    Initialize();
    std::size_t callsAtTheAnswer = 0;
    const auto endpoint = m_gateway->FindEndpoint(Verb::POST, kAdvertisementPath);
    endpoint->body(
        std::string(kAdvertisement),
        PorticoClientIF::Response([&](const google::protobuf::Message&) { callsAtTheAnswer = m_calls->size(); }),
        PorticoClientIF::Response());
    m_simulation.RunUntilIdle();
    EXPECT_EQ(callsAtTheAnswer, 1U);
    EXPECT_EQ(m_calls->size(), 2U);
}

TEST_F(DiscoveryServicePorticoClientTest, WithoutMdnsAnAdvertisementIsRefusedAndToldAllTheSame)
{
    Initialize();
    m_controller->mdns = nullptr;
    const auto answer = Call(Verb::POST, kAdvertisementPath, kAdvertisement);
    EXPECT_TRUE(answer->isError);
    EXPECT_EQ(answer->body, R"({"code":503,"subcode":0,"message":"MDNS Service not available."})");
    EXPECT_THAT(*m_calls, ElementsAre("aggregator HandleProductInfoAdvertisement guid-1"));
    EXPECT_THAT(Call(Verb::GET, "/sonarix/info")->body, HasSubstr("Kitchen"));

    const auto malformed = Call(Verb::POST, kAdvertisementPath, "{");
    EXPECT_TRUE(malformed->isError);
    EXPECT_THAT(malformed->body, HasSubstr("2005"));
}

TEST_F(DiscoveryServicePorticoClientTest, ShutdownEndsTheAggregatorFirstAndTheConnectionLast)
{
    Initialize();
    m_client->Shutdown();
    EXPECT_THAT(*m_calls, ElementsAre("aggregator Shutdown"));
    EXPECT_EQ(m_gateway->Log().back(), "SHUTDOWN");
    EXPECT_FALSE(m_gateway->IsOpen());
}

TEST_F(DiscoveryServicePorticoClientTest, WhatIsInFlightAtTheEndTouchesNothing)
{
    m_client->Initialize();
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

TEST_F(AccessoryPorticoClientTest, IsAnAccessoryWhateverTheNetwork)
{
    Initialize();
    for (const char* status : {"{}", kDown, kUp})
    {
        m_calls->clear();
        Notify(kStatusPath, status);
        EXPECT_THAT(*m_calls, Contains(HasSubstr("InitializeProtocols ACCESSORY")));
    }
    EXPECT_THAT(m_log, Not(Contains(HasSubstr("Primary IP address is empty"))));
}

TEST_F(AccessoryPorticoClientTest, AnnouncesItselfAtEachRisingEdge)
{
    Initialize();
    Notify(kStatusPath, kUp);
    Notify(kStatusPath, kUp);
    ASSERT_EQ(m_mdns->announcements.size(), 1U);
    EXPECT_EQ(m_mdns->announcements[0].ShortDebugString(),
              R"(ipaddress: "10.0.0.1" guid: "guid.is.not.set.perhaps.x86")");
    EXPECT_THAT(*m_calls,
                ElementsAre("controller SetNetworkStatus", "aggregator InitializeProtocols ACCESSORY 10.0.0.1",
                            "mdns BroadcastInitialAccessoryAnnouncement", "controller SetNetworkStatus",
                            "aggregator InitializeProtocols ACCESSORY 10.0.0.1"));
    Notify(kStatusPath, kDown);
    Notify(kStatusPath, kUp);
    EXPECT_EQ(m_mdns->announcements.size(), 2U);

    m_controller->mdns = nullptr;
    Notify(kStatusPath, kDown);
    Notify(kStatusPath, kUp); // nobody to tell, and no fault
    EXPECT_EQ(m_mdns->announcements.size(), 2U);
}

TEST_F(AccessoryPorticoClientTest, StatusWithoutPrimaryOrAddressSpendsTheEdge)
{
    Initialize();
    for (const char* spent :
         {R"({"isPrimaryUp":true,"primaryIpAddress":"10.0.0.1"})", R"({"isPrimaryUp":true,"primary":"WIRED_ETH"})"})
    {
        Notify(kStatusPath, kDown);
        Notify(kStatusPath, spent);
        Notify(kStatusPath, kUp);
        EXPECT_THAT(m_mdns->announcements, IsEmpty()) << spent;
    }
    EXPECT_THAT(m_log, Contains(HasSubstr("We do not have a primary yet. Cannot make any decisions about our mode")));
}
