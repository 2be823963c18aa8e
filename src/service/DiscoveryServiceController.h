#pragma once

#include "interfaces/DiscoveryServiceControllerIF.h"
#include "runtime/ThreadMutex.h"
#include "schemas/NetManager.pb.h"
#include "service/DiscoveryServiceCliClient.h"

#include <memory>
#include <string>

class NotifyTargetTaskIF;

namespace SonarixService
{

class DiscoveryServiceIPCServerIF;
class DiscoveryServicePorticoClientIF;

/// Owns the system: the main task, the discovery sources, the gateway client with the aggregator behind it, the
/// local socket server, the debug commands. The one place where the network's state turns into discovery running or
/// standing still. Task: constructor, Initialize() and JoinTasks() on the main thread, everything else on its own task.
/// Owner: the entry point, in a shared pointer. The objects that it makes hold it strongly, so that releasing that
/// pointer ends nothing: the process is ended from outside.
/// Never waits for the network, and never looks at what the objects that it drives return.
class DiscoveryServiceController final : public DiscoveryServiceControllerIF,
                                         public std::enable_shared_from_this<DiscoveryServiceControllerIF>
{
public:
    /// Makes the task and the discovery sources; nothing goes on the network by it.
    DiscoveryServiceController();
    ~DiscoveryServiceController() override;
    DiscoveryServiceController(const DiscoveryServiceController&) = delete;
    DiscoveryServiceController& operator=(const DiscoveryServiceController&) = delete;

    /// Makes and starts everything else. Once. Throws std::bad_weak_ptr where no shared pointer holds the controller.
    void Initialize();

    /// Blocks until the main task has ended.
    void JoinTasks();

    /// Up is a status with `isPrimaryUp` and a known primary interface. A change of interface while up restarts
    /// nothing: discovery only restarts on a passage through down.
    void SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status) override;
    std::shared_ptr<SsdpDiscoveryProtocolIF> GetSsdpDiscoveryProtocol() override;
    std::shared_ptr<MdnsDiscoveryProtocolIF> GetMdnsDiscoveryProtocol() override;

    /// The first interface of the last status that is of the primary type; empty where there is none. Any thread.
    std::string GetPrimaryInterfaceName();

private:
    void CreateGatewayClient(const std::shared_ptr<DiscoveryServiceControllerIF>& self);
    void InitializeCLI();
    void StartSonarix();
    void StopSonarix();
    void OnNetworkUp(const std::string& interfaceName);
    void OnNetworkDown();
    void Shutdown();

    NotifyTargetTaskIF* m_task;
    DiscoveryServiceCliClient m_cliClient;
    std::shared_ptr<DiscoveryServicePorticoClientIF> m_porticoClient;
    std::shared_ptr<DiscoveryServiceIPCServerIF> m_ipcServer; ///< may be empty
    std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol;  ///< may be empty
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    CThreadMutex m_mutex; ///< guards m_networkStatus only
    std::string m_interfaceName;
    NetManager::Protobuf::NetworkStatus m_networkStatus;
    bool m_networkIsUp = false;
};

} // namespace SonarixService
