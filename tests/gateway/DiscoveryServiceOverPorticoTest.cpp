#include "gateway/DiscoveryServiceOverPortico.h"

#include "runtime/engine/Simulation.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakePortico.h"
#include <PorticoClient.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>

using namespace SonarixService;
using Portico::Verb;

namespace
{

const char* const kPath = "/sonarix/private/products";
const char* const kChild = R"({"state":"ONLINE","productinfo":{"guid":"child"}})";

} // namespace

TEST(DiscoveryServiceOverPorticoTest, AnswersBeforeSignalAndDoesNothingAfterDestruction)
{
    IL::Simulation simulation(1);
    NotifyTargetTaskIF* const task = IL::CreateTask("Task", "");
    FakePortico portico;
    std::shared_ptr<DiscoveryServiceOverPorticoIF> endpoint = DiscoveryServiceOverPortico::Create(task);
    const auto connection = portico.Find("DiscoveryServiceOverPortico");
    EXPECT_EQ(connection->FindEndpoint(Verb::POST, kPath)->scope, Portico::EndpointScope::PRIVATE);

    std::shared_ptr<const FakeAnswer> answer;
    std::string signals;
    endpoint->RegisterForProductUpdate(
        [&](const Sonarix::Product& product)
        {
            EXPECT_TRUE(answer->isDone);
            signals += product.productinfo().guid();
        });
    answer = connection->Call(Verb::POST, kPath, kChild);
    EXPECT_FALSE(answer->isDone) << "the handler is posted to its task";
    simulation.RunUntilIdle();
    EXPECT_EQ(answer->body, "{}");
    EXPECT_EQ(signals, "child");

    answer = connection->Call(Verb::POST, kPath, kChild);
    endpoint.reset();
    simulation.RunUntilIdle();
    EXPECT_FALSE(answer->isDone || connection->IsOpen());
    EXPECT_EQ(signals, "child");
}
