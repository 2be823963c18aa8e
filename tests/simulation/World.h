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

/// A simulated device.
struct Device
{
    enum class Answers ///< how it responds to requests of /sonarix/info
    {
        RIGHT,
        LATE,
        AS_ANOTHER, ///< with the guid `claims`
        GARBAGE,
        ERROR,
        NEVER,
    };

    enum class Describes ///< how it serves its description
    {
        RIGHT,
        LATE,
        BUSY,     ///< responds after a retry
        ANYTHING, ///< a document of another kind
        GARBAGE,
        NOTHING,
        NOT_FOUND,
        NEVER,
    };

    std::string guid;
    std::string name; ///< instance name in mDNS and friendly name in descriptions
    std::string address;
    std::string ecosystem = "ORB2"; ///< empty: another manufacturer
    std::string clockName;          ///< instance name of its clock service; empty: none
    std::string claims;
    Answers answers = Answers::RIGHT;
    bool isThere = false;    ///< reachable for the gateway
    bool isTalkative = true; ///< /sonarix/info contains name and address
    bool speaksMdns = true;
    bool speaksSsdp = false;
    bool isFaint = false; ///< many of its search responses are late or lost
    std::string location; ///< of its description
    Describes describes = Describes::RIGHT;
    int version = 0;
};

/// The whole service under the simulated engine with its environment: LAN devices, mDNS daemon, gateway, network
/// service and the processes that post descriptions. It executes the scenario's events and what gateway and LAN do on
/// their own: transport of requests, responses and notifications, heartbeats, resolving. Each input of the service has
/// its own instant and is also passed to the model. At most one per process, because the service is never destroyed.
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
    /// Runs `fact` after about `delay`, at an instant without other inputs and after the service's own work of that
    /// instant.
    void At(Milliseconds delay, std::function<void()> fact);
    void Say(const std::string& event); ///< adds a line to the history that a failure prints

    // --- other processes of the product ---
    void SetStatus(bool isPrimaryUp, const std::string& address, bool hasInterface);
    void FailFirstStatus();
    void Advertise(const std::string& name);
    void PostChild(const std::string& guid, const std::string& name, bool isUpdate);
    void DeleteChild(const std::string& guid);
    void RestartGateway(Milliseconds pause);
    void SetDaemon(bool isRunning);

    // --- devices ---
    void Announce(Device& device); ///< publishes its services with the current records
    void Withdraw(const Device& device);
    bool IsAnnounced(const Device& device) const;
    void ReportAgain(const Device& device, bool wasGone);
    void Mute(const Device& device); ///< cannot be resolved until it is announced again
    void AnnounceBySsdp(const Device& device);
    void SayByeBySsdp(const std::string& guid);
    void SetMulticast(bool passes); ///< of SSDP
    void ChangeLinkUnsaid();
    void SetDescriptionsHanging(bool areHanging);
    /// Schedules a gateway check, after a change of the device's presence, guid or responses.
    void CheckSoon(const std::string& guid);
    void Push(const std::string& guid); ///< notifies the device's subscribers of its /sonarix/info

    /// Compares the service's resources with the model and with the devices. Requires that all events have settled.
    void Compare();
    /// The first failure with the preceding history; empty: no failure.
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
    std::int64_t lastChangeMs = 0; ///< time of the last scenario event or refresh

private:
    class SsdpNetwork;
    /// What the simulated gateway keeps for one product to which the service is connected.
    struct Peer
    {
        std::shared_ptr<FakeConnection> connection;
        const Device* servedBy = nullptr;
        std::optional<bool> isThere; ///< last heartbeat sent to the service
        bool isCheckDue = false;
        bool hasFailed = false; ///< a request failed since the last check
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
    std::map<std::string, std::string> m_answers; ///< last response by guid
    std::set<std::int64_t> m_instants;            ///< instants in use, ms
    std::set<std::pair<std::string, std::string>> m_mute;
    std::string m_status;
    std::string m_ownInfo; ///< last notification of /sonarix/info
    bool m_isNetworkUp = false;
    bool m_isGatewayRunning = true;
    bool m_isDaemonRunning = true;
    unsigned m_gatewayRun = 0;
    std::int64_t m_refreshMs = 0;
    std::size_t m_lists = 0; ///< number of list notifications
    std::size_t m_comparisons = 0;
    std::string m_failure;
    std::deque<std::string> m_story;
};
