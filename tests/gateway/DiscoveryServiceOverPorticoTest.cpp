#include "DiscoveryServiceOverPortico.h"

#include "AsyncCallback.h"
#include "FakePortico.h"
#include "PorticoClient.h"
#include "Simulation.h"
#include "Sonarix.pb.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

using namespace SonarixService;
using Portico::Verb;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace
{

const char* const kPath = "/sonarix/private/products";
const char* const kChild = R"({"state":"ONLINE","productinfo":{"guid":"child"}})";

class DiscoveryServiceOverPorticoTest : public testing::Test
{
protected:
    DiscoveryServiceOverPorticoTest()
    {
        m_connection = m_portico.Find("DiscoveryServiceOverPortico");
    }

    /// Subscribes as the aggregator does, and writes down what comes.
    void Subscribe()
    {
        m_endpoint->RegisterForProductUpdate(AsyncCallback<Sonarix::Product>(
            [this](const Sonarix::Product& product) { m_signals.push_back("update " + product.productinfo().guid()); },
            m_task));
        m_endpoint->RegisterForProductRemoved(AsyncCallback<Sonarix::Product>(
            [this](const Sonarix::Product& product) { m_signals.push_back("removed " + product.productinfo().guid()); },
            m_task));
    }

    std::shared_ptr<const FakeAnswer> Call(Verb verb, const std::string& body)
    {
        auto answer = m_connection->Call(verb, kPath, body);
        m_simulation.RunUntilIdle();
        return answer;
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Task", "");
    FakePortico m_portico;
    std::shared_ptr<DiscoveryServiceOverPorticoIF> m_endpoint = DiscoveryServiceOverPortico::Create(m_task);
    std::shared_ptr<FakeConnection> m_connection;
    std::vector<std::string> m_signals;
};

} // namespace

TEST_F(DiscoveryServiceOverPorticoTest, ServesThreeVerbsForThisProductAloneOverAConnectionOfItsOwn)
{
    ASSERT_TRUE(m_connection);
    EXPECT_EQ(m_connection->host, "localhost");
    EXPECT_EQ(m_connection->port, 8084);
    EXPECT_EQ(m_connection->subProtocol, "tarsier");
    EXPECT_EQ(m_connection->guid, "");
    for (const Verb verb : {Verb::POST, Verb::PUT, Verb::DELETE})
    {
        const auto endpoint = m_connection->FindEndpoint(verb, kPath);
        ASSERT_TRUE(endpoint);
        EXPECT_EQ(endpoint->scope, Portico::EndpointScope::PRIVATE);
        EXPECT_EQ(endpoint->version, 1.0);
        EXPECT_EQ(endpoint->label, "Unknown");
        EXPECT_EQ(endpoint->option, 0);
    }
    EXPECT_FALSE(m_connection->Serves(Verb::GET, kPath));
}

TEST_F(DiscoveryServiceOverPorticoTest, RequestsAreAcknowledgedAndSignalledInTheirOrder)
{
    Subscribe();
    for (const Verb verb : {Verb::POST, Verb::PUT, Verb::DELETE})
    {
        const auto answer = Call(verb, kChild);
        EXPECT_TRUE(answer->isDone);
        EXPECT_FALSE(answer->isError);
        EXPECT_EQ(answer->body, "{}");
    }
    EXPECT_THAT(m_signals, ElementsAre("update child", "update child", "removed child"));
}

TEST_F(DiscoveryServiceOverPorticoTest, AnswerGoesOutBeforeTheSignal)
{
    std::shared_ptr<const FakeAnswer> answer;
    bool wasAnswered = false;
    m_endpoint->RegisterForProductUpdate([&](const Sonarix::Product&) { wasAnswered = answer->isDone; });
    answer = m_connection->Call(Verb::POST, kPath, kChild);
    EXPECT_FALSE(answer->isDone) << "the handler runs on its task, not on the library's thread";
    m_simulation.RunUntilIdle();
    EXPECT_TRUE(wasAnswered);
}

TEST_F(DiscoveryServiceOverPorticoTest, WithoutSubscriberOrWithAnEmptyProductItIsAcknowledgedAllTheSame)
{
    for (const Verb verb : {Verb::POST, Verb::PUT, Verb::DELETE})
    {
        EXPECT_FALSE(Call(verb, "{}")->isError);
    }
    Subscribe();
    EXPECT_TRUE(Call(Verb::DELETE, "{}")->isDone);
    EXPECT_THAT(m_signals, ElementsAre("removed "));
}

TEST_F(DiscoveryServiceOverPorticoTest, BodyThatIsNoProductFailsInTheWrapper)
{
    Subscribe();
    for (const char* body : {"", "[]", "{", R"({"productinfo":7})"})
    {
        const auto answer = Call(Verb::POST, body);
        EXPECT_TRUE(answer->isError) << body;
        EXPECT_THAT(answer->body, HasSubstr("2005"));
    }
    EXPECT_THAT(m_signals, IsEmpty());
}

TEST_F(DiscoveryServiceOverPorticoTest, RequestInFlightAtTheEndTouchesNothing)
{
    Subscribe();
    const auto answer = m_connection->Call(Verb::POST, kPath, kChild);
    m_endpoint.reset();
    m_simulation.RunUntilIdle();
    EXPECT_FALSE(answer->isDone);
    EXPECT_THAT(m_signals, IsEmpty());
    EXPECT_FALSE(m_connection->IsOpen());
}
