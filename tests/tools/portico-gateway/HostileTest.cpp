#include "GatewayUnderTest.h"
#include "ProductTable.h"
#include "RpcClient.h"
#include "RpcFrame.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>
#include <vector>

using Json = RpcClient::Json;

namespace
{

const std::vector<std::string> kSeeds = {
    R"({"jsonrpc":"2.0","id":1,"method":"open","params":{"service":"Fuzz","guid":""}})",
    R"({"jsonrpc":"2.0","id":"x","method":"get","params":{"path":"/p","version":1.0}})",
    R"({"jsonrpc":"2.0","id":3,"method":"post","params":{"path":"/p","version":1.0,"body":{"a":[1,{"b":null}]}}})",
    R"({"jsonrpc":"2.0","id":4,"method":"serve","params":{"verb":"get","path":"/q","scope":0,"version":1.0,"label":"L"}})",
    R"({"jsonrpc":"2.0","id":4,"method":"withdraw","params":{"verb":"get","path":"/q","scope":0}})",
    R"({"jsonrpc":"2.0","id":5,"method":"subscribe","params":{"path":"/p","version":1.0,"scope":0}})",
    R"({"jsonrpc":"2.0","method":"notify","params":{"path":"/q","version":1.0,"body":"\u00e4\ud83d\ude00"}})",
    R"({"jsonrpc":"2.0","id":1,"result":{"products":[{"state":"ONLINE","productinfo":{"guid":"g","ipaddress":"10.0.0.1"}}]}})",
    R"({"jsonrpc":"2.0","id":2,"error":{"code":404,"message":"m","data":{"subcode":5,"guid":"g"}}})",
    R"({"jsonrpc":"2.0","id":18446744073709551616,"error":{"code":1e999,"message":7,"data":[]}})",
};

/// Bytes changed, doubled, cut out and put in, and pieces of other seeds. Printable, so that it stays UTF-8.
std::string Mutate(std::string text, std::mt19937& random)
{
    const auto below = [&random](std::size_t bound) { return bound == 0 ? 0 : random() % bound; };
    for (std::size_t i = 1 + below(4); i > 0; --i)
    {
        const std::size_t at = below(text.size());
        const std::size_t length = below(12);
        const std::string& other = kSeeds[below(kSeeds.size())];
        switch (below(5))
        {
        case 0:
            text[at] = static_cast<char>(32 + below(95));
            break;
        case 1:
            text.erase(at, length);
            break;
        case 2:
            text.insert(at, text.substr(below(text.size()), length));
            break;
        case 3:
            text.insert(at, other.substr(below(other.size()), length * 3));
            break;
        default:
            text.insert(at, 1, "{}[]\",:\\-.e0"[below(12)]);
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
    RpcClient bystander(gateway.Port());
    bystander.Open("Bystander");
    bystander.Serve("get", "/p", 0);
    RpcClient local(gateway.Port());
    RpcClient lan(gateway.LanPort());
    local.Open("Fuzz");
    lan.Open("Fuzz");
    for (int i = 0; i < 4000; ++i)
    {
        (i % 2 == 0 ? local : lan).SendText(Mutate(kSeeds[random() % kSeeds.size()], random));
    }
    for (RpcClient* const client : {&local, &lan})
    {
        client->Send({{"jsonrpc", "2.0"}, {"id", "the end"}, {"method", "get"}, {"params", {{"path", "/nobody"}}}});
        EXPECT_EQ(RpcClient::Code(client->AnswerTo("the end")), 404);
    }
    bystander.Forget("get");
    EXPECT_EQ(RpcClient::Code(bystander.Call("get", {{"path", "/nobody"}})), 404);
}

TEST(GatewayHostile, MutatedTextsAreParsedWithoutHarm)
{
    std::mt19937 random(7);
    int calls = 0;
    for (int i = 0; i < 20000; ++i)
    {
        std::string text = Mutate(kSeeds[random() % kSeeds.size()], random);
        if (i % 3 == 0)
        {
            text[random() % text.size()] = static_cast<char>(random());
        }
        const Gateway::Frame frame = Gateway::ParseFrame(text);
        EXPECT_TRUE(frame.kind != Gateway::Frame::Kind::INVALID || frame.answer.IsError());
        calls += frame.kind == Gateway::Frame::Kind::CALL ? 1 : 0;
        if (frame.kind == Gateway::Frame::Kind::ANSWER) // what goes on is JSON
        {
            const std::string on = Gateway::AnswerFrame(frame.id.value_or("null"), frame.answer);
            EXPECT_TRUE(Json::accept(on)) << text << " -> " << on;
        }
        Gateway::FindAddress(text, "g");
        Gateway::FindGuid(text);
    }
    EXPECT_GT(calls, 500) << "the mutations still reach the code behind the parser";
}

TEST(GatewayHostile, RowsOfTheTableAreHeldAgainstTheirForm)
{
    const auto find = [](const Json& list) { return Gateway::FindAddress(list.dump(), "g").value_or("nothing"); };
    const auto row = [](const Json& address) { return Json{{"productinfo", {{"guid", "g"}, {"ipaddress", address}}}}; };
    EXPECT_EQ(find({{"products", {row("10.0.0.1")}}}), "10.0.0.1");
    EXPECT_EQ(find({{"products", {row("fe80::1")}}}), "fe80::1");
    EXPECT_EQ(find({{"ProductList", {{"products", {row("10.0.0.1")}}}}}), "10.0.0.1");
    EXPECT_EQ(find({{"products", {row(5), row(""), row("host.name"), row("10.0.0.2")}}}), "10.0.0.2");
    for (const Json& list : {Json(), Json(5), Json::array(), Json({{"products", 5}}), Json({{"products", {1, "x"}}}),
                             Json({{"products", {{{"productinfo", "g"}}}}}), Json({{"products", {row("1.2.3")}}}),
                             Json({{"ProductList", nullptr}})})
    {
        EXPECT_EQ(find(list), "nothing") << list;
    }
    EXPECT_EQ(Gateway::FindGuid(R"({"ProductInfo":{"guid":"g"}})"), "g");
    EXPECT_EQ(Gateway::FindGuid(R"({"guid":5})"), "");
}

} // namespace
