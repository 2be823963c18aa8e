// The gateway client and a FakeGateway: the frames that it sends, and its callbacks.
#include "tests/platform/portico/FakeGateway.h"
#include "tests/support/Inbox.h"
#include "tests/support/RealTask.h"
#include <PorticoClient.h>
#include <PorticoError.pb.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <thread>

using nlohmann::json;
using Portico::EndpointScope;
using std::chrono::milliseconds;
using Response = PorticoClientIF::Response;

namespace
{

Portico::Error Record(int code)
{
    Portico::Error record;
    record.set_code(code);
    return record;
}

const auto s_answer = [](const Response& response, const Response&) { response(Record(1)); };

class PorticoClientTest : public testing::Test
{
protected:
    std::shared_ptr<PorticoClientIF> Create(int port, const std::string& guid = "")
    {
        const Portico::HeartbeatCallback onHeartbeat(
            [this](const std::string& from, const PORTICO_CLIENT_ERRORS& status)
            { m_told.Put(from + std::to_string(status)); },
            m_task.Get());
        Portico::ConnectCallback onConnect([this](const bool& is) { m_connects.Put(is); }, m_task.Get());
        return Portico::PorticoClient::Create("Tester", "localhost", port, "tarsier", guid, &onConnect, onHeartbeat,
                                              {});
    }

    /// Sends a request; m_ends gets the body or the error.
    CallbackConnection Send(PorticoClientIF& client, const std::string& path, Portico::Verb verb = Portico::Verb::GET,
                            const std::string& body = {})
    {
        const auto end = [this](const std::string& answer, const std::string& error)
        { m_ends.Put(error.empty() ? answer : error); };
        return client.SendText(verb, path, body, end, 1.0);
    }
    json TakeError()
    {
        return json::parse(m_ends.Take().value());
    }

    static CallbackConnection Serve(PorticoClientIF& client, const std::string& path,
                                    const PorticoClientIF::GetHandler& handler = s_answer)
    {
        return client.RegisterGet(path, handler, EndpointScope::PRIVATE, 1.0, "Unknown", 0);
    }
    static CallbackConnection Listen(PorticoClientIF& client, Inbox<std::string>& told)
    {
        return client.RegisterNotificationText(
            "/told", [&told](const std::string& body) { told.Put(body); }, EndpointScope::PUBLIC, 1.0, 0);
    }

    Inbox<bool> m_connects;
    Inbox<std::string> m_ends;
    Inbox<std::string> m_told;
    RealTask m_task;
};

} // namespace

TEST_F(PorticoClientTest, OpensThenRegistersThenSendsWaiting)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port(), "someone");
    Listen(*client, m_told);
    Send(*client, "/status");
    Serve(*client, "/mine");

    const json open = gateway.Take("open");
    EXPECT_EQ(open["params"], json({{"service", "Tester"}, {"guid", "someone"}}));
    EXPECT_EQ(open["jsonrpc"], "2.0");
    EXPECT_EQ(gateway.Take("subscribe")["params"], json({{"path", "/told"}, {"version", 1.0}, {"scope", 0}}));
    EXPECT_EQ(gateway.Take("serve")["params"],
              json({{"verb", "get"}, {"path", "/mine"}, {"scope", 1}, {"version", 1.0}, {"label", "Unknown"}}));
    const json get = gateway.Take("get");
    EXPECT_EQ(get["params"], json({{"path", "/status"}, {"version", 1.0}}));
    gateway.SendText(R"({"jsonrpc":"2.0","id":)" + get["id"].dump() + R"(,"result":{"zeta":1,"alpha":2}})");
    EXPECT_EQ(m_ends.Take(), R"({"zeta":1,"alpha":2})"); // order of members kept

    gateway.Send({{"method", "heartbeat"}, {"params", {{"guid", "G"}, {"status", 1041}}}});
    EXPECT_EQ(m_told.Take(), "G1041");

    // Malformed frames are ignored.
    for (const char* frame :
         {"", "{", "[]", "null", "[{\"method\":\"get\"}]", "{}", R"({"id":1})", R"({"id":1,"error":5})",
          R"({"method":5})", R"({"method":"get","params":[1]})", R"({"id":999,"result":{}})",
          R"({"id":"1","result":{}})", R"({"id":{},"error":{"code":"x","message":[],"data":3}})",
          R"({"method":"notify","params":{"path":7}})", R"({"method":"heartbeat","params":7})",
          R"({"method":"heartbeat","params":{"guid":7,"status":1041}})", R"({"method":"unheard"})"})
    {
        std::string text = frame;
        if (text.starts_with("{\""))
        {
            text.insert(1, R"("jsonrpc":"2.0",)"); // so that it is malformed in one way only
        }
        gateway.SendText(text);
    }
    std::string members; // too many, as in the answer of a hostile product
    for (int count = 0; count < 100000; ++count)
    {
        members += '"' + std::to_string(count) + "\":0,";
    }
    gateway.SendText(R"({"id":999,"result":{)" + members + R"("last":0}})");
    gateway.Notify("/other", {{"a", 1}});
    gateway.Send({{"method", "heartbeat"}, {"params", {{"guid", "H"}, {"status", 1040}}}});
    EXPECT_EQ(m_told.Take(), "H1040"); // and nothing of the malformed ones
    gateway.Request(77, "get", "/mine", nullptr);
    EXPECT_EQ(gateway.TakeAnswer(), json({{"jsonrpc", "2.0"}, {"id", 77}, {"result", {{"code", 1}}}}));
    gateway.Request(78, "post", "/mine", json::object());
    EXPECT_EQ(gateway.TakeAnswer()["error"]["code"], 404);
    EXPECT_TRUE(gateway.TakeAny(0).is_null()) << "unexpected frame";
}

TEST_F(PorticoClientTest, AbsentOrRefusingGatewayIsRetried)
{
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    gateway.reset();
    const auto client = Create(port, "someone");
    Send(*client, "/status");
    const json error = TakeError();
    EXPECT_EQ(error["code"], 503);
    EXPECT_EQ(error["guid"], "someone");
    EXPECT_EQ(m_connects.Take(), false);

    gateway = std::make_unique<FakeGateway>(port);
    gateway->SetMute({"open"});
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        gateway->AnswerError(gateway->Take("open"), -32602, "not you");
    }
    gateway->Answer(gateway->Take("open"), json::object());
    EXPECT_EQ(m_connects.Take(), true); // reported once, not at each attempt
}

TEST_F(PorticoClientTest, ReconnectRestoresRegistrations)
{
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    const auto client = Create(port);
    EXPECT_EQ(m_connects.Take(), true);
    Serve(*client, "/one");
    Listen(*client, m_told);
    Serve(*client, "/two");
    Send(*client, "/slow");
    gateway->Take("get");

    gateway.reset();
    EXPECT_EQ(TakeError()["code"], 503); // the request without an answer
    EXPECT_EQ(m_connects.Take(), false);
    client->SendNotification("/one", Record(10), 1.0);
    client->SendNotification("/one", Record(11), 1.0);

    gateway = std::make_unique<FakeGateway>(port);
    EXPECT_EQ(m_connects.Take(), true);
    for (const char* expected : {"open", "serve/one", "subscribe/told", "serve/two", "notify/one"})
    {
        const json frame = gateway->TakeAny(5000);
        ASSERT_FALSE(frame.is_null()) << expected;
        EXPECT_EQ(frame.value("method", "") + frame["params"].value("path", ""), expected);
    }
    gateway->Notify("/told", {{"n", 1}});
    EXPECT_EQ(m_told.Take(), R"({"n":1})");
    gateway->Request(1, "get", "/two", nullptr);
    EXPECT_EQ(gateway->TakeAnswer()["result"], json({{"code", 1}}));
    EXPECT_TRUE(m_ends.IsEmpty());
}

TEST_F(PorticoClientTest, TakenPathIsRetriedAndHoldsItsLastNotification)
{
    FakeGateway gateway;
    gateway.SetMute({"serve"});
    const auto client = Create(gateway.Port());
    const CallbackConnection served = Serve(*client, "/mine");
    client->SendNotification("/mine", Record(1), 1.0);
    client->SendNotification("/mine", Record(2), 1.0);
    client->SendNotification("/foreign", Record(3), 1.0); // not served by this client
    EXPECT_EQ(gateway.Take("notify")["params"]["path"], "/foreign");
    for (int attempt = 0; attempt < 3; ++attempt)
    {
        gateway.AnswerError(gateway.Take("serve"), 409, "taken");
    }
    gateway.Answer(gateway.Take("serve"), json::object());
    EXPECT_EQ(gateway.Take("notify")["params"]["body"], json({{"code", 2}}));
    client->SendNotification("/mine", Record(4), 1.0);
    EXPECT_EQ(gateway.Take("notify")["params"]["body"], json({{"code", 4}}));

    const CallbackConnection refused = Serve(*client, "/other");
    gateway.AnswerError(gateway.Take("serve"), 409, "taken");
    refused.Disconnect();
    EXPECT_EQ(gateway.Take("withdraw")["params"]["path"], "/other");
    while (!gateway.TakeAny(0).is_null())
    {
    }
    EXPECT_TRUE(gateway.TakeAny(700).is_null()) << "a disconnected path is still requested";
}

TEST_F(PorticoClientTest, LateAnswerIsSentOnceAndOnItsConnection)
{
    Inbox<std::pair<Response, Response>> waiting;
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    const auto client = Create(port);
    Serve(*client, "/later", [&](const Response& response, const Response& error) { waiting.Put({response, error}); });
    gateway->Take("serve");
    gateway->Request(1, "get", "/later", nullptr);
    const auto first = waiting.Take().value();
    Portico::Error error = Record(503);
    error.set_message("not available");
    std::thread([&] { first.second(error), first.first(Record(1)); }).join();
    EXPECT_EQ(gateway->TakeAnswer()["error"],
              json({{"code", 503}, {"message", "not available"}, {"data", {{"subcode", 0}, {"guid", ""}}}}));

    gateway->Request(2, "get", "/later", nullptr);
    const auto second = waiting.Take().value();
    gateway.reset();
    gateway = std::make_unique<FakeGateway>(port);
    gateway->Take("serve");
    second.first(Record(2)); // id 2 belongs to the other connection
    gateway->Request(3, "get", "/later", nullptr);
    waiting.Take().value().first(Record(3));
    EXPECT_EQ(gateway->TakeAnswer()["id"], 3);
}

TEST_F(PorticoClientTest, BodiesAreJsonAndErrorsAreRecords)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Send(*client, "/x");
    gateway.AnswerError(gateway.Take("get"), 404, "no server");
    EXPECT_EQ(TakeError(), json({{"code", 404}, {"subcode", 7}, {"message", "no server"}, {"guid", "G"}}));
    Send(*client, "/in", Portico::Verb::POST, "{oops"); // is not sent
    EXPECT_EQ(TakeError()["subcode"], 2005);
    Send(*client, "/in", Portico::Verb::DELETE, R"({"a":[1]})");
    EXPECT_EQ(gateway.Take("delete")["params"]["body"], json({{"a", {1}}}));
}

TEST_F(PorticoClientTest, DisconnectEndsCalls)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Inbox<std::string> second;
    const CallbackConnection one = Listen(*client, m_told);
    const CallbackConnection two = Listen(*client, second);
    const CallbackConnection served = Serve(*client, "/mine");
    const CallbackConnection request = Send(*client, "/slow");
    const json get = gateway.Take("get");

    request.Disconnect();
    EXPECT_FALSE(request.IsConnected());
    gateway.Answer(get, json::object());
    one.Disconnect();
    gateway.Notify("/told", 1);
    EXPECT_EQ(second.Take(), "1");
    EXPECT_TRUE(m_told.IsEmpty());
    EXPECT_TRUE(m_ends.IsEmpty());
    served.Disconnect();
    EXPECT_EQ(gateway.Take("withdraw")["params"]["verb"], "get");
    two.Disconnect();
    two.Disconnect();
    EXPECT_EQ(gateway.Take("unsubscribe")["params"]["path"], "/told"); // after the last subscription
}

TEST_F(PorticoClientTest, EndedClientMakesNoCalls)
{
    FakeGateway gateway;
    auto client = Create(gateway.Port(), "G");
    const CallbackConnection listening = Listen(*client, m_told);
    EXPECT_EQ(m_connects.Take(), true);
    Send(*client, "/slow");
    gateway.Take("get");
    gateway.Notify("/told", 1);
    EXPECT_EQ(m_told.Take(), "1");

    std::thread noise(
        [&gateway]
        {
            for (int count = 0; count < 200; ++count)
            {
                gateway.Notify("/told", count);
            }
        });
    client.reset();
    while (m_told.Take(milliseconds(0)))
    {
    }
    noise.join();
    EXPECT_TRUE(gateway.WaitForConnections(0));
    EXPECT_TRUE(m_told.IsEmpty());
    EXPECT_TRUE(m_ends.IsEmpty());
    EXPECT_TRUE(m_connects.IsEmpty());
    EXPECT_FALSE(listening.IsConnected());
    listening.Disconnect();

    const auto shut = Create(gateway.Port());
    EXPECT_EQ(m_connects.Take(), true);
    shut->Shutdown();
    EXPECT_TRUE(gateway.WaitForConnections(0));
    Send(*shut, "/late");
    EXPECT_FALSE(m_connects.Take(milliseconds(300))); // does not reconnect
    EXPECT_TRUE(m_ends.IsEmpty());
}

TEST_F(PorticoClientTest, FiveHundredClientsShareOneThread)
{
    FakeGateway gateway;
    const auto countThreads = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/task"), {}); };
    std::vector<std::shared_ptr<PorticoClientIF>> clients = {Create(gateway.Port())};
    gateway.Take("open");
    const auto before = countThreads();
    for (int count = 0; count < 500; ++count)
    {
        clients.push_back(Create(gateway.Port(), "guid"));
    }
    EXPECT_TRUE(gateway.WaitForConnections(501));
    EXPECT_EQ(countThreads(), before);
    clients.clear();
    EXPECT_TRUE(gateway.WaitForConnections(0));
}

TEST_F(PorticoClientTest, MessageOver4MiBIsNotSent)
{
    constexpr std::size_t kLimit = 4U << 20U;
    Portico::Error large = Record(2);
    large.set_message(std::string(kLimit, 'x'));
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Serve(*client, "/mine", [&large](const Response& response, const Response&) { response(large); });
    Send(*client, "/early", Portico::Verb::POST, '"' + large.message() + '"');
    EXPECT_EQ(TakeError()["code"], 413);
    gateway.Take("serve");
    Send(*client, "/status", Portico::Verb::POST, '"' + large.message() + '"');
    EXPECT_EQ(TakeError()["message"], "the request is larger than 4 MiB");
    client->SendNotification("/mine", large, 1.0);
    gateway.Request(1, "get", "/mine", nullptr);
    EXPECT_EQ(gateway.TakeAnswer()["error"]["message"], "the answer is larger than 4 MiB");
    const std::size_t envelope =
        std::string(R"({"jsonrpc":"2.0","id":5,"method":"post","params":{"path":"/fits","version":1.0,"body":""}})")
            .size();
    Send(*client, "/fits", Portico::Verb::POST, '"' + std::string(kLimit - envelope, 'x') + '"');
    EXPECT_EQ(gateway.Take("post")["params"]["path"], "/fits") << "the connection must stay open";
}

TEST_F(PorticoClientTest, SlowGatewayGetsTheLastNotification)
{
    constexpr int kLast = 10;
    Portico::Error large;
    large.set_message(std::string(3U << 20U, 'x'));
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Serve(*client, "/mine");
    gateway.Take("open");
    gateway.Take("serve");
    gateway.Stall(
        [&]
        {
            for (int code = 1; code <= kLast; ++code)
            {
                large.set_code(code);
                client->SendNotification("/mine", large, 1.0);
            }
            client->SendNotification("/small", Record(7), 1.0); // not served by this client
            Send(*client, "/asked");
        });
    std::vector<int> codes;
    while (codes.empty() || codes.back() != kLast)
    {
        const json frame = gateway.Take("notify");
        ASSERT_FALSE(frame.empty());
        if (frame["params"]["path"] == "/mine")
        {
            codes.push_back(frame["params"]["body"]["code"]);
        }
    }
    EXPECT_LT(codes.size(), std::size_t{kLast}) << "the stall was too short";
    EXPECT_TRUE(std::is_sorted(codes.begin(), codes.end()));
    gateway.Answer(gateway.Take("get"), {{"code", 1}});
    EXPECT_EQ(m_ends.Take(), R"({"code":1})");
    client->SendNotification("/mine", Record(30), 1.0);
    json next = gateway.Take("notify");
    if (next["params"]["path"] == "/small") // the order of paths is not defined
    {
        next = gateway.Take("notify");
    }
    EXPECT_EQ(next["params"]["body"], json({{"code", 30}}));
    for (json frame = gateway.TakeAny(0); !frame.is_null(); frame = gateway.TakeAny(0))
    {
        EXPECT_NE(frame["method"], "open") << "the connection was lost";
    }
}
