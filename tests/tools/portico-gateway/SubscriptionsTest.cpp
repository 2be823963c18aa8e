#include "GatewayUnderTest.h"
#include "RpcClient.h"

#include <gtest/gtest.h>

#include <memory>

using Json = RpcClient::Json;

namespace
{

class GatewaySubscriptions : public testing::Test
{
protected:
    GatewaySubscriptions()
    {
        m_server->Open("Server");
        m_first.Open("First");
        m_second.Open("Second");
    }
    static Json Body(const Json& frame)
    {
        return frame.is_null() ? Json() : frame["params"]["body"];
    }
    /// Everything that the gateway had to say to the client before now has come.
    static void Settle(RpcClient& client)
    {
        client.Call("get", {{"path", "/nobody serves this"}});
    }

    GatewayUnderTest m_gateway{"own"};
    std::unique_ptr<RpcClient> m_server = std::make_unique<RpcClient>(m_gateway.Port());
    RpcClient m_first{m_gateway.Port()};
    RpcClient m_second{m_gateway.Port()};
};

TEST_F(GatewaySubscriptions, HoldBeforeThePathIsServedAndReachAll)
{
    m_first.Subscribe("/p");
    m_second.Subscribe("/p");
    m_second.Subscribe("/other");
    m_server->Serve("get", "/p", 1);
    m_server->Notify("/p", {{"n", 1}});
    const Json frame = m_first.Take("notify");
    EXPECT_EQ(frame, Json({{"jsonrpc", "2.0"},
                           {"method", "notify"},
                           {"params", {{"path", "/p"}, {"version", 1.0}, {"body", {{"n", 1}}}}}}));
    EXPECT_EQ(Body(m_second.Take("notify")), Json({{"n", 1}}));

    m_first.Call("unsubscribe", {{"path", "/p"}});
    m_server->Notify("/p", {{"n", 2}});
    EXPECT_EQ(Body(m_second.Take("notify")), Json({{"n", 2}}));
    Settle(m_first);
    EXPECT_FALSE(m_first.Has("notify"));
}

TEST_F(GatewaySubscriptions, GiveTheLastNotificationToWhoComesLater)
{
    m_server->Serve("get", "/p", 1);
    m_server->Notify("/p", {{"n", 1}});
    m_server->Notify("/p", {{"n", 2}});
    Settle(*m_server);
    m_first.Subscribe("/p");
    EXPECT_EQ(Body(m_first.Take("notify")), Json({{"n", 2}}));
    Settle(m_first);
    EXPECT_FALSE(m_first.Has("notify"));
}

TEST_F(GatewaySubscriptions, ForgetWhatAServerSaidThatHasGone)
{
    m_server->Serve("get", "/p", 1);
    m_server->Serve("post", "/p", 1);
    m_server->Notify("/p", {{"n", 1}});
    m_server->Call("withdraw", {{"verb", "get"}, {"path", "/p"}}); // it serves the other verb still
    m_first.Subscribe("/p");
    EXPECT_EQ(Body(m_first.Take("notify")), Json({{"n", 1}}));
    m_server->Call("withdraw", {{"verb", "post"}, {"path", "/p"}});
    m_second.Subscribe("/p");
    Settle(m_second);
    EXPECT_FALSE(m_second.Has("notify"));

    m_server->Serve("get", "/p", 1);
    m_server->Notify("/p", {{"n", 2}});
    EXPECT_EQ(Body(m_second.Take("notify")), Json({{"n", 2}}));
    m_server.reset();
    RpcClient heir(m_gateway.Port());
    heir.Open("Server");
    heir.Serve("get", "/p", 1);
    RpcClient late(m_gateway.Port());
    late.Open("Late");
    late.Subscribe("/p");
    Settle(late);
    EXPECT_FALSE(late.Has("notify"));
    heir.Notify("/p", {{"n", 3}});
    EXPECT_EQ(Body(late.Take("notify")), Json({{"n", 3}}));
    EXPECT_EQ(Body(m_second.Take("notify")), Json({{"n", 3}})); // the subscription outlived the server
}

TEST_F(GatewaySubscriptions, TakeNotificationsFromTheServerAlone)
{
    m_server->Serve("get", "/p", 1);
    m_first.Subscribe("/p");
    m_second.Notify("/p", {{"forged", true}});
    EXPECT_EQ(RpcClient::Code(m_second.Call("notify", {{"path", "/p"}})), 404);
    m_server->Notify("/p", {{"forged", false}});
    EXPECT_EQ(Body(m_first.Take("notify")), Json({{"forged", false}}));
}

TEST_F(GatewaySubscriptions, StayBounded)
{
    for (int i = 0; i < 4096; ++i)
    {
        m_first.Ask("subscribe", {{"path", "/" + std::to_string(i)}});
    }
    EXPECT_EQ(RpcClient::Code(m_first.Call("subscribe", {{"path", "/one more"}})), 503);
    EXPECT_EQ(RpcClient::Code(m_first.Call("subscribe", {{"path", "/0"}})), 0);
}

// ---- from the LAN -------------------------------------------------------------------------------------------

TEST_F(GatewaySubscriptions, AndRequestsFromTheLanSeeScopeZeroAlone)
{
    m_server->Serve("get", "/open", 0);
    m_server->Serve("post", "/open", 0);
    m_server->Serve("get", "/closed", 1);
    RpcClient lan(m_gateway.LanPort());
    EXPECT_EQ(RpcClient::Code(lan.Call("get", {{"path", "/open"}})), -32600);
    EXPECT_EQ(RpcClient::Code(lan.Call("open", {{"service", "x"}, {"guid", "own"}})), -32602);
    EXPECT_EQ(RpcClient::Code(lan.Call("open", {{"service", "x"}, {"guid", "other"}})), -32602);
    lan.Open("Neighbour");

    const int get = lan.Ask("get", {{"path", "/open"}});
    m_server->Answer(m_server->Take("get"), {{"n", 1}});
    EXPECT_EQ(lan.AnswerTo(get)["result"], Json({{"n", 1}}));
    EXPECT_EQ(RpcClient::Code(lan.Call("get", {{"path", "/closed"}})), 404);
    EXPECT_EQ(RpcClient::Code(lan.Call("post", {{"path", "/open"}, {"body", 1}})), 405);
    EXPECT_EQ(RpcClient::Code(lan.Call("delete", {{"path", "/closed"}})), 404);
    for (const char* const method : {"serve", "withdraw", "unsubscribe", "notify", "heartbeat", "nonsense"})
    {
        EXPECT_EQ(RpcClient::Code(lan.Call(method, {{"path", "/new"}, {"verb", "get"}, {"scope", 0}})), -32601)
            << method;
    }
    EXPECT_FALSE(m_server->Has("post") || m_server->Has("delete"));
}

TEST_F(GatewaySubscriptions, FromTheLanNeverHearScopeOne)
{
    RpcClient lan(m_gateway.LanPort());
    lan.Open("Neighbour");
    EXPECT_EQ(RpcClient::Code(lan.Call("subscribe", {{"path", "/any"}, {"scope", 1}})), 404);
    m_server->Serve("get", "/closed", 1);
    EXPECT_EQ(RpcClient::Code(lan.Call("subscribe", {{"path", "/closed"}, {"scope", 0}})), 404);
    lan.Subscribe("/later closed");
    lan.Subscribe("/later open");
    m_server->Serve("get", "/later closed", 1);
    m_server->Serve("get", "/later open", 0);
    m_server->Notify("/later closed", {{"secret", 1}});
    m_server->Notify("/later open", {{"n", 1}});
    EXPECT_EQ(Body(lan.Take("notify")), Json({{"n", 1}}));
    Settle(lan);
    EXPECT_FALSE(lan.Has("notify"));

    RpcClient late(m_gateway.LanPort());
    late.Open("Late");
    late.Subscribe("/later open");
    EXPECT_EQ(Body(late.Take("notify")), Json({{"n", 1}}));
}

} // namespace
