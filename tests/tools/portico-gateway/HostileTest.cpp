#include "tests/tools/portico-gateway/GatewayUnderTest.h"
#include "tests/tools/portico-gateway/RpcClient.h"
#include "tools/portico-gateway/Router.h"
#include "tools/portico-gateway/Subscriptions.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace
{

const std::vector<std::string> kSeeds = {
    R"({"jsonrpc":"2.0","id":1,"method":"open","params":{"service":"Fuzz","guid":""}})",
    R"({"jsonrpc":"2.0","id":3,"method":"post","params":{"path":"/p","version":1.0,"body":{"a":[1,{"b":null}]}}})",
    R"({"jsonrpc":"2.0","id":"x","method":"serve","params":{"verb":"get","path":"/q","scope":0,"version":1.0}})",
    R"({"jsonrpc":"2.0","id":5,"method":"subscribe","params":{"path":"/p","version":1.0,"scope":0}})",
    R"({"jsonrpc":"2.0","method":"notify","params":{"path":"/q","version":1.0,"body":"\u00e4\ud83d\ude00"}})",
    R"({"jsonrpc":"2.0","id":1,"result":{"products":[{"productinfo":{"guid":"g","ipaddress":"10.0.0.1"}}]}})",
    R"({"jsonrpc":"2.0","id":18446744073709551616,"error":{"code":1e999,"message":7,"data":[]}})",
};

/// Replaces some bytes by nothing, a JSON character or a piece of another seed. The result is UTF-8.
std::string Mutate(std::mt19937& random)
{
    const auto below = [&random](std::size_t bound) { return random() % bound; };
    std::string text = kSeeds[below(kSeeds.size())];
    for (std::size_t i = 1 + below(3); i > 0; --i)
    {
        const std::string& other = kSeeds[below(kSeeds.size())];
        const std::string pieces[] = {"", std::string(1, "{}[]\",:\\-.e0"[below(12)]),
                                      other.substr(below(other.size()), below(36))};
        text.replace(below(text.size()), below(9), pieces[below(3)]);
        text = text.empty() ? "{" : text;
    }
    return text;
}

TEST(GatewayHostile, MutatedFramesAreAnsweredOrDropped)
{
    std::mt19937 random(20240607);
    GatewayUnderTest gateway("own");
    RpcClient bystander(gateway.Port(), "Bystander");
    bystander.Serve("post", "/p", 0);
    RpcClient local(gateway.Port(), "Fuzz");
    RpcClient lan(gateway.LanPort(), "Fuzz");
    for (int i = 0; i < 4000; ++i)
    {
        (i % 2 == 0 ? local : lan).SendText(Mutate(random));
    }
    for (RpcClient* const client : {&local, &lan})
    {
        client->Send({{"jsonrpc", "2.0"}, {"id", "the end"}, {"method", "get"}, {"params", {{"path", "/not-served"}}}});
        EXPECT_EQ(RpcClient::Code(client->AnswerTo("the end")), 404);
    }
    EXPECT_EQ(bystander.Code("get", {{"path", "/not-served"}}), 404);
    EXPECT_TRUE(bystander.Has("post")) << "some mutated frames must pass the parser";
}

struct Client : Gateway::PathServerIF, Gateway::SubscriberIF
{
    void Handle(const JsonRpc::Request&, const JsonRpc::AnswerCallback&) override {}
    void Send(const std::string&) override
    {
        ++sent;
    }
    bool HasRoomFor(std::size_t) const override
    {
        return true;
    }
    int sent = 0;
};

TEST(GatewayHostile, LimitsApplyToEachClient)
{
    Gateway::Router router("own");
    Client greedy;
    Client modest;
    for (std::size_t i = 0; i < Gateway::Router::kMaxServed; ++i)
    {
        ASSERT_FALSE(router.Serve(&greedy, "get", "/" + std::to_string(i), 0).IsError());
    }
    EXPECT_EQ(router.Serve(&greedy, "get", "/more", 0).code, JsonRpc::UNREACHABLE);
    EXPECT_FALSE(router.Serve(&greedy, "get", "/0", 1).IsError()) << "a change of scope needs no entry";
    EXPECT_FALSE(router.Serve(&modest, "get", "/more", 0).IsError());
    router.Withdraw(&greedy, "get", "/0");
    EXPECT_FALSE(router.Serve(&greedy, "get", "/1 more", 0).IsError());

    Gateway::Subscriptions subscriptions(router);
    const std::string large(Gateway::Subscriptions::kMaxLastBytes / 2, '1');
    subscriptions.Notify(&greedy, "/1", "1.0", large);
    subscriptions.Notify(&modest, "/more", "1.0", "1");
    subscriptions.Notify(&modest, "/more", "1.0", large);
    subscriptions.SendLast(&modest, "/more", Gateway::Origin::LOCAL);
    EXPECT_EQ(modest.sent, 0) << "neither the notification over the limit nor the one before it";
    subscriptions.DropLast(&greedy);
    subscriptions.Notify(&modest, "/more", "1.0", large);
    subscriptions.SendLast(&modest, "/more", Gateway::Origin::LOCAL);
    EXPECT_EQ(modest.sent, 1);
}

} // namespace
