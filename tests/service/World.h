#pragma once

#include "FakeMdns.h"
#include "FakePortico.h"
#include "LogCapture.h"
#include "Simulation.h"
#include "TempDirectory.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace SonarixService
{
class DiscoveryServiceController;
}

/// The whole service under the simulated engine, with what surrounds it: a LAN with products, the gateway, the network
/// service, the sibling that posts the own description. One to a process, since the service is never torn down.
/// Own guid: "own". A neighbour's guid is its name.
///
///     World world(seed);
///     world.Appear("kitchen");
///     world.StartService();
///     world.SetNetwork(true);
///     EXPECT_EQ(world.StateOf("kitchen"), "OFFLINE");
///     world.KeepAnswering();                           // from now on products answer, and heartbeats come
///     world.simulation.RunFor(std::chrono::seconds(10));
///     EXPECT_EQ(world.StateOf("kitchen"), "ONLINE");
class World final
{
public:
    explicit World(std::uint64_t seed, bool isAccessory = false);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    /// Returns with nothing left to do at this moment.
    void StartService();

    void Appear(const std::string& name);                   ///< a neighbour is there, answers and announces itself
    void Vanish(const std::string& name, bool saysGoodbye); ///< and answers no more

    /// The network service answers the first question, later it notifies. Up: eth0 with 10.0.0.1. Down: no address.
    void SetNetwork(bool isUp);
    /// Every request in flight fails; the network service notifies anew, and heartbeats start over.
    void RestartGateway();
    /// The sibling's request for the own description; the answer, when there is one.
    std::shared_ptr<const FakeAnswer> Advertise(const std::string& name);

    /// From now on, each second: products that are there answer, the others fail; the own client is answered by the
    /// service itself; each third second a heartbeat at every change and for every failure.
    void KeepAnswering(int second = 0);
    /// One product's answer to all that it was asked. False where nobody asked.
    bool Answer(const std::string& name);

    /// Of its row in GET "/sonarix/products"; "absent" where there is none.
    std::string StateOf(const std::string& name);

    std::shared_ptr<FakeConnection> Gateway() const; ///< the service's main connection
    std::shared_ptr<FakeConnection> ClientFor(const std::string& guid) const;

    IL::Simulation simulation;
    FakeMdns mdns;
    FakePortico portico;
    LogCapture log;
    std::map<std::string, bool> products{{"own", true}}; ///< whether it is there

private:
    void SendHeartbeat(const std::string& name, bool isThere);

    TempDirectory m_directory;
    std::shared_ptr<SonarixService::DiscoveryServiceController> m_controller;
    std::string m_status;
    std::map<const FakeConnection*, bool> m_heartbeats; ///< what each client was told last
};
