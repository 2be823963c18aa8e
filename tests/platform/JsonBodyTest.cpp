#include "JsonBody.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <string>
#include <vector>

using nlohmann::json;

TEST(JsonBodyTest, TheBodyIsTakenOutUnchangedOrTheFrameStaysWhole)
{
    struct Row
    {
        const char* frame;
        const char* body;
    };
    const Row rows[] = {
        {R"({"method":"notify","params":{"path":"/a","body":{"b":[1,"}"],"body":2}},"id":1})",
         R"({"b":[1,"}"],"body":2})"},
        {R"({"id":1,"result":{"result":1,"params":{"body":2}}})", R"({"result":1,"params":{"body":2}})"},
        {R"({"params":{"body" :  1.50e1 ,"path":"\",\\"}})", "1.50e1"},
        {R"({"result":"a\"b,c"})", R"("a\"b,c")"},
        {R"({"other":{"body":1},"body":2,"params":[{"body":3}],"x":{"params":{"body":4}}})", ""},
        {R"({"params":{"body":1,"body":2}})", ""},
        {R"({"params":{"body":1},"result":2})", ""},
        {"{\"result\":{\"a\":\n1}}", ""},
        {R"([{"result":1}])", ""},
        {R"({"result":  })", ""},
        {R"({"result":"no end)", ""},
        {"", ""},
    };
    for (const Row& row : rows)
    {
        const JsonText::Frame frame = JsonText::TakeBody(row.frame);
        EXPECT_EQ(frame.body, row.body) << row.frame;
        if (frame.body.empty())
        {
            EXPECT_EQ(frame.envelope, row.frame);
        }
    }
}

/// Both parts are JSON exactly if the frame is, and say the same, whatever a byte in the wrong place does.
TEST(JsonBodyTest, BothPartsAreWhatTheFrameWas)
{
    const std::string frame =
        R"({"jsonrpc":"2.0","method":"notify","params":{"path":"/p","body":{"a":["x\"",{"body":null}],"b":"}"},"n":1},"id":7})";
    const std::string bytes = "{}[]\":,\\ 1a";
    std::mt19937 random(1);
    int valid = 0;
    for (int round = 0; round < 20'000; ++round)
    {
        std::string text = frame;
        for (auto change = random() % 3; change > 0; --change)
        {
            text[random() % text.size()] = bytes[random() % bytes.size()];
        }
        const JsonText::Frame parts = JsonText::TakeBody(text);
        const json whole = json::parse(text, nullptr, false);
        json envelope = json::parse(parts.envelope, nullptr, false);
        const json body = parts.body.empty() ? json() : json::parse(parts.body, nullptr, false);
        ASSERT_EQ(!whole.is_discarded(), !envelope.is_discarded() && !body.is_discarded()) << text;
        if (!whole.is_discarded() && !parts.body.empty())
        {
            ++valid;
            (envelope.contains("result") ? envelope["result"] : envelope["params"]["body"]) = body;
            ASSERT_EQ(envelope, whole) << text;
        }
    }
    EXPECT_GT(valid, 5'000);
}
