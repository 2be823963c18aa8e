#include "GatewayUnderTest.h"
#include "RpcClient.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

using Json = RpcClient::Json;

namespace
{

class GatewaySubscriptions : public testing::Test
{
protected:
    GatewayUnderTest m_gateway{"own"};
    std::unique_ptr<RpcClient> m_server = std::make_unique<RpcClient>(m_gateway.Port(), "Server");
    RpcClient m_first{m_gateway.Port(), "First"};
    RpcClient m_second{m_gateway.Port(), "Second"};
};

TEST_F(GatewaySubscriptions, HoldBeforeThePathIsServedAndHearItsServerAlone)
{
    m_first.Subscribe("/p");
    m_second.Subscribe("/other");
    m_server->Serve("get", "/p", 1);
    m_second.Notify("/p", {{"forged", true}});
    EXPECT_EQ(m_second.Code("notify", {{"path", "/p"}}), 404);
    m_server->Notify("/p", {{"n", 1}});
    m_server->Notify("/p", {{"n", 2}});
    EXPECT_EQ(m_first.Take("notify"), Json({{"jsonrpc", "2.0"},
                                            {"method", "notify"},
                                            {"params", {{"path", "/p"}, {"version", 1.0}, {"body", {{"n", 1}}}}}}));
    EXPECT_EQ(m_first.TakeBody(), Json({{"n", 2}}));

    m_second.Subscribe("/p"); // the last one is for who comes later too
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 2}}));
    m_first.Call("unsubscribe", {{"path", "/p"}});
    m_server->Notify("/p", {{"n", 3}});
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 3}}));
    EXPECT_TRUE(m_first.HearsNothing());
}

TEST_F(GatewaySubscriptions, ForgetWhatAServerSaidThatHasGone)
{
    m_server->Serve("get", "/p", 1);
    m_server->Serve("post", "/p", 1);
    m_server->Notify("/p", {{"n", 1}});
    m_server->Call("withdraw", {{"verb", "get"}, {"path", "/p"}}); // it serves the other verb still
    m_first.Subscribe("/p");
    EXPECT_EQ(m_first.TakeBody(), Json({{"n", 1}}));
    m_server->Call("withdraw", {{"verb", "post"}, {"path", "/p"}});
    m_second.Subscribe("/p");
    EXPECT_TRUE(m_second.HearsNothing());

    m_server->Serve("get", "/p", 1);
    m_server->Notify("/p", {{"n", 2}});
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 2}}));
    m_server.reset();
    RpcClient heir(m_gateway.Port(), "Server");
    heir.Serve("get", "/p", 1);
    RpcClient late(m_gateway.Port(), "Late");
    late.Subscribe("/p");
    EXPECT_TRUE(late.HearsNothing());
    heir.Notify("/p", {{"n", 3}});
    EXPECT_EQ(late.TakeBody(), Json({{"n", 3}}));
    EXPECT_EQ(m_second.TakeBody(), Json({{"n", 3}})) << "the subscription outlived the server";
}

TEST_F(GatewaySubscriptions, StayBounded)
{
    for (int i = 0; i < 4096; ++i)
    {
        m_first.Ask("subscribe", {{"path", "/" + std::to_string(i)}});
    }
    EXPECT_EQ(m_first.Code("subscribe", {{"path", "/one more"}}), 503);
    EXPECT_EQ(m_first.Code("subscribe", {{"path", "/0"}}), 0);
}

TEST_F(GatewaySubscriptions, AndRequestsFromTheLanSeeScopeZeroAlone)
{
    RpcClient lan(m_gateway.LanPort());
    EXPECT_EQ(lan.Code("get", {{"path", "/open"}}), -32600);
    EXPECT_EQ(lan.Code("open", {{"service", "x"}, {"guid", "other"}}), -32602);
    EXPECT_EQ(lan.Code("open", {{"service", "x"}, {"guid", ""}}), 0);
    EXPECT_EQ(lan.Code("subscribe", {{"path", "/any"}, {"scope", 1}}), 404);
    lan.Subscribe("/closed"); // nobody serves them yet
    lan.Subscribe("/open");
    m_server->Serve("get", "/closed", 1);
    m_server->Serve("get", "/open", 0);
    m_server->Serve("post", "/open", 0);
    m_server->Notify("/closed", {{"secret", 1}});
    m_server->Notify("/open", {{"n", 1}});
    EXPECT_EQ(lan.TakeBody(), Json({{"n", 1}}));
    EXPECT_TRUE(lan.HearsNothing());

    EXPECT_EQ(lan.Code("get", {{"path", "/closed"}}), 404);
    EXPECT_EQ(lan.Code("delete", {{"path", "/closed"}}), 404);
    EXPECT_EQ(lan.Code("post", {{"path", "/open"}, {"body", 1}}), 405);
    EXPECT_EQ(lan.Code("subscribe", {{"path", "/closed"}, {"scope", 0}}), 404);
    for (const char* const method : {"serve", "withdraw", "unsubscribe", "notify", "heartbeat", "nonsense"})
    {
        EXPECT_EQ(lan.Code(method, {{"path", "/new"}, {"verb", "get"}, {"scope", 0}}), -32601) << method;
    }
    EXPECT_FALSE(m_server->Has("get") || m_server->Has("post") || m_server->Has("delete"));
}

} // namespace
