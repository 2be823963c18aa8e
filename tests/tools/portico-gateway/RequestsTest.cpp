#include "GatewayUnderTest.h"
#include "RpcClient.h"

#include <gmock/gmock.h>
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
    GatewayRequests()
    {
        m_server.Open("Server");
        m_asker.Open("Asker");
    }
    static Gateway::Settings Settings()
    {
        Gateway::Settings settings;
        settings.timings.requestLimit = 300ms;
        return settings;
    }

    GatewayUnderTest m_gateway{"own", Settings()};
    RpcClient m_server{m_gateway.Port()};
    RpcClient m_asker{m_gateway.Port(), "tarsier_mTLS"};
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
    m_server.AnswerError(request, error);
    EXPECT_EQ(m_asker.AnswerTo(post)["error"], error);

    m_server.Answer(request, {}); // a second answer is nobody's
    m_server.AnswerError({{"id", "no number"}}, error);
    EXPECT_EQ(RpcClient::Code(m_asker.Call("put", {{"path", "/p"}})), 405);
    EXPECT_EQ(RpcClient::Code(m_asker.Call("get", {{"path", "/q"}})), 404);
}

TEST_F(GatewayRequests, KeepsTheIdsOfAskersApart)
{
    m_server.Serve("get", "/p", 0);
    RpcClient other(m_gateway.Port());
    other.Open("Other");
    const std::vector<Json> ids = {7, "7", "text", 1.5, nullptr, -3};
    for (const Json& id : ids)
    {
        m_asker.Send({{"jsonrpc", "2.0"}, {"id", id}, {"method", "get"}, {"params", {{"path", "/p"}}}});
    }
    std::vector<Json> requests;
    while (requests.size() < ids.size())
    {
        requests.push_back(m_server.Take("get"));
    }
    const int same = 7;
    other.Send({{"jsonrpc", "2.0"}, {"id", same}, {"method", "get"}, {"params", {{"path", "/p"}}}});
    requests.push_back(m_server.Take("get"));
    for (std::size_t i = ids.size(); i < requests.size(); --i)
    {
        m_server.Answer(requests[i], {{"number", i}});
    }
    for (std::size_t i = 0; i < ids.size(); ++i)
    {
        EXPECT_EQ(m_asker.AnswerTo(ids[i])["result"]["number"], i) << ids[i];
    }
    EXPECT_EQ(other.AnswerTo(same)["result"]["number"], ids.size());
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

TEST_F(GatewayRequests, TellsTheAskerAtOnceThatTheServerHasGone)
{
    auto dying = std::make_unique<RpcClient>(m_gateway.Port());
    dying->Open("Dying");
    dying->Serve("get", "/p", 0);
    const int get = m_asker.Ask("get", {{"path", "/p"}});
    dying->Take("get");
    dying.reset();
    EXPECT_EQ(RpcClient::Code(m_asker.AnswerTo(get)), 404) << "504 is that of a server that is still there";
    m_server.Serve("get", "/p", 0); // free again
}

TEST_F(GatewayRequests, DropsTheAnswerToAnAskerThatHasGone)
{
    m_server.Serve("get", "/p", 0);
    auto leaving = std::make_unique<RpcClient>(m_gateway.Port());
    leaving->Open("Leaving");
    leaving->Ask("get", {{"path", "/p"}});
    const Json request = m_server.Take("get");
    leaving.reset();
    while (m_gateway.ClientCount() > 2)
    {
        std::this_thread::yield();
    }
    m_server.Answer(request, {});
    EXPECT_EQ(RpcClient::Code(m_server.Call("get", {{"path", "/q"}})), 404);
}

TEST_F(GatewayRequests, GivesAPathToOneServerPerVerb)
{
    const Json get = {{"verb", "get"}, {"path", "/p"}, {"scope", 0}};
    m_server.Serve("get", "/p", 1);
    m_server.Serve("get", "/p", 0); // again, with another scope
    EXPECT_EQ(RpcClient::Code(m_asker.Call("serve", get)), 409);
    m_asker.Serve("put", "/p", 1);
    EXPECT_EQ(RpcClient::Code(m_asker.Call("withdraw", get)), 404);
    EXPECT_EQ(m_server.Call("withdraw", get)["result"], Json::object());
    EXPECT_EQ(RpcClient::Code(m_asker.Call("get", {{"path", "/p"}})), 405);
    m_asker.Serve("get", "/p", 0);
    const int own = m_asker.Ask("get", {{"path", "/p"}}); // a client may ask itself
    m_asker.Answer(m_asker.Take("get"), {{"own", 1}});
    EXPECT_EQ(m_asker.AnswerTo(own)["result"]["own"], 1);
}

TEST_F(GatewayRequests, AnswersWhatIsNoRequestByItsError)
{
    const std::vector<std::pair<std::string, int>> cases = {
        {"", -32700},
        {"{", -32700},
        {"{} x", -32700},
        {"\"\\ud800\"", -32700},
        {std::string(200000, '['), -32700},
        {R"({"a":)" + std::string(101, '[') + std::string(101, ']') + "}", -32700},
        {"[]", -32600},
        {"17", -32600},
        {R"([{"jsonrpc":"2.0","id":1,"method":"get"}])", -32600},
        {"{}", -32600},
        {R"({"id":null,"method":"get","params":{"path":"/p"}})", -32600},
        {R"({"jsonrpc":2.0,"id":null,"method":"get","params":{"path":"/p"}})", -32600},
        {R"({"jsonrpc":"2.0","id":{},"method":"get","params":{"path":"/p"}})", -32600},
        {R"({"jsonrpc":"2.0","id":[1],"method":"get","params":{"path":"/p"}})", -32600},
        {R"({"jsonrpc":"2.0","id":null,"method":5})", -32600},
        {R"({"jsonrpc":"2.0","id":null,"method":"open","params":{"service":"again"}})", -32600},
        {R"({"jsonrpc":"2.0","id":null,"method":"GET","params":{"path":"/p"}})", -32601},
        {R"({"jsonrpc":"2.0","id":null,"method":"heartbeat","params":{"guid":"x","status":1}})", -32601},
        {R"({"jsonrpc":"2.0","id":null,"method":"","params":{}})", -32601},
        {R"({"jsonrpc":"2.0","id":null,"method":"get"})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":["/p"]})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":{"path":5}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":{"path":""}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":{"path":")" + std::string(1025, 'p') + "\"}}", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":{"path":"/p","version":"1.0"}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"subscribe","params":{"path":"/p","scope":2}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"subscribe","params":{"scope":0}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"serve","params":{"path":"/p","scope":0}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"serve","params":{"path":"/p","verb":"patch"}})", -32602},
        {R"({"jsonrpc":"2.0","id":null,"method":"get","params":{"path":"/p","body":[[[]]]}})", 404},
    };
    for (const auto& [text, code] : cases)
    {
        m_asker.SendText(text);
        const Json answer = m_asker.AnswerTo(nullptr);
        EXPECT_EQ(RpcClient::Code(answer), code) << text.substr(0, 120) << " -> " << answer;
        EXPECT_EQ(answer["jsonrpc"], "2.0");
        EXPECT_TRUE(answer["error"]["message"].is_string() && answer["error"]["data"]["subcode"].is_number());
    }
}

TEST_F(GatewayRequests, NeedsOpenFirstAndAnswersNoNotification)
{
    RpcClient early(m_gateway.Port());
    EXPECT_EQ(RpcClient::Code(early.Call("get", {{"path", "/p"}})), -32600);
    EXPECT_EQ(RpcClient::Code(early.Call("open", {{"guid", ""}})), -32602);
    EXPECT_EQ(RpcClient::Code(early.Call("open", {{"service", 1}})), -32602);
    early.Open("Early");
    early.Send({{"jsonrpc", "2.0"}, {"method", "serve"}, {"params", {{"verb", "get"}, {"path", "/quiet"}}}});
    early.Send({{"jsonrpc", "2.0"}, {"method", "no such"}});
    early.Send({{"jsonrpc", "2.0"}, {"id", 99}, {"error", {{"code", 1}}}}); // an answer is never answered
    const int last = early.Ask("get", {{"path", "/nobody"}});
    const Json next = early.AnswerTo(last);
    EXPECT_EQ(RpcClient::Code(next), 404);
    EXPECT_EQ(RpcClient::Code(m_asker.Call("serve", {{"verb", "get"}, {"path", "/quiet"}})), 409);
}

TEST_F(GatewayRequests, RefusesMoreThanItCanHold)
{
    m_server.Serve("get", "/p", 0);
    const int count = 1100;
    std::vector<int> ids;
    for (int i = 0; i < count; ++i)
    {
        ids.push_back(m_asker.Ask("get", {{"path", "/p"}}));
    }
    int refused = 0;
    for (const int id : ids)
    {
        const int code = RpcClient::Code(m_asker.AnswerTo(id));
        refused += code == 503 ? 1 : 0;
        EXPECT_TRUE(code == 503 || code == 504) << code;
    }
    EXPECT_GE(refused, 1);
    const int again = m_asker.Ask("get", {{"path", "/p"}});
    m_server.Forget("get");
    EXPECT_EQ(RpcClient::Code(m_asker.AnswerTo(again)), 504);

    m_asker.SendText(std::string((4U << 20U) + 1, ' '));
    EXPECT_TRUE(m_asker.WaitForClosed());
}

} // namespace
