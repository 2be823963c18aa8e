#include "World.h"

#include "DiscoveryServiceController.h"
#include "ProtoToMarkup.h"
#include "Sonarix.pb.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>

using namespace SonarixService;

namespace
{

const char* const kInfo = "/sonarix/info";
const char* const kType = "_kova-lanyard._tcp";

const char* const kUp =
    R"({"isPrimaryUp":true,"primary":"WIRED_ETH","primaryIpAddress":"10.0.0.1","interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})";
const char* const kDown =
    R"({"isPrimaryUp":false,"primary":"WIRED_ETH","interfaces":[{"type":"WIRED_ETH","name":"eth0"}]})";

void SetFile(const char* variable, const std::string& path, const std::string& content)
{
    std::ofstream(path) << content;
    setenv(variable, path.c_str(), 1);
}

/// To all that waits on the connection; without a body it fails. False where nothing waits.
bool AnswerEach(const std::shared_ptr<FakeConnection>& client, const std::string& body)
{
    bool isAnswered = false;
    while (client && (body.empty() ? client->Fail(kInfo, 503, 0, "no answer") : client->AnswerText(kInfo, body)))
    {
        isAnswered = true;
    }
    return isAnswered;
}

} // namespace

World::World(std::uint64_t seed, bool isAccessory)
    : simulation(seed)
    , log("3")
{
    SetFile("SONARIX_MFG_DATA", m_directory.Path() + "/mfg.json", R"({"guid":"own"})");
    SetFile("SONARIX_PRODUCT_CONFIG", m_directory.Path() + "/config.json",
            isAccessory ? R"({"accessoryMode":true})" : R"({"accessoryMode":false})");
    setenv("SONARIX_ETC_DIR", (m_directory.Path() + "/").c_str(), 1);
}

World::~World()
{
    // Held for the life of the process, as the entry point does.
    static std::vector<std::shared_ptr<DiscoveryServiceController>> s_controllers;
    s_controllers.push_back(std::move(m_controller));
}

void World::StartService()
{
    m_controller = std::make_shared<DiscoveryServiceController>();
    m_controller->Initialize();
    simulation.RunUntilIdle();
}

void World::Appear(const std::string& name)
{
    products[name] = true;
    mdns.Announce(FakeMdns::MakeService(name, kType, {{"GUID", name}, {"ECOSYS", "ORB2"}}));
}

void World::Vanish(const std::string& name, bool saysGoodbye)
{
    products[name] = false;
    if (saysGoodbye)
    {
        mdns.Withdraw(name, kType);
    }
}

void World::SetNetwork(bool isUp)
{
    m_status = isUp ? kUp : kDown;
    if (!Gateway()->AnswerText("/network/status", m_status))
    {
        Gateway()->PushText("/network/status", m_status);
    }
    simulation.RunUntilIdle();
}

void World::RestartGateway()
{
    for (const std::shared_ptr<FakeConnection>& connection : portico.Made())
    {
        AnswerEach(connection, "");
    }
    m_heartbeats.clear();
    Gateway()->PushText("/network/status", m_status);
    simulation.RunUntilIdle();
}

std::shared_ptr<const FakeAnswer> World::Advertise(const std::string& name)
{
    auto answer = Gateway()->Call(Portico::Verb::POST, "/startDiscoveryAdvertisement",
                                  R"({"deviceName":")" + name + R"(","guid":"own","ecosys":"ORB2"})");
    simulation.RunUntilIdle();
    return answer;
}

void World::KeepAnswering(int second)
{
    for (const auto& [name, isThere] : products)
    {
        if (isThere)
        {
            Answer(name);
        }
        else
        {
            AnswerEach(ClientFor(name), "");
        }
        if (second % 3 == 0)
        {
            SendHeartbeat(name, isThere);
        }
    }
    simulation.Schedule(std::chrono::seconds(1), [this, second] { KeepAnswering(second + 1); });
}

bool World::Answer(const std::string& name)
{
    const std::shared_ptr<FakeConnection> client = ClientFor(name);
    if (name != "own")
    {
        return AnswerEach(client, R"({"guid":")" + name + R"(","friendlyname":")" + name + R"("})");
    }
    if (!client || client->Waiting(kInfo) == 0)
    {
        return false;
    }
    const auto answer = Gateway()->Call(Portico::Verb::GET, kInfo);
    simulation.Schedule(std::chrono::milliseconds(10),
                        [client, answer] { return answer->isDone && AnswerEach(client, answer->body); });
    return true;
}

void World::SendHeartbeat(const std::string& name, bool isThere)
{
    const std::shared_ptr<FakeConnection> client = ClientFor(name);
    if (client && client->IsOpen() && (!isThere || !m_heartbeats[client.get()]))
    {
        m_heartbeats[client.get()] = isThere;
        client->SendHeartbeat(isThere ? HEARTBEAT_ONLINE : HEARTBEAT_OFFLINE);
    }
}

std::string World::StateOf(const std::string& name)
{
    const auto answer = Gateway()->Call(Portico::Verb::GET, "/sonarix/products");
    simulation.RunUntilIdle();
    Sonarix::ProductList list;
    ProtoToMarkup::FromJson(answer->body, &list);
    for (const Sonarix::Product& product : list.products())
    {
        if (product.productinfo().guid() == name)
        {
            return SXCommon::ProductState_Name(product.state());
        }
    }
    return "absent";
}

std::shared_ptr<FakeConnection> World::Gateway() const
{
    return portico.Find("SonarixService");
}

std::shared_ptr<FakeConnection> World::ClientFor(const std::string& guid) const
{
    return portico.Find("DiscoveryServiceAggregator-" + guid);
}
