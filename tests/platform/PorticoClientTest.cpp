// The gateway client against a gateway of the test's own: what crosses the wire, and what comes back to callers.
#include "PorticoClient.h"
#include "DPrint.h"
#include "FakeGateway.h"
#include "Inbox.h"
#include "PorticoError.pb.h"
#include "Task.h"

#include <gtest/gtest.h>

#include <fstream>
#include <thread>

using nlohmann::json;
using std::chrono::milliseconds;
using Response = PorticoClientIF::Response;

namespace
{

class PorticoClientTest : public testing::Test
{
protected:
    struct Outcome
    {
        std::string body;
        std::string error;
    };

    std::shared_ptr<PorticoClientIF> Create(int port, const std::string& guid = "")
    {
        const AsyncCallback<const std::string, const PORTICO_CLIENT_ERRORS> onHeartbeat(
            [this](const std::string& from, const PORTICO_CLIENT_ERRORS& status) {
                m_heartbeats.Put({from, status});
            },
            m_task);
        Portico::ConnectCallback onConnect([this](const bool& isConnected) { m_connects.Put(isConnected); }, m_task);
        return Portico::PorticoClient::Create("Tester", "localhost", port, "tarsier", guid, &onConnect, onHeartbeat,
                                              {});
    }

    CallbackConnection Get(PorticoClientIF& client, const std::string& path)
    {
        return client.SendText(
            Portico::Verb::GET, path, {},
            [this](const std::string& body, const std::string& error) {
                m_outcomes.Put({body, error});
            },
            1.0);
    }

    /// Serves `path` with a record that tells itself by its code.
    static CallbackConnection Serve(PorticoClientIF& client, const std::string& path, int code)
    {
        return client.RegisterGet(
            path, [code](const Response& response, const Response&) { response(Record(code)); },
            Portico::EndpointScope::PRIVATE, 1.0, "Unknown", 0);
    }

    static Portico::Error Record(int code)
    {
        Portico::Error record;
        record.set_code(code);
        return record;
    }

    void TearDown() override
    {
        IL::StopTask(m_task);
        IL::JoinTask(m_task);
    }

    static int CodeOf(const std::string& error)
    {
        return error.empty() ? -1 : json::parse(error).value("code", -1);
    }

    NotifyTargetTaskIF* m_task = IL::CreateTask("Test", "");
    Inbox<bool> m_connects;
    Inbox<std::pair<std::string, int>> m_heartbeats;
    Inbox<Outcome> m_outcomes;
};

} // namespace

TEST_F(PorticoClientTest, OpensFirstThenWhatIsRegisteredThenWhatWaited)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port(), "someone");
    client->RegisterNotificationText("/status", nullptr, Portico::EndpointScope::PUBLIC, 1.0, 0);
    Get(*client, "/status");
    Serve(*client, "/mine", 1);

    const json open = gateway.Take("open");
    EXPECT_EQ(open["params"], json({{"service", "Tester"}, {"guid", "someone"}}));
    EXPECT_EQ(open["jsonrpc"], "2.0");
    EXPECT_EQ(gateway.Take("subscribe")["params"], json({{"path", "/status"}, {"version", 1.0}, {"scope", 0}}));
    EXPECT_EQ(gateway.Take("serve")["params"],
              json({{"verb", "get"}, {"path", "/mine"}, {"scope", 1}, {"version", 1.0}, {"label", "Unknown"}}));
    const json get = gateway.Take("get");
    EXPECT_EQ(get["params"], json({{"path", "/status"}, {"version", 1.0}}));
    gateway.SendText(R"({"jsonrpc":"2.0","id":)" + get["id"].dump() + R"(,"result":{"zeta":1,"alpha":2}})");
    EXPECT_EQ(m_outcomes.Take()->body, R"({"zeta":1,"alpha":2})"); // in the order in which it was written

    gateway.Notify("/other", {{"a", 1}});
    gateway.Request(77, "get", "/mine", nullptr);
    EXPECT_EQ(gateway.TakeAnswer(), json({{"jsonrpc", "2.0"}, {"id", 77}, {"result", {{"code", 1}}}}));
    gateway.Request(78, "post", "/mine", json::object());
    EXPECT_EQ(gateway.TakeAnswer()["error"]["code"], 404);
}

TEST_F(PorticoClientTest, RequestWithoutGatewayEndsInAnError)
{
    int port = 0;
    {
        const FakeGateway gone;
        port = gone.Port();
    }
    const auto client = Create(port, "someone");
    Get(*client, "/status");
    const auto outcome = m_outcomes.Take(milliseconds(5000));
    ASSERT_TRUE(outcome);
    EXPECT_EQ(CodeOf(outcome->error), 503);
    EXPECT_EQ(json::parse(outcome->error)["guid"], "someone");
    EXPECT_EQ(m_connects.Take(), false); // told once, not at each attempt
    FakeGateway gateway(static_cast<std::uint16_t>(port));
    EXPECT_EQ(m_connects.Take(), true);
}

TEST_F(PorticoClientTest, ComesBackByItselfWithAllThatWasInForce)
{
    Inbox<std::string> bodies;
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    const auto client = Create(port);
    EXPECT_EQ(m_connects.Take(), true);
    Serve(*client, "/one", 1);
    client->RegisterNotificationText(
        "/told", [&bodies](const std::string& body) { bodies.Put(body); }, Portico::EndpointScope::PUBLIC, 1.0, 0);
    Serve(*client, "/two", 2);
    Get(*client, "/slow");
    gateway->Take("get");

    gateway.reset();
    EXPECT_EQ(CodeOf(m_outcomes.Take()->error), 503); // what was on its way
    EXPECT_EQ(m_connects.Take(), false);
    client->SendNotification("/one", Record(10), 1.0);
    client->SendNotification("/one", Record(11), 1.0);

    gateway = std::make_unique<FakeGateway>(port);
    EXPECT_EQ(m_connects.Take(), true);
    std::vector<std::string> order;
    for (int count = 0; count < 5; ++count)
    {
        const json frame = gateway->TakeAny(5000);
        order.push_back(frame.is_null() ? "nothing" : frame.value("method", "") + frame["params"].value("path", ""));
    }
    EXPECT_EQ(order, (std::vector<std::string>{"open", "serve/one", "subscribe/told", "serve/two", "notify/one"}));
    gateway->Notify("/told", {{"n", 1}});
    EXPECT_EQ(bodies.Take(), R"({"n":1})");
    gateway->Request(1, "get", "/two", nullptr);
    EXPECT_EQ(gateway->TakeAnswer()["result"], json({{"code", 2}}));
    EXPECT_TRUE(m_outcomes.IsEmpty());
}

TEST_F(PorticoClientTest, NotificationThatWaitedIsTheLastOne)
{
    FakeGateway gateway;
    gateway.SetMute({"serve"});
    const auto client = Create(gateway.Port());
    Serve(*client, "/mine", 1);
    const json serve = gateway.Take("serve");
    client->SendNotification("/mine", Record(1), 1.0);
    client->SendNotification("/mine", Record(2), 1.0);
    client->SendNotification("/foreign", Record(3), 1.0); // not served here: the gateway's business
    EXPECT_EQ(gateway.Take("notify")["params"]["path"], "/foreign");
    gateway.Answer(serve, json::object());
    EXPECT_EQ(gateway.Take("notify")["params"]["body"], json({{"code", 2}}));
    client->SendNotification("/mine", Record(4), 1.0);
    EXPECT_EQ(gateway.Take("notify")["params"]["body"], json({{"code", 4}}));
}

TEST_F(PorticoClientTest, TakenPathIsAskedForUntilItIsFree)
{
    FakeGateway gateway;
    gateway.RefuseServes(3);
    const auto client = Create(gateway.Port());
    const CallbackConnection served = Serve(*client, "/mine", 1);
    client->SendNotification("/mine", Record(9), 1.0);
    for (int attempt = 0; attempt < 4; ++attempt)
    {
        EXPECT_EQ(gateway.Take("serve")["params"]["path"], "/mine");
    }
    EXPECT_EQ(gateway.Take("notify")["params"]["body"], json({{"code", 9}}));

    gateway.RefuseServes(1000);
    const CallbackConnection refused = Serve(*client, "/other", 1);
    gateway.Take("serve");
    refused.Disconnect();
    EXPECT_EQ(gateway.Take("withdraw")["params"]["path"], "/other");
    while (!gateway.TakeAny(0).is_null())
    {
    }
    EXPECT_TRUE(gateway.TakeAny(700).is_null()) << "still asking for a path that nobody wants any more";
}

TEST_F(PorticoClientTest, RefusedOpenIsTriedAgain)
{
    FakeGateway gateway;
    gateway.SetMute({"open"});
    const auto client = Create(gateway.Port());
    Get(*client, "/status");
    for (int attempt = 0; attempt < 2; ++attempt)
    {
        gateway.AnswerError(gateway.Take("open"), -32602, "not you");
    }
    EXPECT_EQ(CodeOf(m_outcomes.Take()->error), 503);
    EXPECT_EQ(m_connects.Take(), false);
    gateway.Answer(gateway.Take("open"), json::object());
    EXPECT_EQ(m_connects.Take(), true);
}

TEST_F(PorticoClientTest, HeartbeatsComeWithGuidAndStatus)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port(), "G");
    gateway.Take("open");
    for (const int status : {1041, 1040})
    {
        gateway.Send({{"jsonrpc", "2.0"}, {"method", "heartbeat"}, {"params", {{"guid", "G"}, {"status", status}}}});
        EXPECT_EQ(m_heartbeats.Take(), std::make_pair(std::string("G"), status));
    }
}

TEST_F(PorticoClientTest, HandlerAnswersLaterOnceAndForItsOwnConnection)
{
    Inbox<std::pair<Response, Response>> waiting;
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    const auto client = Create(port);
    client->RegisterGet(
        "/later",
        [&waiting](const Response& response, const Response& error) {
            waiting.Put({response, error});
        },
        Portico::EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    gateway->Take("serve");
    gateway->Request(1, "get", "/later", nullptr);
    const auto first = waiting.Take();
    ASSERT_TRUE(first);
    std::thread(
        [&first]
        {
            Portico::Error error = Record(503);
            error.set_message("MDNS Service not available.");
            first->second(error);
            first->first(Record(1));
        })
        .join();
    EXPECT_EQ(
        gateway->TakeAnswer()["error"],
        json({{"code", 503}, {"message", "MDNS Service not available."}, {"data", {{"subcode", 0}, {"guid", ""}}}}));

    gateway->Request(2, "get", "/later", nullptr);
    const auto second = waiting.Take();
    ASSERT_TRUE(second);
    gateway = nullptr;
    gateway = std::make_unique<FakeGateway>(port);
    gateway->Take("serve");
    second->first(Record(2)); // id 2 means something else here
    gateway->Request(3, "get", "/later", nullptr);
    waiting.Take()->first(Record(3));
    EXPECT_EQ(gateway->TakeAnswer()["id"], 3);
}

TEST_F(PorticoClientTest, BodiesThatDoNotParseAndHandlersThatThrow)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    client->RegisterPost<Portico::Error>(
        "/in",
        [](const Portico::Error& body, const Response& response, const Response&)
        {
            if (body.code() == 13)
            {
                throw std::logic_error("thirteen");
            }
            response(body);
        },
        Portico::EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    client->RegisterGet(
        "/throws", [](const Response&, const Response&) { throw std::runtime_error("no"); },
        Portico::EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    gateway.Take("serve");
    gateway.Take("serve");
    const auto answer = [&gateway](int id, const char* method, const char* path, const json& body)
    {
        gateway.Request(id, method, path, body);
        return gateway.TakeAnswer();
    };
    EXPECT_EQ(answer(1, "post", "/in", {{"code", 5}, {"unknown", true}})["result"], json({{"code", 5}}));
    EXPECT_EQ(answer(2, "post", "/in", {{"Error", {{"code", 6}}}})["result"], json({{"code", 6}}));
    const json wrong = answer(3, "post", "/in", {{"code", "text"}});
    EXPECT_EQ(wrong["error"]["code"], 0);
    EXPECT_EQ(wrong["error"]["data"]["subcode"], 2005);
    EXPECT_EQ(answer(4, "post", "/in", nullptr)["error"]["data"]["subcode"], 2005);
    EXPECT_EQ(answer(5, "post", "/in", {{"code", 13}})["error"]["message"], "thirteen");
    EXPECT_EQ(answer(6, "get", "/throws", nullptr)["error"]["data"]["subcode"], 2005);
}

TEST_F(PorticoClientTest, AnswersComeAsRecordsOrErrors)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Inbox<Portico::Error> results;
    Inbox<Portico::Error> errors;
    const auto send = [&]
    {
        client->SendGet<Portico::Error, Portico::Error>(
            "/x", [&results](const Portico::Error& record) { results.Put(record); },
            [&errors](const Portico::Error& error) { errors.Put(error); }, 1.0);
        return gateway.Take("get");
    };
    gateway.Answer(send(), {{"code", 1}});
    EXPECT_EQ(results.Take()->code(), 1);
    gateway.AnswerError(send(), 404, "nobody");
    EXPECT_EQ(errors.Take()->ShortDebugString(), R"(code: 404 subcode: 7 message: "nobody" guid: "G")");
    gateway.Answer(send(), json::array());
    const auto unreadable = errors.Take();
    ASSERT_TRUE(unreadable);
    EXPECT_EQ(unreadable->guid(), "1");
    EXPECT_TRUE(unreadable->has_code());
    EXPECT_EQ(unreadable->subcode(), 2005);

    Inbox<int> told;
    client->RegisterNotification<Portico::Error>(
        "/told",
        [&told](const Portico::Error& record)
        {
            told.Put(record.code());
            throw std::logic_error("a subscriber's own fault");
        },
        Portico::EndpointScope::PUBLIC, 1.0);
    gateway.Take("subscribe");
    gateway.Notify("/told", {{"code", json::array()}});
    gateway.Notify("/told", {{"code", 1}});
    gateway.Notify("/told", {{"code", 2}});
    EXPECT_EQ(told.Take(), 1);
    EXPECT_EQ(told.Take(), 2);
}

TEST_F(PorticoClientTest, FramesThatMakeNoSenseChangeNothing)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Serve(*client, "/mine", 1);
    gateway.Take("serve");
    for (const char* frame :
         {"", "{", "[]", "null", "[{\"method\":\"get\"}]", "{}", R"({"id":1})", R"({"id":1,"error":5})",
          R"({"method":5})", R"({"method":"get","params":[1]})", R"({"id":999,"result":{}})",
          R"({"id":"1","result":{}})", R"({"id":{},"error":{"code":"x","message":[],"data":3}})",
          R"({"method":"notify","params":{"path":7}})", R"({"method":"heartbeat"})", R"({"method":"unheard"})"})
    {
        gateway.SendText(frame);
    }
    gateway.Request(1, "get", "/mine", nullptr);
    EXPECT_EQ(gateway.TakeAnswer()["result"], json({{"code", 1}}));
    EXPECT_EQ(gateway.Connections(), 1U);
}

TEST_F(PorticoClientTest, DisconnectedMeansNoMoreCalls)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    Inbox<std::string> first;
    Inbox<std::string> second;
    const auto listen = [&client](Inbox<std::string>& inbox)
    {
        return client->RegisterNotificationText(
            "/told", [&inbox](const std::string& body) { inbox.Put(body); }, Portico::EndpointScope::PUBLIC, 1.0, 0);
    };
    const CallbackConnection one = listen(first);
    const CallbackConnection two = listen(second);
    const CallbackConnection served = Serve(*client, "/mine", 1);
    const CallbackConnection request = Get(*client, "/slow");
    const json get = gateway.Take("get");

    request.Disconnect();
    EXPECT_FALSE(request.IsConnected());
    gateway.Answer(get, json::object());
    one.Disconnect();
    gateway.Notify("/told", 1);
    EXPECT_EQ(second.Take(), "1");
    EXPECT_TRUE(first.IsEmpty());
    EXPECT_TRUE(m_outcomes.IsEmpty());
    served.Disconnect();
    EXPECT_EQ(gateway.Take("withdraw")["params"]["verb"], "get");
    two.Disconnect();
    two.Disconnect();
    EXPECT_EQ(gateway.Take("unsubscribe")["params"]["path"], "/told"); // only now that nobody listens
    Get(*client, "/barrier");
    gateway.Take("get");
    for (json frame = gateway.TakeAny(0); !frame.is_null(); frame = gateway.TakeAny(0))
    {
        EXPECT_NE(frame.value("method", ""), "unsubscribe") << "a second one";
    }
}

TEST_F(PorticoClientTest, EndedClientCallsNobody)
{
    FakeGateway gateway;
    Inbox<std::string> told;
    auto client = Create(gateway.Port(), "G");
    const CallbackConnection listening = client->RegisterNotificationText(
        "/told", [&told](const std::string& body) { told.Put(body); }, Portico::EndpointScope::PUBLIC, 1.0, 0);
    EXPECT_EQ(m_connects.Take(), true);
    Get(*client, "/slow");
    gateway.Take("get");
    gateway.Notify("/told", 1);
    EXPECT_EQ(told.Take(), "1");

    std::thread noise(
        [&gateway]
        {
            for (int count = 0; count < 200; ++count)
            {
                gateway.Notify("/told", count);
            }
        });
    client.reset();
    while (told.Take(milliseconds(0)))
    {
    }
    noise.join();
    EXPECT_TRUE(gateway.WaitForConnections(0));
    EXPECT_TRUE(told.IsEmpty());
    EXPECT_TRUE(m_outcomes.IsEmpty());
    EXPECT_TRUE(m_connects.IsEmpty());
    EXPECT_FALSE(listening.IsConnected());
    listening.Disconnect();

    const auto shut = Create(gateway.Port());
    EXPECT_EQ(m_connects.Take(), true);
    shut->Shutdown();
    EXPECT_TRUE(gateway.WaitForConnections(0));
    Get(*shut, "/late");
    EXPECT_FALSE(m_connects.Take(milliseconds(300))); // stays away
    EXPECT_TRUE(m_outcomes.IsEmpty());
}

TEST_F(PorticoClientTest, BodyThatIsNoJsonIsNotSent)
{
    FakeGateway gateway;
    const auto client = Create(gateway.Port());
    gateway.Take("open");
    client->SendText(
        Portico::Verb::POST, "/in", "{oops",
        [this](const std::string& body, const std::string& error) {
            m_outcomes.Put({body, error});
        },
        1.0);
    EXPECT_EQ(json::parse(m_outcomes.Take()->error)["subcode"], 2005);
    client->SendText(Portico::Verb::DELETE, "/in", R"({"a":[1]})", nullptr, 1.0);
    EXPECT_EQ(gateway.Take("delete")["params"]["body"], json({{"a", {1}}}));
    EXPECT_EQ(gateway.Connections(), 1U);
}

TEST_F(PorticoClientTest, FiveHundredClientsShareOneThreadAndCostLittle)
{
    const auto status = [](const std::string& key)
    {
        std::ifstream file("/proc/self/status");
        for (std::string line; std::getline(file, line);)
        {
            if (line.starts_with(key))
            {
                return std::stol(line.substr(key.size() + 1));
            }
        }
        return 0L;
    };
    DPrint::SetLevels("2");
    FakeGateway gateway;
    const auto warm = Create(gateway.Port());
    gateway.Take("open");
    const long threads = status("Threads");
    const long before = status("VmRSS");
    std::vector<std::shared_ptr<PorticoClientIF>> clients;
    for (int count = 0; count < 500; ++count)
    {
        clients.push_back(Create(gateway.Port(), "guid-" + std::to_string(count)));
    }
    for (std::size_t count = 0; count < clients.size(); ++count)
    {
        gateway.Take("open");
    }
    EXPECT_EQ(status("Threads"), threads);
    // Both ends of each connection are in this process; sanitizers have a memory of their own.
    const long perClient = (status("VmRSS") - before) / static_cast<long>(clients.size());
    RecordProperty("KiBPerClientAndPeer", static_cast<int>(perClient));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(perClient, 32);
#endif
    clients.clear();
    EXPECT_TRUE(gateway.WaitForConnections(1));
    DPrint::SetLevels("3");
}
