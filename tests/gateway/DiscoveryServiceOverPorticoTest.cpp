#include "DiscoveryServiceOverPortico.h"

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
    void Subscribe()
    {
        m_endpoint->RegisterForProductUpdate([this](const Sonarix::Product& product) { Signal("update ", product); });
        m_endpoint->RegisterForProductRemoved([this](const Sonarix::Product& product) { Signal("removed ", product); });
    }
    void Signal(const std::string& kind, const Sonarix::Product& product)
    {
        EXPECT_TRUE(m_answer->isDone) << "the answer goes out before the signal";
        m_signals.push_back(kind + product.productinfo().guid());
    }
    void Call(Verb verb, const std::string& body)
    {
        m_answer = m_connection->Call(verb, kPath, body);
        EXPECT_FALSE(m_answer->isDone) << "the handler runs on its task, not on the library's thread";
    }

    IL::Simulation m_simulation{1};
    NotifyTargetTaskIF* m_task = IL::CreateTask("Task", "");
    FakePortico m_portico;
    std::shared_ptr<DiscoveryServiceOverPorticoIF> m_endpoint = DiscoveryServiceOverPortico::Create(m_task);
    std::shared_ptr<FakeConnection> m_connection = m_portico.Find("DiscoveryServiceOverPortico");
    std::shared_ptr<const FakeAnswer> m_answer;
    std::vector<std::string> m_signals;
};

} // namespace

TEST_F(DiscoveryServiceOverPorticoTest, RequestsAreAcknowledgedAndThenSignalled)
{
    // Acknowledged also where nobody listens yet.
    for (const char* body : {"{}", kChild})
    {
        for (const Verb verb : {Verb::POST, Verb::PUT, Verb::DELETE})
        {
            EXPECT_EQ(m_connection->FindEndpoint(verb, kPath)->scope, Portico::EndpointScope::PRIVATE);
            Call(verb, body);
            m_simulation.RunUntilIdle();
            EXPECT_TRUE(m_answer->isDone && !m_answer->isError);
            EXPECT_EQ(m_answer->body, "{}");
        }
        Subscribe();
    }
    EXPECT_THAT(m_signals, ElementsAre("update child", "update child", "removed child"));
}

TEST_F(DiscoveryServiceOverPorticoTest, WrongBodiesAndARequestInFlightAtTheEndAreSignalledToNobody)
{
    Subscribe();
    for (const char* body : {"", "[]", "{", R"({"productinfo":7})"})
    {
        m_answer = m_connection->Call(Verb::POST, kPath, body);
        m_simulation.RunUntilIdle();
        EXPECT_TRUE(m_answer->isError) << body;
        EXPECT_THAT(m_answer->body, HasSubstr("2005"));
    }
    Call(Verb::POST, kChild);
    m_endpoint.reset();
    m_simulation.RunUntilIdle();
    EXPECT_FALSE(m_answer->isDone);
    EXPECT_THAT(m_signals, IsEmpty());
    EXPECT_FALSE(m_connection->IsOpen());
}
