#include "GatewayUnderTest.h"
#include "ProductTable.h"
#include "RpcClient.h"
#include "RpcFrame.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

using Json = RpcClient::Json;

namespace
{

const std::vector<std::string> kSeeds = {
    R"({"jsonrpc":"2.0","id":1,"method":"open","params":{"service":"Fuzz","guid":""}})",
    R"({"jsonrpc":"2.0","id":3,"method":"post","params":{"path":"/p","version":1.0,"body":{"a":[1,{"b":null}]}}})",
    R"({"jsonrpc":"2.0","id":"x","method":"serve","params":{"verb":"get","path":"/q","scope":0,"version":1.0}})",
    R"({"jsonrpc":"2.0","id":4,"method":"withdraw","params":{"verb":"get","path":"/q","scope":0}})",
    R"({"jsonrpc":"2.0","id":5,"method":"subscribe","params":{"path":"/p","version":1.0,"scope":0}})",
    R"({"jsonrpc":"2.0","method":"notify","params":{"path":"/q","version":1.0,"body":"\u00e4\ud83d\ude00"}})",
    R"({"jsonrpc":"2.0","id":1,"result":{"products":[{"productinfo":{"guid":"g","ipaddress":"10.0.0.1"}}]}})",
    R"({"jsonrpc":"2.0","id":2,"error":{"code":404,"message":"m","data":{"subcode":5,"guid":"g"}}})",
    R"({"jsonrpc":"2.0","id":18446744073709551616,"error":{"code":1e999,"message":7,"data":[]}})",
};

/// Bytes changed, cut out and put in, and pieces of other seeds. Printable, so that it stays UTF-8.
std::string Mutate(std::mt19937& random)
{
    const auto below = [&random](std::size_t bound) { return bound == 0 ? 0 : random() % bound; };
    std::string text = kSeeds[below(kSeeds.size())];
    for (std::size_t i = 1 + below(3); i > 0; --i)
    {
        const std::size_t at = below(text.size());
        const std::string& other = kSeeds[below(kSeeds.size())];
        switch (below(4))
        {
        case 0:
            text.erase(at, below(12));
            break;
        case 1:
            text.insert(at, other.substr(below(other.size()), below(36)));
            break;
        case 2:
            text.insert(at, 1, "{}[]\",:\\-.e0"[below(12)]);
            break;
        default:
            text[at] = static_cast<char>(32 + below(95));
            break;
        }
        text = text.empty() ? "{" : text;
    }
    return text;
}

TEST(GatewayHostile, MutatedFramesAreAnsweredOrDropped)
{
    std::mt19937 random(20240607);
    GatewayUnderTest gateway("own");
    RpcClient bystander(gateway.Port(), "Bystander");
    bystander.Serve("get", "/p", 0);
    RpcClient local(gateway.Port(), "Fuzz");
    RpcClient lan(gateway.LanPort(), "Fuzz");
    int calls = 0;
    for (int i = 0; i < 4000; ++i)
    {
        std::string text = Mutate(random);
        (i % 2 == 0 ? local : lan).SendText(text);
        if (i % 3 == 0)
        {
            text[random() % text.size()] = static_cast<char>(random()); // no UTF-8
        }
        const Gateway::Frame frame = Gateway::ParseFrame(text);
        EXPECT_TRUE(frame.kind != Gateway::Frame::Kind::INVALID || frame.answer.IsError());
        calls += frame.kind == Gateway::Frame::Kind::CALL ? 1 : 0;
        if (frame.kind == Gateway::Frame::Kind::ANSWER) // what goes on is JSON
        {
            EXPECT_TRUE(Json::accept(Gateway::AnswerFrame(frame.id.value_or("null"), frame.answer))) << text;
        }
        Gateway::FindAddress(text, "g");
        Gateway::FindGuid(text);
    }
    EXPECT_GT(calls, 100) << "the mutations still reach the code behind the parser";
    for (RpcClient* const client : {&local, &lan})
    {
        client->Send({{"jsonrpc", "2.0"}, {"id", "the end"}, {"method", "get"}, {"params", {{"path", "/nobody"}}}});
        EXPECT_EQ(RpcClient::Code(client->AnswerTo("the end")), 404);
    }
    EXPECT_EQ(bystander.Code("get", {{"path", "/nobody"}}), 404);
}

} // namespace
