// The typed operations of the gateway client's interface. They are templates, which any client library gets with it.
#include <FakePortico.h>

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

using Portico::EndpointScope;
using Response = PorticoClientIF::Response;

namespace
{

class TypedOperations : public testing::Test
{
protected:
    FakePortico m_portico;
    std::shared_ptr<PorticoClientIF> m_client =
        Portico::PorticoClient::Create("Tester", "localhost", 8084, "tarsier", "", nullptr, std::nullopt, {});
    std::shared_ptr<FakeConnection> m_connection = m_portico.Find("Tester");
    std::vector<std::string> m_results;
    std::vector<std::string> m_errors;
};

TEST_F(TypedOperations, GetEndsInARecordOrAnError)
{
    const auto send = [this]
    {
        m_client->SendGet<Portico::Error, Portico::Error>(
            "/x", [this](const Portico::Error& record) { m_results.push_back(record.ShortDebugString()); },
            [this](const Portico::Error& error) { m_errors.push_back(error.ShortDebugString()); }, 1.0);
    };
    send();
    EXPECT_TRUE(m_connection->AnswerText("/x", R"({"Error":{"code":1}})"));
    EXPECT_EQ(m_results, std::vector<std::string>{"code: 1"});
    send();
    EXPECT_TRUE(m_connection->Fail("/x", 404, 7, "no server"));
    send();
    EXPECT_TRUE(m_connection->AnswerText("/x", "[]"));
    ASSERT_EQ(m_errors.size(), 2U);
    EXPECT_EQ(m_errors[0], R"(code: 404 subcode: 7 message: "no server")");
    EXPECT_TRUE(m_errors[1].starts_with("code: 0 subcode: 2005") && m_errors[1].ends_with(R"(guid: "1")"))
        << m_errors[1];
    EXPECT_EQ(m_results.size(), 1U);
}

TEST_F(TypedOperations, NotificationSkipsUnreadableBodiesAndExceptions)
{
    const CallbackConnection subscription = m_client->RegisterNotification<Portico::Error>(
        "/told",
        [this](const Portico::Error& record)
        {
            m_results.push_back(record.ShortDebugString());
            throw std::logic_error("the subscriber failed");
        },
        EndpointScope::PUBLIC, 1.0);
    for (const char* const body : {R"({"code":[]})", R"({"code":1})", R"({"code":2})"})
    {
        EXPECT_TRUE(m_connection->PushText("/told", body));
    }
    EXPECT_EQ(m_results, (std::vector<std::string>{"code: 1", "code: 2"}));
    subscription.Disconnect();
    EXPECT_FALSE(m_connection->PushText("/told", "{}"));
}

TEST_F(TypedOperations, ServedVerbsEndInSubcode2005WhereParsingOrTheHandlerFails)
{
    const auto handler = [](const Portico::Error& body, const Response& response, const Response&)
    {
        if (body.code() == 13)
        {
            throw std::logic_error("mine");
        }
        response(body);
    };
    m_client->RegisterPost<Portico::Error>("/in", handler, EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    m_client->RegisterPut<Portico::Error>("/in", handler, EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    m_client->RegisterDelete<Portico::Error>("/in", handler, EndpointScope::PUBLIC, 1.0, "Unknown", 0);
    for (const Portico::Verb verb : {Portico::Verb::POST, Portico::Verb::PUT, Portico::Verb::DELETE})
    {
        EXPECT_EQ(m_connection->Call(verb, "/in", R"({"code":1})")->body, R"({"code":1})");
        for (const char* const body : {R"({"code":"text"})", "", R"({"code":13})"})
        {
            const auto answer = m_connection->Call(verb, "/in", body);
            EXPECT_TRUE(answer->isError);
            EXPECT_NE(answer->body.find(R"("subcode":2005)"), std::string::npos) << answer->body;
            EXPECT_EQ(answer->body.find(R"("mine")") != std::string::npos, body == std::string(R"({"code":13})"));
        }
    }
}

} // namespace
