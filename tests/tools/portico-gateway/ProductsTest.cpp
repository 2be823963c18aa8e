#include "tests/support/LogCapture.h"
#include "tests/tools/portico-gateway/GatewayUnderTest.h"
#include "tests/tools/portico-gateway/RpcClient.h"
#include "tests/websocket/support/WebSocketCertificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

using namespace std::chrono_literals;
using testing::HasSubstr;
using Json = RpcClient::Json;

namespace
{

constexpr int kOnline = 1040;
constexpr int kOffline = 1041;
constexpr const char* kInfo = "/sonarix/info";
constexpr const char* kList = "/sonarix/products";
const Json kFarInfo = {{"guid", "far"}};
/// No connection can be made to this address. The far product listens on all loopback addresses.
constexpr const char* kNowhere = "255.255.255.255";

/// A product list. Each row is a guid and an address.
Json Rows(const std::vector<std::array<Json, 2>>& rows)
{
    Json products = Json::array({5});
    for (const auto& [guid, address] : rows)
    {
        products.push_back({{"productinfo", {{"guid", guid}, {"ipaddress", address}}}});
    }
    return {{"products", products}};
}

/// A discovery service that serves one record.
std::unique_ptr<RpcClient> Service(const GatewayUnderTest& gateway, const std::string& path, const Json& record)
{
    auto service = std::make_unique<RpcClient>(gateway.Port(), "SonarixService");
    service->ServeRecord(path, path == kList ? 1 : 0, record);
    return service;
}

std::string GuidOf(RpcClient& client)
{
    return client.Call("get", {{"path", kInfo}})["result"].value("guid", "");
}

void WaitForOnline(RpcClient& client)
{
    while (client.TakeHeartbeat() == kOffline) // 0 if none came, which has failed the test
    {
    }
}

/// Two gateways. After WritePeers(), the near one finds the far one by its peers file.
class GatewayProducts : public testing::Test
{
protected:
    ~GatewayProducts() override
    {
        std::filesystem::remove(m_settings.peersFile);
    }
    void WritePeers(const GatewayUnderTest& far) const
    {
        const std::string address = "127.0.0.1:" + std::to_string(far.LanPort());
        std::ofstream(m_settings.peersFile)
            << "# products\n\nnonsense\nfar " << address << "\nother " << address << "\nbad 127.0.0.1:x\n";
    }
    static Gateway::Settings Settings(const GatewayUnderTest& far)
    {
        Gateway::Settings settings;
        settings.peersFile = testing::TempDir() + "gateway-peers-" + std::to_string(getpid());
        settings.peerPort = far.LanPort();
        return settings;
    }

    /// The far gateway. Its request limit is longer than checkLimit.
    GatewayUnderTest m_far{"far", GatewayUnderTest::AnsweringWithin(3000ms)};
    Gateway::Settings m_settings = Settings(m_far);
    GatewayUnderTest m_near{"near", m_settings};
};

TEST_F(GatewayProducts, RequestsAndSubscriptionsOfScopeZeroWork)
{
    WritePeers(m_far);
    RpcClient server(m_far.Port(), "Server");
    server.Serve("get", "/open", 0);
    server.Serve("get", "/closed", 1);
    server.Notify("/open", {{"n", 1}});
    RpcClient client(m_near.Port(), "Client", "far");
    client.Subscribe("/open"); // before the connection
    EXPECT_EQ(client.TakeBody(), Json({{"n", 1}}));
    const int get = client.SendRequest("get", {{"path", "/open"}, {"version", 3.5}});
    const Json request = server.Take("get");
    EXPECT_EQ(request["params"], Json({{"path", "/open"}, {"version", 3.5}}));
    server.Answer(request, {{"n", 2}});
    EXPECT_EQ(client.AnswerTo(get)["result"], Json({{"n", 2}}));
    server.Notify("/open", {{"n", 3}});
    EXPECT_EQ(client.TakeBody(), Json({{"n", 3}}));

    const Json hidden = client.Call("get", {{"path", "/closed"}});
    EXPECT_EQ(RpcClient::Code(hidden), 404);
    EXPECT_EQ(hidden["error"]["data"]["guid"], "far");
    EXPECT_EQ(client.Code("serve", {{"verb", "get"}, {"path", "/x"}}), -32600);
    RpcClient bad(m_near.Port(), "Client", "bad"); // its line in the file is unreadable
    EXPECT_EQ(bad.Code("get", {{"path", "/open"}}), 503);
    client.Call("unsubscribe", {{"path", "/open"}});
    server.Notify("/open", {{"n", 4}});
    EXPECT_TRUE(client.HasNoNotification());
}

TEST_F(GatewayProducts, HeartbeatFollowsTheServiceButNotABusyOne)
{
    WritePeers(m_far);
    RpcClient client(m_near.Port(), "Client", "far");
    client.Subscribe(kInfo);
    auto far = Service(m_far, kInfo, kFarInfo);
    EXPECT_FALSE(client.Has("heartbeat", 400ms)) << "before this product's service has served its list";
    const auto near = Service(m_near, kList, Rows({}));
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);
    EXPECT_FALSE(client.Has("heartbeat", 400ms)) << "reported once";

    far->isMute = true;
    const Json check = far->Take("get");
    EXPECT_FALSE(client.Has("heartbeat", 2300ms)) << "busy, but connected";
    far->Answer(check, kFarInfo);
    EXPECT_FALSE(client.Has("heartbeat", 2300ms)) << "the next check has just started";
    EXPECT_EQ(client.TakeHeartbeat(), kOffline) << "not answered in time";
    far->isMute = false;
    WaitForOnline(client);
    far.reset(); // the service ends, the gateway stays: 404
    EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    EXPECT_EQ(client.TakeHeartbeat(), kOffline) << "at each failed check";
    far = Service(m_far, kInfo, kFarInfo);
    WaitForOnline(client);
}

TEST_F(GatewayProducts, TlsPeerMustShowItsGuid)
{
    const WebSocketCertificates authority;
    m_settings.tlsDir = authority.Make("far");
    GatewayUnderTest far("far", m_settings);
    WritePeers(far);
    const auto farService = Service(far, kInfo, kFarInfo);
    m_settings.tlsDir = authority.Make("near");
    GatewayUnderTest near("near", m_settings);
    RpcClient client(near.Port(), "Client", "far", "tarsier_mTLS");
    EXPECT_EQ(GuidOf(client), "far");
    RpcClient wrong(near.Port(), "Client", "other", "tarsier_mTLS");
    EXPECT_EQ(wrong.Code("get", {{"path", kInfo}}), 503);
}

TEST_F(GatewayProducts, OneGetOfTheListServesAllOpens)
{
    const auto farService = Service(m_far, kInfo, kFarInfo);
    const Json rows = Rows({{"other", kNowhere}, {"far", "a.name"}, {"far", 5}, {"far", "127.0.0.1"}});
    const auto near = Service(m_near, kList, rows);
    near->isMute = true;
    RpcClient first(m_near.Port(), "Client", "far");
    RpcClient second(m_near.Port(), "Client", "far");
    near->Answer(near->Take("get"), rows);
    EXPECT_EQ(GuidOf(first), "far");
    EXPECT_EQ(GuidOf(second), "far");
    EXPECT_FALSE(near->Has("get"));
    EXPECT_EQ(m_near.mdnsQueries, 0);
}

TEST_F(GatewayProducts, RowWithoutAddressGivesTheHostOfItsLocation)
{
    const auto farService = Service(m_far, kInfo, kFarInfo);
    Json rows = Rows({{"far", ""}, {"other", ""}});
    rows["products"][1]["productinfo"]["location"] = "http://127.0.0.1:49152/description.xml";
    rows["products"][2]["productinfo"]["location"] = "http://[::ffff:127.0.0.1]/";
    const auto near = Service(m_near, kList, rows);
    RpcClient client(m_near.Port(), "Client", "far");
    EXPECT_EQ(GuidOf(client), "far");
    RpcClient other(m_near.Port(), "Client", "other");
    const Json answer = other.Call("get", {{"path", kInfo}});
    EXPECT_THAT(answer["error"]["message"].get<std::string>(), HasSubstr("product far answers"));
}

TEST_F(GatewayProducts, MdnsIsQueriedWhenTheRowIsWrong)
{
    const auto farService = Service(m_far, kInfo, kFarInfo);
    m_near.mdns.Set({{"far", {kNowhere, "127.0.0.1"}}});
    RpcClient early(m_near.Port(), "Client", "far"); // the list is not served yet
    EXPECT_EQ(GuidOf(early), "far");
    const auto near = Service(m_near, kList, Rows({{"far", kNowhere}, {"away", kNowhere}, {"third", "127.0.0.1"}}));
    RpcClient client(m_near.Port(), "Client", "far");
    EXPECT_EQ(GuidOf(client), "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);
    EXPECT_EQ(m_near.mdnsQueries, 2);
    RpcClient third(m_near.Port(), "Client", "third");
    const Json answer = third.Call("get", {{"path", kInfo}});
    EXPECT_EQ(RpcClient::Code(answer), 503);
    EXPECT_THAT(answer["error"]["message"].get<std::string>(), HasSubstr("product far answers"));
    EXPECT_EQ(third.TakeHeartbeat(), kOffline);

    const int before = near->answered;
    RpcClient away(m_near.Port(), "Client", "away");
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(away.TakeHeartbeat(), kOffline);
    }
    EXPECT_EQ(near->answered, before + 1) << "not at each attempt";
    EXPECT_GE(m_near.mdnsQueries, 6) << "mDNS may have a new address";
}

TEST_F(GatewayProducts, OwnListRestartsTheAttempt)
{
    const auto farService = Service(m_far, kInfo, kFarInfo);
    m_near.isMdnsSilent = true;
    RpcClient client(m_near.Port(), "Client", "far"); // as after a restart of the gateway
    const int get = client.SendRequest("get", {{"path", kInfo}});
    EXPECT_FALSE(client.Has("heartbeat", 300ms));
    EXPECT_EQ(m_near.mdnsQueries, 1);
    const auto near = Service(m_near, kList, Rows({{"far", "127.0.0.1"}}));
    EXPECT_EQ(client.AnswerTo(get)["result"]["guid"], "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline) << "no failure may be reported for the time without the list";
    EXPECT_FALSE(client.Has("heartbeat", 300ms));
}

TEST_F(GatewayProducts, QueryDuringAGetOfTheListWaitsForTheNextGet)
{
    const auto farService = Service(m_far, kInfo, kFarInfo);
    RpcClient near(m_near.Port(), "SonarixService");
    near.Serve("get", kList, 1);
    RpcClient first(m_near.Port(), "First", "unknown");
    const Json query = near.Take("get");
    RpcClient late(m_near.Port(), "Late", "far");
    EXPECT_FALSE(late.Has("heartbeat", 100ms));
    near.Answer(query, Rows({})); // without a row for it
    near.Answer(near.Take("get"), Rows({{"far", "127.0.0.1"}}));
    EXPECT_EQ(late.TakeHeartbeat(), kOnline) << "only after another attempt";
}

TEST_F(GatewayProducts, WaitingBytesAreBoundedAndRefusalsRetried)
{
    const LogCapture log;
    m_near.isMdnsSilent = true; // the attempt waits until the list is served
    RpcClient heavy(m_near.Port(), "Heavy", "far");
    const Json post = {{"path", "/p"}, {"body", std::string(3U << 20U, 'x')}};
    heavy.SendRequest("post", post);
    heavy.SendRequest("post", post);
    EXPECT_THAT(heavy.Call("post", post).dump(), HasSubstr("too much waits for it"));

    RpcClient client(m_near.Port(), "Client", "far");
    client.Subscribe("/p");
    auto server = std::make_unique<RpcClient>(m_far.Port(), "Server");
    server->Serve("get", "/p", 1);
    WritePeers(m_far);
    const auto near = Service(m_near, kList, Rows({}));
    EXPECT_TRUE(log.WaitFor("refuses the subscription of /p"));
    const auto lines = log.Lines(); // two queries have read the file
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                            [](const auto& line) { return line.m_text.find("nonsense") != std::string::npos; }),
              1);

    m_near.isMdnsSilent = false; // attempts end while the far gateway is down
    m_far.Kill();
    m_far.Start();
    server = std::make_unique<RpcClient>(m_far.Port(), "Server");
    server->Serve("get", "/p", 0);
    server->Notify("/p", {{"n", 1}});
    EXPECT_EQ(client.TakeBody(), Json({{"n", 1}})) << log.Text();
}

} // namespace
