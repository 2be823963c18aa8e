#include "base/JsonText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <random>
#include <string>
#include <vector>

using nlohmann::json;

TEST(JsonTextTest, FrameIsSplitWithUnchangedBodyOrStaysWhole)
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
        {R"({"params":{"path":"\",\\","body" :  [1.50e1] }})", "[1.50e1]"},
        {R"({"result":"plain"})", ""},
        {R"({"other":{"body":[1]},"body":[2],"params":[{"body":[3]}],"x":{"params":{"body":[4]}}})", ""},
        {R"({"params":{"body":[1],"body":[2]}})", ""},
        {R"({"params":{"body":[1]},"result":2})", ""},
        {"{\"result\":{\"a\":\n1}}", ""},
        {R"([{"result":[1]}])", ""},
    };
    for (const Row& row : rows)
    {
        const JsonText::Frame frame = JsonText::ReadFrame(row.frame);
        EXPECT_EQ(frame.verdict, JsonText::Verdict::JSON) << row.frame;
        EXPECT_EQ(frame.body, row.body) << row.frame;
        if (frame.body.empty())
        {
            EXPECT_EQ(frame.envelope, row.frame);
        }
    }
}

TEST(JsonTextTest, VerdictFindsInvalidAndTooComplexText)
{
    using JsonText::Verdict;
    const auto nested = [](std::size_t levels) { return std::string(levels, '[') + std::string(levels, ']'); };
    const auto members = [](std::size_t count)
    {
        std::string text = "{\"a\":0";
        for (std::size_t member = 1; member < count; ++member)
        {
            text += ",\"a\":[0,0,0]";
        }
        return text + "}";
    };
    EXPECT_EQ(JsonText::Check(nested(JsonText::kMaxNesting)), Verdict::JSON);
    EXPECT_EQ(JsonText::Check(nested(JsonText::kMaxNesting + 1)), Verdict::TOO_COMPLEX);
    EXPECT_EQ(JsonText::Check(std::string(4U << 20U, '[')), Verdict::TOO_COMPLEX);
    EXPECT_EQ(JsonText::Check(members(JsonText::kMaxMembers)), Verdict::JSON);
    EXPECT_EQ(JsonText::Check(members(JsonText::kMaxMembers + 1)), Verdict::TOO_COMPLEX);
    for (const std::string text : {"", " ", "{\"result\":  }", "{\"result\":\"no end", "{} {}", "[1,]", "{'a':1}",
                                   "[01]", "[\"\xff\"]", "[\"\xc0\xaf\"]", "[\"\\ud800\"]", "[\"\n\"]", "nul"})
    {
        EXPECT_EQ(JsonText::Check(text), Verdict::NO_JSON) << text;
    }
    EXPECT_EQ(JsonText::Check(std::string("{}\0", 3)), Verdict::NO_JSON);
    EXPECT_EQ(JsonText::Check(std::string("[\"a\0\"]", 7)), Verdict::NO_JSON);
}

/// With random bytes replaced, the verdict agrees with another parser, and both parts together equal the frame.
TEST(JsonTextTest, PartsTogetherEqualTheFrame)
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
        const JsonText::Frame parts = JsonText::ReadFrame(text);
        const json whole = json::parse(text, nullptr, false);
        json envelope = json::parse(parts.envelope, nullptr, false);
        const json body = parts.body.empty() ? json() : json::parse(parts.body, nullptr, false);
        ASSERT_EQ(!whole.is_discarded(), parts.verdict == JsonText::Verdict::JSON) << text;
        if (!parts.body.empty())
        {
            ++valid;
            (envelope.contains("result") ? envelope["result"] : envelope["params"]["body"]) = body;
            ASSERT_EQ(envelope, whole) << text;
        }
    }
    EXPECT_GT(valid, 5'000);
}
