#include "GatewayUnderTest.h"
#include "LogCapture.h"
#include "RpcClient.h"
#include "WebSocket.h"
#include "WebSocketCertificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>

using namespace std::chrono_literals;
using testing::HasSubstr;
using Json = RpcClient::Json;

namespace
{

constexpr int kOnline = 1040;
constexpr int kOffline = 1041;

/// A product's discovery service, as far as its gateway sees it: serves the list and the own information, and
/// answers all requests by itself until it goes.
class Service
{
public:
    Service(std::uint16_t port, const Json& info, const Json& list = {{"products", Json::array()}})
        : m_info(info)
        , m_list(list)
        , m_client(std::make_unique<RpcClient>(port))
    {
        m_client->Open("SonarixService");
    }
    ~Service()
    {
        m_isStopping = true;
        if (m_thread.joinable())
        {
            m_thread.join();
        }
    }
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    Service& ServeInfo()
    {
        m_client->Serve("get", "/sonarix/info", 0);
        Run();
        return *this;
    }
    Service& ServeList()
    {
        m_client->Serve("get", "/sonarix/products", 1);
        Run();
        return *this;
    }
    void Notify(const Json& body)
    {
        m_client->Notify("/sonarix/info", body);
    }
    int ListRequests() const
    {
        return m_listRequests;
    }
    void Pause(bool isPaused)
    {
        m_isPaused = isPaused;
    }

private:
    void Run()
    {
        if (m_thread.joinable())
        {
            return;
        }
        m_thread = std::thread(
            [this]
            {
                while (!m_isStopping)
                {
                    if (m_isPaused || !m_client->Has("get", 20ms))
                    {
                        continue;
                    }
                    const Json request = m_client->Take("get");
                    const bool isList = request["params"]["path"] == "/sonarix/products";
                    m_listRequests += isList ? 1 : 0;
                    m_client->Answer(request, isList ? m_list : m_info);
                }
            });
    }

    const Json m_info;
    const Json m_list;
    std::unique_ptr<RpcClient> m_client;
    std::atomic<bool> m_isStopping{false};
    std::atomic<bool> m_isPaused{false};
    std::atomic<int> m_listRequests{0};
    std::thread m_thread;
};

Json Row(const std::string& guid, const std::string& address, const std::string& state = "OFFLINE")
{
    return {{"state", state}, {"productinfo", {{"guid", guid}, {"ipaddress", address}}}};
}

/// Two gateways, of which the first knows the second by a peers file.
class GatewayProducts : public testing::Test
{
protected:
    Gateway::Settings WithPeers() const
    {
        Gateway::Settings settings;
        settings.peersFile = m_peers.Path();
        return settings;
    }

    GatewayUnderTest m_far{"far"};
    TemporaryFile m_peers{"# products\n\nnonsense\nfar 127.0.0.1:" + std::to_string(m_far.LanPort()) +
                          "\naway 127.0.0.1:1\nbad 127.0.0.1:x\n"};
    GatewayUnderTest m_near{"near", WithPeers()};
};

TEST_F(GatewayProducts, CarriesRequestsAndSubscriptionsOfScopeZero)
{
    RpcClient server(m_far.Port());
    server.Open("Server");
    server.Serve("get", "/open", 0);
    server.Serve("post", "/open", 0);
    server.Serve("get", "/closed", 1);
    server.Notify("/open", {{"n", 1}});
    server.Call("get", {{"path", "/nobody"}});

    RpcClient client(m_near.Port());
    client.Open("Client", "far");
    client.Subscribe("/open"); // before it is reached
    EXPECT_EQ(client.Take("notify")["params"]["body"], Json({{"n", 1}}));
    const int get = client.Ask("get", {{"path", "/open"}, {"version", 3.5}});
    const Json request = server.Take("get");
    EXPECT_EQ(request["params"], Json({{"path", "/open"}, {"version", 3.5}}));
    server.Answer(request, {{"n", 2}});
    EXPECT_EQ(client.AnswerTo(get)["result"], Json({{"n", 2}}));
    server.Notify("/open", {{"n", 3}});
    EXPECT_EQ(client.Take("notify")["params"]["body"], Json({{"n", 3}}));

    const Json hidden = client.Call("get", {{"path", "/closed"}});
    EXPECT_EQ(RpcClient::Code(hidden), 404);
    EXPECT_EQ(hidden["error"]["data"]["guid"], "far");
    EXPECT_EQ(RpcClient::Code(client.Call("post", {{"path", "/open"}, {"body", {}}})), 405);
    EXPECT_EQ(RpcClient::Code(client.Call("subscribe", {{"path", "/closed"}, {"scope", 0}})), 404);
    EXPECT_EQ(RpcClient::Code(client.Call("serve", {{"verb", "get"}, {"path", "/x"}})), -32600);
    client.Call("unsubscribe", {{"path", "/open"}});
    server.Notify("/open", {{"n", 4}});
    client.Call("get", {{"path", "/closed"}});
    EXPECT_FALSE(client.Has("notify"));
}

TEST_F(GatewayProducts, TellsOfAProductAsItsOwnAnswersGo)
{
    RpcClient client(m_near.Port());
    client.Open("Client", "far");
    auto far = std::make_unique<Service>(m_far.Port(), Json{{"guid", "far"}});
    far->ServeInfo();
    EXPECT_FALSE(client.Has("heartbeat", 400ms)) << "before the own service has served its list";
    Service near(m_near.Port(), {{"guid", "near"}});
    near.ServeList();
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);
    EXPECT_FALSE(client.Has("heartbeat", 400ms)) << "told once";

    far.reset(); // the service alone: 404
    EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    EXPECT_EQ(client.TakeHeartbeat(), kOffline) << "at each check that fails";
    far = std::make_unique<Service>(m_far.Port(), Json{{"guid", "far"}});
    far->ServeInfo();
    while (client.TakeHeartbeat() == kOffline)
    {
    }
    EXPECT_FALSE(client.Has("heartbeat", 400ms));
}

TEST_F(GatewayProducts, NoticesADeathAndRenewsEverythingAfterTheReturn)
{
    Service near(m_near.Port(), {{"guid", "near"}});
    near.ServeList();
    auto far = std::make_unique<Service>(m_far.Port(), Json{{"guid", "far"}});
    far->ServeInfo();
    RpcClient client(m_near.Port());
    client.Open("Client", "far");
    client.Subscribe("/sonarix/info");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);

    far->Pause(true);
    const int pending = client.Ask("get", {{"path", "/sonarix/info"}});
    const auto start = std::chrono::steady_clock::now();
    m_far.Kill();
    const Json lost = client.AnswerTo(pending);
    EXPECT_EQ(RpcClient::Code(lost), 503);
    EXPECT_EQ(lost["error"]["data"]["guid"], "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 5s);
    EXPECT_EQ(RpcClient::Code(client.Call("get", {{"path", "/sonarix/info"}})), 503);
    EXPECT_EQ(RpcClient::Code(client.Call("subscribe", {{"path", "/other"}})), 0) << "holds, reached or not";

    far.reset();
    m_far.Start();
    far = std::make_unique<Service>(m_far.Port(), Json{{"guid", "far"}});
    far->ServeInfo();
    while (client.TakeHeartbeat() == kOffline)
    {
    }
    far->Notify({{"guid", "far"}, {"friendlyname", "back"}});
    EXPECT_EQ(client.Take("notify")["params"]["body"]["friendlyname"], "back");
}

TEST_F(GatewayProducts, FailsACheckThatIsNotAnsweredInTime)
{
    Service near(m_near.Port(), {{"guid", "near"}});
    near.ServeList();
    Service far(m_far.Port(), {{"guid", "far"}});
    far.ServeInfo();
    RpcClient client(m_near.Port());
    client.Open("Client", "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);
    far.Pause(true);
    EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    far.Pause(false);
    while (client.TakeHeartbeat() == kOffline)
    {
    }
}

TEST_F(GatewayProducts, TellsOfAProductThatIsNowhere)
{
    const LogCapture log;
    Service near(m_near.Port(), {{"guid", "near"}});
    near.ServeList();
    for (const std::string guid : {"away", "bad", "unknown", ""})
    {
        if (guid.empty())
        {
            continue;
        }
        RpcClient client(m_near.Port());
        client.Open("Client", guid);
        const Json answer = client.Call("get", {{"path", "/sonarix/info"}});
        EXPECT_EQ(RpcClient::Code(answer), 503) << answer;
        EXPECT_EQ(answer["error"]["data"]["guid"], guid);
        EXPECT_EQ(client.TakeHeartbeat(), kOffline);
        EXPECT_EQ(client.TakeHeartbeat(), kOffline);
        EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    }
    EXPECT_TRUE(log.Contains("nonsense")) << "a line of the file that cannot be read";
    std::size_t told = 0;
    for (const auto& line : log.Lines())
    {
        told += line.m_text.find("is not reachable") != std::string::npos ? 1U : 0U;
    }
    EXPECT_EQ(told, 3U) << log.Text();
}

TEST_F(GatewayProducts, CarriesTheOwnGuidToItself)
{
    RpcClient client(m_near.Port(), "tarsier_mTLS");
    client.Open("Client", "near");
    Service near(m_near.Port(), {{"guid", "near"}});
    near.ServeList().ServeInfo();
    while (client.TakeHeartbeat() == kOffline)
    {
    }
    EXPECT_EQ(client.Call("get", {{"path", "/sonarix/info"}})["result"], Json({{"guid", "near"}}));
    EXPECT_EQ(RpcClient::Code(client.Call("get", {{"path", "/sonarix/products"}})), 0) << "scope 1 is for itself too";
    client.Subscribe("/sonarix/info");
    near.Notify({{"n", 1}});
    EXPECT_EQ(client.Take("notify")["params"]["body"], Json({{"n", 1}}));
}

// ---- addresses from the table and from mDNS -----------------------------------------------------------------

class GatewayAddresses : public testing::Test
{
protected:
    Gateway::Settings Settings() const
    {
        Gateway::Settings settings;
        settings.peerPort = m_far.LanPort();
        return settings;
    }
    /// The far product answers at each loopback address; the kernel lets no connection go to this one.
    static constexpr const char* kNowhere = "255.255.255.255";

    GatewayUnderTest m_far{"far"};
    Service m_farService{m_far.Port(), {{"guid", "far"}}};
    GatewayUnderTest m_near{"near", Settings()};
};

TEST_F(GatewayAddresses, ComeFromTheRowOfAnyStateWithOneGetForAll)
{
    m_farService.ServeInfo();
    Service near(m_near.Port(), {{"guid", "near"}},
                 {{"products", {Row("other", kNowhere), 5, Row("far", "no address"), Row("far", "127.0.0.1")}}});
    near.Pause(true);
    near.ServeList();
    std::vector<std::unique_ptr<RpcClient>> clients;
    for (int i = 0; i < 5; ++i)
    {
        clients.push_back(std::make_unique<RpcClient>(m_near.Port()));
        clients.back()->Open("Client", "far");
    }
    near.Pause(false);
    for (const auto& client : clients)
    {
        EXPECT_EQ(client->Call("get", {{"path", "/sonarix/info"}})["result"]["guid"], "far");
    }
    EXPECT_EQ(near.ListRequests(), 1);
    EXPECT_EQ(m_near.lookup.questions, 0);
}

TEST_F(GatewayAddresses, ComeFromMdnsWhenTheRowLeadsNowhere)
{
    m_farService.ServeInfo();
    m_near.lookup.Set("far", {kNowhere, "127.0.0.1"});
    RpcClient noService(m_near.Port()); // nobody serves the list yet
    noService.Open("Client", "far");
    EXPECT_EQ(noService.Call("get", {{"path", "/sonarix/info"}})["result"]["guid"], "far");
    Service near(m_near.Port(), {{"guid", "near"}}, {{"ProductList", {{"products", {Row("far", kNowhere)}}}}});
    near.ServeList();
    RpcClient client(m_near.Port());
    client.Open("Client", "far");
    EXPECT_EQ(client.Call("get", {{"path", "/sonarix/info"}})["result"]["guid"], "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline);
    EXPECT_EQ(near.ListRequests(), 1);
    EXPECT_EQ(m_near.lookup.questions, 2);
}

TEST_F(GatewayAddresses, AreAskedForAnewWhenTheOwnServiceComesBack)
{
    m_farService.ServeInfo();
    m_near.lookup.isSilent = true;
    RpcClient client(m_near.Port());
    client.Open("Client", "far"); // as after the gateway's restart: the service's own connection comes later
    const int get = client.Ask("get", {{"path", "/sonarix/info"}});
    EXPECT_FALSE(client.Has("heartbeat", 300ms));
    EXPECT_EQ(m_near.lookup.questions, 1);
    Service near(m_near.Port(), {{"guid", "near"}}, {{"products", {Row("far", "127.0.0.1")}}});
    near.ServeList();
    EXPECT_EQ(client.AnswerTo(get)["result"]["guid"], "far");
    EXPECT_EQ(client.TakeHeartbeat(), kOnline) << "nothing was said of the time without the table";
    EXPECT_FALSE(client.Has("heartbeat", 300ms));
}

TEST_F(GatewayAddresses, AreNotAskedForAtEachAttempt)
{
    Service near(m_near.Port(), {{"guid", "near"}}, {{"products", {Row("away", kNowhere)}}});
    near.ServeList();
    RpcClient client(m_near.Port());
    client.Open("Client", "away");
    for (int i = 0; i < 5; ++i)
    {
        EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    }
    EXPECT_EQ(near.ListRequests(), 1);
    EXPECT_GE(m_near.lookup.questions, 4) << "mDNS may have a new address";
}

TEST_F(GatewayAddresses, AreNotBelievedWhereAnotherProductAnswers)
{
    m_farService.ServeInfo();
    Service near(m_near.Port(), {{"guid", "near"}}, {{"products", {Row("third", "127.0.0.1")}}});
    near.ServeList();
    RpcClient client(m_near.Port());
    client.Open("Client", "third");
    const Json answer = client.Call("get", {{"path", "/sonarix/info"}});
    EXPECT_EQ(RpcClient::Code(answer), 503);
    EXPECT_THAT(answer["error"]["message"].get<std::string>(), HasSubstr("product far answers"));
    EXPECT_EQ(client.TakeHeartbeat(), kOffline);
    EXPECT_GE(m_near.lookup.questions, 1) << "mDNS may know better";
}

// ---- with TLS -----------------------------------------------------------------------------------------------

TEST(GatewayTls, ReachesAProductThatShowsItsGuid)
{
    const LogCapture log;
    const WebSocketCertificates authority;
    Gateway::Settings settings;
    settings.tlsDir = authority.Make("far");
    GatewayUnderTest far("far", settings);
    Service farService(far.Port(), {{"guid", "far"}});
    farService.ServeInfo();
    const TemporaryFile peers("far 127.0.0.1:" + std::to_string(far.LanPort()) +
                              "\nother 127.0.0.1:" + std::to_string(far.LanPort()) + "\n");
    settings.tlsDir = authority.Make("near");
    settings.peersFile = peers.Path();
    GatewayUnderTest near("near", settings);

    RpcClient client(near.Port(), "tarsier_mTLS");
    client.Open("Client", "far");
    EXPECT_EQ(client.Call("get", {{"path", "/sonarix/info"}})["result"]["guid"], "far");
    RpcClient plain(near.Port(), "tarsier");
    plain.Open("Client", "far");
    EXPECT_EQ(plain.Call("get", {{"path", "/sonarix/info"}})["result"]["guid"], "far");
    RpcClient wrong(near.Port(), "tarsier_mTLS");
    wrong.Open("Client", "other");
    EXPECT_EQ(RpcClient::Code(wrong.Call("get", {{"path", "/sonarix/info"}})), 503);
    EXPECT_TRUE(log.Contains("not \"other\"")) << log.Text();

    settings.tlsDir.clear();
    GatewayUnderTest without("without", settings);
    RpcClient lost(without.Port(), "tarsier_mTLS");
    lost.Open("Client", "far");
    EXPECT_EQ(RpcClient::Code(lost.Call("get", {{"path", "/sonarix/info"}})), 503);
    EXPECT_TRUE(log.Contains("--tls-dir"));
}

} // namespace
