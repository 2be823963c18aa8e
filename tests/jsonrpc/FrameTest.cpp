#include "jsonrpc/Frame.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>
#include <utility>
#include <vector>

using JsonRpc::Answer;
using JsonRpc::Frame;
using JsonRpc::FrameFromText;
using nlohmann::json;

TEST(JsonRpcFrame, CallsKeepIdsVersionsAndBodiesAsText)
{
    for (const std::string id : {"7", "\"7\"", "1.5", "null"})
    {
        const Frame frame =
            FrameFromText(JsonRpc::TextFromRequest(id, {"post", "/p\"\n", "2.50", R"({"zeta":1,"alpha":[2, 3]})"}));
        EXPECT_EQ(frame.kind, Frame::Kind::CALL);
        EXPECT_EQ(frame.id, id);
        EXPECT_EQ(frame.method, "post");
        EXPECT_EQ(frame.params.path, "/p\"\n");
        EXPECT_EQ(frame.params.version, "2.5");
        EXPECT_EQ(frame.params.body, R"({"zeta":1,"alpha":[2, 3]})");
    }
    const Frame frame = FrameFromText(JsonRpc::TextFromNotification("/p", "1.0", "5"));
    EXPECT_EQ(frame.kind, Frame::Kind::CALL);
    EXPECT_FALSE(frame.id);
    EXPECT_EQ(frame.params.body, "5");
    EXPECT_FALSE(FrameFromText(JsonRpc::TextFromRequest("1", {"get", "/p", "1.0", {}})).params.body);
    EXPECT_EQ(FrameFromText(JsonRpc::TextFromHeartbeat("g", 1041)).params.status, 1041);
}

TEST(JsonRpcFrame, AnswersCarryResultsOrErrors)
{
    const std::string result = R"({"b":1,"a":{}})";
    Frame frame = FrameFromText(JsonRpc::TextFromAnswer("3", Answer::Result(result)));
    EXPECT_EQ(frame.kind, Frame::Kind::ANSWER);
    EXPECT_EQ(frame.id, "3");
    EXPECT_EQ(frame.answer.result, result);
    EXPECT_EQ(JsonRpc::RecordFromAnswer(frame.answer), "");

    const std::string record = R"({"code":503,"subcode":7,"message":"no \"way\"","guid":"g"})";
    frame = FrameFromText(JsonRpc::TextFromAnswer("3", JsonRpc::AnswerFromRecord(record)));
    EXPECT_EQ(frame.answer.code, 503);
    EXPECT_EQ(JsonRpc::RecordFromAnswer(frame.answer), record);
    EXPECT_EQ(JsonRpc::RecordFromAnswer(JsonRpc::AnswerFromRecord("no record")),
              R"({"code":0,"subcode":0,"message":"","guid":""})");

    frame = FrameFromText(R"({"id":1,"error":{"code":99999999999,"message":[],"data":3}})");
    EXPECT_EQ(JsonRpc::RecordFromAnswer(frame.answer), R"({"code":2147483647,"subcode":0,"message":"","guid":""})");
    EXPECT_EQ(FrameFromText(R"({"id":1,"error":5})").answer.code, JsonRpc::INTERNAL_ERROR);
}

TEST(JsonRpcFrame, InvalidFramesNameTheErrorToSendBack)
{
    const std::vector<std::pair<std::string, int>> cases = {
        {"", JsonRpc::PARSE_ERROR},
        {"\"\\ud800\"", JsonRpc::PARSE_ERROR},
        {std::string(200000, '['), JsonRpc::PARSE_ERROR},
        {"[]", JsonRpc::INVALID_REQUEST},
        {"{}", JsonRpc::INVALID_REQUEST},
        {R"({"jsonrpc":"2.0","id":{},"method":"get"})", JsonRpc::INVALID_REQUEST},
        {R"({"jsonrpc":"2.0","id":1,"method":5})", JsonRpc::INVALID_REQUEST},
        {R"({"jsonrpc":"1.0","id":1,"method":"get"})", JsonRpc::INVALID_REQUEST},
    };
    for (const auto& [text, code] : cases)
    {
        const Frame frame = FrameFromText(text);
        EXPECT_EQ(frame.kind, Frame::Kind::INVALID) << text.substr(0, 60);
        EXPECT_EQ(frame.answer.code, code) << text.substr(0, 60);
    }
    EXPECT_EQ(FrameFromText(cases.back().first).id, "1");
    EXPECT_EQ(FrameFromText("{}").id, "null");
}

TEST(JsonRpcFrame, ParametersOfAWrongTypeAreNamed)
{
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"[1]", "params"},
        {R"({"path":5})", "path"},
        {R"({"path":""})", "path"},
        {R"({"verb":"x"})", "verb"},
        {R"({"scope":2})", "scope"},
        {R"({"version":"1"})", "version"},
        {R"({"guid":[]})", "guid"},
        {R"({"label":null})", "label"},
        {R"({"verb":"GET","status":"x"})", ""},
        {R"({"path":")" + std::string(JsonRpc::kMaxPathBytes + 1, 'p') + "\"}", "path"},
    };
    for (const auto& [params, malformed] : cases)
    {
        EXPECT_EQ(FrameFromText(JsonRpc::TextFromCall("1", "get", params)).params.malformed, malformed)
            << params.substr(0, 60);
    }
}

TEST(JsonRpcFrame, ParametersAreWrittenAsTheGatewayReadsThem)
{
    EXPECT_EQ(json::parse(JsonRpc::ServeParams("get", "/p", 1, JsonRpc::VersionFromNumber(1), "La\"bel")),
              json({{"verb", "get"}, {"path", "/p"}, {"scope", 1}, {"version", 1.0}, {"label", "La\"bel"}}));
    EXPECT_EQ(json::parse(JsonRpc::OpenParams("s", "")), json({{"service", "s"}, {"guid", ""}}));
    EXPECT_EQ(JsonRpc::VersionFromNumber(1), "1.0");
}
