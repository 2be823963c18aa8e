#include "GatewayUnderTest.h"
#include "RpcClient.h"

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

class GatewayRequests : public testing::Test
{
protected:
    static Gateway::Settings Settings()
    {
        Gateway::Settings settings;
        settings.timings.requestLimit = 300ms;
        return settings;
    }

    GatewayUnderTest m_gateway{"own", Settings()};
    RpcClient m_server{m_gateway.Port(), "Server"};
    RpcClient m_asker{m_gateway.Port(), "Asker", "", "tarsier_mTLS"};
};

TEST_F(GatewayRequests, CarriesARequestAndItsAnswer)
{
    m_server.Serve("get", "/p", 0);
    m_server.Serve("POST", "/p", 1);
    const int get = m_asker.Ask("get", {{"path", "/p"}, {"version", 1.0}});
    Json request = m_server.Take("get");
    EXPECT_EQ(request["params"], Json({{"path", "/p"}, {"version", 1.0}}));
    const Json record = {{"name", "K\u00fcche"}, {"list", {1, 2.5, nullptr, true}}, {"big", 18446744073709551615U}};
    m_server.Answer(request, record);
    EXPECT_EQ(m_asker.AnswerTo(get), Json({{"jsonrpc", "2.0"}, {"id", get}, {"result", record}}));

    const int post = m_asker.Ask("post", {{"path", "/p"}, {"version", 2}, {"body", record}});
    request = m_server.Take("post");
    EXPECT_EQ(request["params"], Json({{"path", "/p"}, {"version", 2}, {"body", record}}));
    const Json error = {{"code", 17}, {"message", "no"}, {"data", {{"subcode", 2005}, {"guid", "g"}}}};
    m_server.Answer(request, error, "error");
    EXPECT_EQ(m_asker.AnswerTo(post)["error"], error);

    m_server.Answer(request, {}); // a second answer is nobody's
    m_server.Answer({{"id", "no number"}}, error, "error");
    EXPECT_EQ(m_asker.Code("put", {{"path", "/p"}}), 405);
    EXPECT_EQ(m_asker.Code("get", {{"path", "/q"}}), 404);
}

TEST_F(GatewayRequests, KeepsTheIdsOfAskersApart)
{
    m_server.Serve("get", "/p", 0);
    RpcClient other(m_gateway.Port(), "Other");
    const std::vector<std::pair<RpcClient*, Json>> askers = {
        {&m_asker, 7}, {&m_asker, "7"}, {&m_asker, 1.5}, {&m_asker, nullptr}, {&other, 7}};
    std::vector<Json> requests;
    for (const auto& [client, id] : askers)
    {
        client->Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "get"}, {"params", {{"path", "/p"}}}});
        requests.push_back(m_server.Take("get"));
    }
    for (std::size_t i = requests.size(); i-- > 0;)
    {
        m_server.Answer(requests[i], {{"number", i}});
    }
    for (std::size_t i = 0; i < askers.size(); ++i)
    {
        EXPECT_EQ(askers[i].first->AnswerTo(askers[i].second)["result"]["number"], i);
    }
}

TEST_F(GatewayRequests, EndsWithoutAnAnswerInTime)
{
    m_server.Serve("get", "/p", 0);
    const auto start = std::chrono::steady_clock::now();
    const int first = m_asker.Ask("get", {{"path", "/p"}});
    const Json request = m_server.Take("get");
    const Json answer = m_asker.AnswerTo(first);
    EXPECT_EQ(RpcClient::Code(answer), 504);
    EXPECT_EQ(answer["error"]["data"], Json({{"subcode", 0}, {"guid", "own"}}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 290ms);

    m_server.Answer(request, {{"late", true}});
    const int second = m_asker.Ask("get", {{"path", "/p"}});
    m_server.Answer(m_server.Take("get"), {{"late", false}});
    EXPECT_EQ(m_asker.AnswerTo(second)["result"], Json({{"late", false}}));
}

TEST_F(GatewayRequests, OutliveTheServerAndTheAskerThatGo)
{
    m_server.Serve("get", "/p", 0);
    auto leaving = std::make_unique<RpcClient>(m_gateway.Port(), "Leaving");
    leaving->Serve("get", "/q", 0);
    leaving->Ask("get", {{"path", "/p"}});
    const Json request = m_server.Take("get");
    const int get = m_asker.Ask("get", {{"path", "/q"}});
    leaving->Take("get");
    leaving.reset();
    EXPECT_EQ(RpcClient::Code(m_asker.AnswerTo(get)), 404) << "504 is that of a server that is still there";
    m_server.Answer(request, {}); // to nobody
    m_server.Serve("get", "/q", 0);
}

TEST_F(GatewayRequests, GivesAPathToOneServerPerVerb)
{
    const Json get = {{"verb", "get"}, {"path", "/p"}, {"scope", 0}};
    m_server.Serve("get", "/p", 1);
    m_server.Serve("get", "/p", 0); // again, with another scope
    EXPECT_EQ(m_asker.Code("serve", get), 409);
    m_asker.Serve("put", "/p", 1);
    EXPECT_EQ(m_asker.Code("withdraw", get), 404);
    EXPECT_EQ(m_server.Code("withdraw", get), 0);
    EXPECT_EQ(m_asker.Code("get", {{"path", "/p"}}), 405);
    m_asker.Serve("get", "/p", 0);
    const int own = m_asker.Ask("get", {{"path", "/p"}}); // a client may ask itself
    m_asker.Answer(m_asker.Take("get"), {{"own", 1}});
    EXPECT_EQ(m_asker.AnswerTo(own)["result"]["own"], 1);
}

TEST_F(GatewayRequests, AnswersWhatIsNoRequestByItsError)
{
    const std::string head = R"({"jsonrpc":"2.0","id":null,"method":)";
    const std::vector<std::pair<std::string, int>> cases = {
        {"", -32700},
        {"\"\\ud800\"", -32700},
        {std::string(200000, '['), -32700},
        {"[" + head + "\"get\"}]", -32600},
        {R"({"jsonrpc":"2.0","id":{},"method":"get","params":{"path":"/p"}})", -32600},
        {head + R"(5})", -32600},
        {head + R"("GET","params":{"path":"/p"}})", -32601},
        {head + R"("heartbeat","params":{"guid":"x","status":1}})", -32601},
        {head + R"("get"})", -32602},
        {head + R"("get","params":{"path":5}})", -32602},
        {head + R"("get","params":{"path":")" + std::string(1025, 'p') + "\"}}", -32602},
        {head + R"("get","params":{"path":"/p","version":"1.0"}})", -32602},
        {head + R"("subscribe","params":{"path":"/p","scope":2}})", -32602},
        {head + R"("serve","params":{"path":"/p","verb":"patch"}})", -32602},
        {head + R"("get","params":{"path":"/p","body":[[[]]]}})", 404},
    };
    for (const auto& [text, code] : cases)
    {
        m_asker.SendText(text);
        const Json answer = m_asker.AnswerTo(nullptr);
        EXPECT_EQ(RpcClient::Code(answer), code) << text.substr(0, 120) << " -> " << answer;
        EXPECT_TRUE(answer["error"]["message"].is_string() && answer["error"]["data"]["subcode"].is_number());
    }
}

TEST_F(GatewayRequests, NeedOpenFirstAndNotificationsHaveNoAnswer)
{
    RpcClient early(m_gateway.Port());
    EXPECT_EQ(early.Code("get", {{"path", "/p"}}), -32600);
    EXPECT_EQ(early.Code("open", {{"service", 1}}), -32602);
    EXPECT_EQ(early.Code("open", {{"service", "Early"}}), 0);
    early.Send({{"jsonrpc", "2.0"}, {"method", "serve"}, {"params", {{"verb", "get"}, {"path", "/quiet"}}}});
    early.Send({{"jsonrpc", "2.0"}, {"method", "no such"}});
    early.Answer({{"id", 99}}, {{"code", 1}}, "error"); // an answer is never answered
    EXPECT_EQ(early.Code("get", {{"path", "/nobody"}}), 404);
    EXPECT_EQ(m_asker.Code("serve", {{"verb", "get"}, {"path", "/quiet"}}), 409);
}

TEST_F(GatewayRequests, RefuseMoreThanTheGatewayCanHold)
{
    m_server.Serve("get", "/p", 0);
    std::vector<int> ids(1100);
    for (int& id : ids)
    {
        id = m_asker.Ask("get", {{"path", "/p"}});
    }
    int refused = 0;
    for (const int id : ids)
    {
        const int code = RpcClient::Code(m_asker.AnswerTo(id));
        refused += code == 503 ? 1 : 0;
        EXPECT_TRUE(code == 503 || code == 504) << code;
    }
    EXPECT_GE(refused, 1);
    EXPECT_EQ(m_asker.Code("get", {{"path", "/p"}}), 504) << "there is room again";
}

} // namespace
