#pragma once

#include "runtime/engine/Simulation.h"
#include "tests/fakes/FakeConsole.h"
#include "tests/fakes/FakeMdns.h"
#include "tests/fakes/FakePortico.h"
#include "tests/simulation/Model.h"
#include "tests/support/TempDirectory.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace Sonarix
{
class ProductList;
} // namespace Sonarix

namespace SonarixService
{
class DiscoveryServiceController;
}

/// A neighbour on the network.
struct Device
{
    enum class Answers ///< to the question for its own description
    {
        RIGHT,
        LATE,
        AS_ANOTHER, ///< with the guid `claims`
        GARBAGE,
        ERROR,
        NEVER,
    };

    enum class Describes ///< at its LOCATION
    {
        RIGHT,
        LATE,
        BUSY,     ///< after a retry
        ANYTHING, ///< some other document
        GARBAGE,
        NOTHING,
        NOT_FOUND,
        NEVER,
    };

    std::string guid;
    std::string name; ///< of its mDNS instances, and in its descriptions
    std::string address;
    std::string ecosystem = "ORB2"; ///< empty: of another maker
    std::string clockName;          ///< of its clock service; empty: it has none
    std::string claims;
    Answers answers = Answers::RIGHT;
    bool isThere = false;    ///< reached by the gateway
    bool isTalkative = true; ///< its description holds its name and address
    bool speaksMdns = true;
    bool speaksSsdp = false;
    bool isFaint = false; ///< many of its answers to searches are late, or lost
    std::string location; ///< of its description
    Describes describes = Describes::RIGHT;
    int version = 0;
};

/// The whole service under the simulated engine, with what surrounds it: a LAN with devices, the mDNS daemon, the
/// gateway, the network service, the processes that post descriptions. It only does what it is told to and what a
/// gateway and a LAN do by themselves: carry questions, answers and pushes, check what is connected, resolve. Each
/// fact that reaches the service is told to the model, and has an instant of its own.
/// One to a process, since the service is never torn down.
class World final : private FakePorticoListener
{
public:
    using Milliseconds = std::chrono::milliseconds;

    /// The gateway checks each connected product every `checkPeriod`.
    World(std::uint64_t seed, bool isAccessory, Milliseconds checkPeriod);
    ~World() override;
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    void StartService();
    /// `fact` after about `delay`, at an instant at which nothing else happens, and after what the service itself has
    /// to do at that instant.
    void At(Milliseconds delay, std::function<void()> fact);
    void Say(const std::string& event); ///< for the story of a failure

    // --- the product's own processes ---
    void SetStatus(bool isPrimaryUp, const std::string& address, bool hasInterface);
    void FailFirstStatus();
    void Advertise(const std::string& name);
    void PostChild(const std::string& guid, const std::string& name, bool isUpdate);
    void DeleteChild(const std::string& guid);
    void RestartGateway(Milliseconds pause);
    void SetDaemon(bool isRunning);

    // --- devices ---
    void Announce(Device& device); ///< its services, with records as they are now
    void Withdraw(const Device& device);
    bool IsAnnounced(const Device& device) const;
    void ReportAgain(const Device& device, bool wasGone);
    void Mute(const Device& device); ///< can't be resolved until it is announced again
    void AnnounceBySsdp(const Device& device);
    void SayByeBySsdp(const std::string& guid);
    void SetMulticast(bool passes); ///< of SSDP
    void ChangeLinkUnsaid();
    void SetDescriptionsHanging(bool areHanging);
    /// Whether it is there, its guid or its answers may have changed.
    void CheckSoon(const std::string& guid);
    void Push(const std::string& guid); ///< the device's description to its subscribers

    /// Once all has had the time to settle: all pages with the model, and with the world.
    void Compare();
    /// What went wrong first, with what happened before; empty: nothing.
    const std::string& Failure() const
    {
        return m_failure;
    }
    std::size_t Comparisons() const
    {
        return m_comparisons;
    }
    static std::int64_t NowMs();
    bool IsDaemonRunning() const
    {
        return m_isDaemonRunning;
    }

    IL::Simulation simulation;
    FakeMdns mdns;
    std::vector<Device> devices;
    std::int64_t lastChangeMs = 0; ///< of the script, or a refresh

private:
    class SsdpNetwork;
    /// What the gateway knows of a product that the service is connected to.
    struct Peer
    {
        std::shared_ptr<FakeConnection> connection;
        const Device* servedBy = nullptr;
        std::optional<bool> isThere; ///< what it was told last
        bool isCheckDue = false;
        bool hasFailed = false; ///< a question was not carried, since the last check
    };

    void Opened(const std::shared_ptr<FakeConnection>& connection) override;
    void Closed(const std::string& serviceName) override;
    void Asked(const std::string& serviceName, const std::string& path) override;
    void Notified(const std::string& path, const google::protobuf::Message& message) override;

    Milliseconds Upto(std::uint64_t ms);
    void Fail(const std::string& what);
    void Resolving(const MDNS::ServiceId& id, const FakeMdns::Script::Answer& answer);
    bool IsOurs(const std::string& name) const;
    const Device* ServerOf(const std::string& guid) const;
    static Sonarix::ProductInfo Description(const Device& device);
    void Deliver(const std::string& guid, Milliseconds delay, const std::string& json);
    void Told(const std::string& how, const std::string& json);
    void DeliverOwn(const std::string& guid);
    void PushText(const std::string& guid, Milliseconds delay, const std::string& json);
    void CheckIn(const std::string& guid, Milliseconds delay);
    void Check(const std::string& guid);
    void ProbeGivenUp();
    void Refresh();
    void CompareTable(const Sonarix::ProductList& list);
    void CompareWithWorld();
    void CompareConnections();
    std::string Get(const std::string& path);

    const TempDirectory m_directory;
    const Milliseconds m_checkPeriod;
    FakePortico m_portico;
    FakeConsole m_console;
    Model m_model;
    const std::unique_ptr<SsdpNetwork> m_ssdp;
    std::shared_ptr<SonarixService::DiscoveryServiceController> m_controller;
    std::shared_ptr<FakeConnection> m_gateway; ///< the service's main connection
    std::shared_ptr<FakeConnection> m_childEndpoint;
    std::map<std::string, Peer> m_peers;          ///< by guid
    std::map<std::string, std::string> m_answers; ///< the last by guid
    std::set<std::int64_t> m_instants;            ///< taken, ms
    std::set<std::pair<std::string, std::string>> m_mute;
    std::string m_status;
    std::string m_ownInfo; ///< as notified last
    bool m_isNetworkUp = false;
    bool m_isGatewayRunning = true;
    bool m_isDaemonRunning = true;
    unsigned m_gatewayRun = 0;
    std::int64_t m_refreshMs = 0;
    std::size_t m_lists = 0; ///< notified
    std::size_t m_comparisons = 0;
    std::string m_failure;
    std::deque<std::string> m_story;
};
