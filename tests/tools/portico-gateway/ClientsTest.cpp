#include "tests/tools/portico-gateway/GatewayUnderTest.h"
#include "tests/tools/portico-gateway/RpcClient.h"
#include "tests/websocket/support/WebSocketRawClient.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace std::chrono_literals;
using Json = RpcClient::Json;

namespace
{

class GatewayClients : public testing::Test
{
protected:
    GatewayUnderTest m_gateway{"own", GatewayUnderTest::AnsweringWithin(300ms)};
    RpcClient m_server{m_gateway.Port(), "Server"};
    RpcClient m_client{m_gateway.Port(), "Client", "", "tarsier_mTLS"};
    RpcClient m_second{m_gateway.Port(), "Second"};
};

TEST_F(GatewayClients, RequestAndAnswerAreForwardedUnchanged)
{
    m_server.Serve("get", "/p", 0);
    m_server.Serve("POST", "/p", 1);
    const int get = m_client.SendRequest("get", {{"path", "/p"}, {"version", 1.0}});
    Json request = m_server.Take("get");
    EXPECT_EQ(request["params"], Json({{"path", "/p"}, {"version", 1.0}}));
    const Json record = {{"name", "K\u00fcche"}, {"list", {1, 2.5, nullptr, true}}, {"big", 18446744073709551615U}};
    m_server.Answer(request, record);
    EXPECT_EQ(m_client.AnswerTo(get), Json({{"jsonrpc", "2.0"}, {"id", get}, {"result", record}}));

    const int post = m_client.SendRequest("post", {{"path", "/p"}, {"version", 2}, {"body", record}});
    request = m_server.Take("post");
    EXPECT_EQ(request["params"], Json({{"path", "/p"}, {"version", 2}, {"body", record}}));
    const Json error = {{"code", 17}, {"message", "no"}, {"data", {{"subcode", 2005}, {"guid", "g"}}}};
    m_server.Answer(request, error, "error");
    EXPECT_EQ(m_client.AnswerTo(post)["error"], error);

    m_server.Answer(request, {}); // a second answer is ignored
    m_server.Answer({{"id", "no number"}}, error, "error");
    EXPECT_EQ(m_client.Code("put", {{"path", "/p"}}), 405);
    EXPECT_EQ(m_client.Code("get", {{"path", "/q"}}), 404);
}

TEST_F(GatewayClients, EqualIdsOfTwoClientsStaySeparate)
{
    m_server.Serve("get", "/p", 0);
    const std::vector<std::pair<RpcClient*, Json>> clients = {
        {&m_client, 7}, {&m_client, "7"}, {&m_client, 1.5}, {&m_client, nullptr}, {&m_second, 7}};
    std::vector<Json> requests;
    for (const auto& [client, id] : clients)
    {
        client->Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "get"}, {"params", {{"path", "/p"}}}});
        requests.push_back(m_server.Take("get"));
    }
    for (std::size_t i = requests.size(); i-- > 0;)
    {
        m_server.Answer(requests[i], {{"number", i}});
    }
    for (std::size_t i = 0; i < clients.size(); ++i)
    {
        EXPECT_EQ(clients[i].first->AnswerTo(clients[i].second)["result"]["number"], i);
    }
}

TEST_F(GatewayClients, RequestEndsWithoutAnAnswerInTime)
{
    m_server.Serve("get", "/p", 0);
    const int first = m_client.SendRequest("get", {{"path", "/p"}});
    const Json request = m_server.Take("get");
    const Json answer = m_client.AnswerTo(first);
    EXPECT_EQ(RpcClient::Code(answer), 504);
    EXPECT_EQ(answer["error"]["data"], Json({{"subcode", 0}, {"guid", "own"}}));

    m_server.Answer(request, {{"late", true}});
    const int second = m_client.SendRequest("get", {{"path", "/p"}});
    m_server.Answer(m_server.Take("get"), {{"late", false}});
    EXPECT_EQ(m_client.AnswerTo(second)["result"], Json({{"late", false}}));
}

TEST_F(GatewayClients, LostServerOrClientEndsItsRequests)
{
    m_server.Serve("get", "/p", 0);
    auto leaving = std::make_unique<RpcClient>(m_gateway.Port(), "Leaving");
    leaving->Serve("get", "/q", 0);
    leaving->SendRequest("get", {{"path", "/p"}});
    const Json request = m_server.Take("get");
    const int get = m_client.SendRequest("get", {{"path", "/q"}});
    leaving->Take("get");
    leaving.reset();
    EXPECT_EQ(RpcClient::Code(m_client.AnswerTo(get)), 404)
        << "not 504, which means that the server is still connected";
    m_server.Answer(request, {}); // the client has gone
    m_server.Serve("get", "/q", 0);
}

TEST_F(GatewayClients, PathHasOneServerPerVerb)
{
    const Json get = {{"verb", "get"}, {"path", "/p"}, {"scope", 0}};
    m_server.Serve("get", "/p", 1);
    m_server.Serve("get", "/p", 0); // again, with another scope
    EXPECT_EQ(m_client.Code("serve", get), 409);
    m_client.Serve("put", "/p", 1);
    EXPECT_EQ(m_client.Code("withdraw", get), 404);
    EXPECT_EQ(m_server.Code("withdraw", get), 0);
    EXPECT_EQ(m_client.Code("get", {{"path", "/p"}}), 405);
    m_client.ServeRecord("/p", 0, {{"own", 1}});
    EXPECT_EQ(m_client.Call("get", {{"path", "/p"}})["result"]["own"], 1) << "a client may request its own path";
}

TEST_F(GatewayClients, InvalidFrameGetsItsErrorCode)
{
    RpcClient early(m_gateway.Port());
    EXPECT_EQ(early.Code("get", {{"path", "/p"}}), -32600) << "before open";
    EXPECT_EQ(early.Code("open", {{"service", 1}}), -32602);
    m_client.Send({{"jsonrpc", "2.0"}, {"method", "no such"}}); // notifications and answers are not answered
    m_client.Answer({{"id", nullptr}}, {{"code", 1}}, "error");
    const std::string head = R"({"jsonrpc":"2.0","id":null,"method":)";
    const std::vector<std::pair<std::string, int>> cases = {
        {"\"\\ud800\"", -32700},
        {"[" + head + "\"get\"}]", -32600},
        {head + R"("GET","params":{"path":"/p"}})", -32601},
        {head + R"("get","params":{"path":5}})", -32602},
        {head + R"("get","params":{"path":"/p","body":[[[]]]}})", 404},
    };
    for (const auto& [text, code] : cases)
    {
        m_client.SendText(text);
        const Json answer = m_client.AnswerTo(nullptr);
        EXPECT_EQ(RpcClient::Code(answer), code) << text.substr(0, 120) << " -> " << answer;
    }
}

TEST_F(GatewayClients, RequestsAndSubscriptionsAreBounded)
{
    // The request limit is long enough for the first request to wait while the last is sent.
    const GatewayUnderTest gateway("own", GatewayUnderTest::AnsweringWithin(2500ms));
    RpcClient server(gateway.Port(), "Server");
    RpcClient client(gateway.Port(), "Client");
    server.Serve("get", "/p", 0);
    const int count = 1100;
    for (int i = 0; i < count; ++i)
    {
        client.SendRequest("get", {{"path", "/p"}});
    }
    int refused = 0;
    for (int id = 2; id <= count + 1; ++id) // 1 is open
    {
        refused += RpcClient::Code(client.AnswerTo(id)) == 503 ? 1 : 0;
    }
    EXPECT_GE(refused, 1);
    EXPECT_EQ(client.Code("get", {{"path", "/p"}}), 504) << "the limit is free again";

    for (int i = 0; i < 4096; ++i)
    {
        server.SendRequest("subscribe", {{"path", "/" + std::to_string(i)}});
    }
    EXPECT_EQ(server.Code("subscribe", {{"path", "/one more"}}), 503);
    EXPECT_EQ(server.Code("subscribe", {{"path", "/0"}}), 0);
}

TEST_F(GatewayClients, SubscriptionGetsNotificationsOfTheServerOnly)
{
    m_client.Subscribe("/p");
    m_server.Serve("get", "/p", 1);
    m_second.Notify("/p", {{"forged", true}});
    EXPECT_EQ(m_second.Code("notify", {{"path", "/p"}}), 404);
    m_server.Notify("/p", {{"n", 1}});
    m_server.Notify("/p", {{"n", 2}});
    EXPECT_EQ(m_client.Take("notify"), Json({{"jsonrpc", "2.0"},
                                             {"method", "notify"},
                                             {"params", {{"path", "/p"}, {"version", 1.0}, {"body", {{"n", 1}}}}}}));
    EXPECT_EQ(m_client.TakeBody(), Json({{"n", 2}}));

    m_second.Subscribe("/p"); // a new subscriber gets the last notification
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 2}}));
    m_client.Call("unsubscribe", {{"path", "/p"}});
    m_server.Notify("/p", {{"n", 3}});
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 3}}));
    EXPECT_TRUE(m_client.HasNoNotification());
}

TEST_F(GatewayClients, LastNotificationIsDroppedWithItsServer)
{
    auto server = std::make_unique<RpcClient>(m_gateway.Port(), "Leaving");
    server->Serve("get", "/p", 1);
    server->Serve("post", "/p", 1);
    server->Notify("/p", {{"n", 1}});
    server->Call("withdraw", {{"verb", "get"}, {"path", "/p"}}); // post is still served
    m_client.Subscribe("/p");
    EXPECT_EQ(m_client.TakeBody(), Json({{"n", 1}}));
    server->Call("withdraw", {{"verb", "post"}, {"path", "/p"}});
    m_second.Subscribe("/p");
    EXPECT_TRUE(m_second.HasNoNotification());

    server->Serve("get", "/p", 1);
    server->Notify("/p", {{"n", 2}});
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 2}}));
    server.reset();
    RpcClient successor(m_gateway.Port(), "Server");
    while (successor.Code("serve", {{"verb", "get"}, {"path", "/p"}, {"scope", 1}}) ==
           409) // the lost connection is not noticed yet
    {
    }
    RpcClient late(m_gateway.Port(), "Late");
    late.Subscribe("/p");
    EXPECT_TRUE(late.HasNoNotification());
    successor.Notify("/p", {{"n", 3}});
    EXPECT_EQ(late.TakeBody(), Json({{"n", 3}}));
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 3}})) << "the subscription stays without the server";
}

TEST_F(GatewayClients, SlowSubscriberGetsTheLastNotification)
{
    constexpr int kLast = 5;
    const std::string filling(1U << 20U, 'x'); // exceeds kMaxAheadBytes and the socket buffer
    m_server.Serve("get", "/large", 1);
    WebSocketRawClient slow(m_gateway.Port());
    slow.Open();
    const auto call = [&slow](const std::string& rest)
    { slow.Send(WebSocketRawClient::Frame(1, R"({"jsonrpc":"2.0","id":)" + rest + "}")); };
    call(R"("first","method":"open","params":{"service":"Slow"})");
    call(R"("second","method":"subscribe","params":{"path":"/large"})");
    slow.Receive("second");
    for (int n = 1; n <= kLast; ++n)
    {
        m_server.SendText(
            R"({"jsonrpc":"2.0","method":"notify","params":{"path":"/large","version":1.0,"body":{"f":")" + filling +
            R"(","n":)" + std::to_string(n) + "}}}");
        m_server.Call("get", {{"path", "/not-served"}}); // answered after the notification was forwarded
    }

    const std::string heard = slow.Receive(R"("n":5)");
    EXPECT_NE(heard.find(R"("n":1)"), std::string::npos);
    EXPECT_EQ(heard.find(R"("n":4)"), std::string::npos);
    call(R"("alive","method":"get","params":{"path":"/nobody"})");
    EXPECT_NE(slow.Receive(R"("alive")").find("404"), std::string::npos) << "the connection must stay open";
}

TEST_F(GatewayClients, LanClientsSeeScopeZeroOnly)
{
    RpcClient lan(m_gateway.LanPort());
    EXPECT_EQ(lan.Code("get", {{"path", "/open"}}), -32600);
    EXPECT_EQ(lan.Code("open", {{"service", "x"}, {"guid", "other"}}), -32602);
    EXPECT_EQ(lan.Code("open", {{"service", "x"}, {"guid", ""}}), 0);
    EXPECT_EQ(lan.Code("subscribe", {{"path", "/any"}, {"scope", 1}}), 404);
    lan.Subscribe("/closed"); // not served yet
    lan.Subscribe("/open");
    m_server.Serve("get", "/closed", 1);
    m_server.Serve("get", "/open", 0);
    m_server.Serve("post", "/open", 0);
    m_server.Notify("/closed", {{"secret", 1}});
    m_server.Notify("/open", {{"n", 1}});
    EXPECT_EQ(lan.TakeBody(), Json({{"n", 1}}));
    EXPECT_TRUE(lan.HasNoNotification());

    EXPECT_EQ(lan.Code("get", {{"path", "/closed"}}), 404);
    EXPECT_EQ(lan.Code("delete", {{"path", "/closed"}}), 404);
    EXPECT_EQ(lan.Code("post", {{"path", "/open"}, {"body", 1}}), 405);
    EXPECT_EQ(lan.Code("subscribe", {{"path", "/closed"}, {"scope", 0}}), 404);
    for (const char* const method : {"serve", "withdraw", "unsubscribe", "notify", "heartbeat", "nonsense"})
    {
        EXPECT_EQ(lan.Code(method, {{"path", "/new"}, {"verb", "get"}, {"scope", 0}}), -32601) << method;
    }
    EXPECT_FALSE(m_server.Has("get") || m_server.Has("post") || m_server.Has("delete"));
}

} // namespace
