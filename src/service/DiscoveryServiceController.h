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

/// Creates and owns all main objects: the main task, the two discovery protocols, the gateway client with the
/// aggregator, the local socket server and the debug commands. Starts and stops discovery with the network's state.
/// Task: constructor, Initialize() and JoinTasks() run on the main thread, everything else on its own task.
/// Owner: the entry point, in a shared pointer. The objects that it creates hold shared pointers to it, so releasing
/// the entry point's pointer destroys nothing: a signal ends the process.
/// Never waits for the network, and never checks the results of the objects that it owns.
class DiscoveryServiceController final : public DiscoveryServiceControllerIF,
                                         public std::enable_shared_from_this<DiscoveryServiceControllerIF>
{
public:
    /// Creates the task and the discovery protocols. Sends nothing.
    DiscoveryServiceController();
    ~DiscoveryServiceController() override;
    DiscoveryServiceController(const DiscoveryServiceController&) = delete;
    DiscoveryServiceController& operator=(const DiscoveryServiceController&) = delete;

    /// Creates and starts everything else. To be called once. Throws std::bad_weak_ptr if no shared pointer owns the
    /// controller.
    void Initialize();

    /// Blocks until the main task has ended.
    void JoinTasks();

    /// The network is up if `isPrimaryUp` is set and the status has an interface of the primary type. Discovery starts
    /// and stops at edges only: a change of interface while the network stays up restarts nothing.
    void SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status) override;
    std::shared_ptr<SsdpDiscoveryProtocolIF> GetSsdpDiscoveryProtocol() override;
    std::shared_ptr<MdnsDiscoveryProtocolIF> GetMdnsDiscoveryProtocol() override;

    /// Returns the first interface of the primary type in the last status, or an empty string. Safe from any thread.
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
    std::shared_ptr<DiscoveryServiceIPCServerIF> m_ipcServer; ///< may be null
    std::shared_ptr<SsdpDiscoveryProtocolIF> m_ssdpProtocol;  ///< may be null
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_mdnsProtocol;
    CThreadMutex m_mutex; ///< guards only m_networkStatus
    std::string m_interfaceName;
    NetManager::Protobuf::NetworkStatus m_networkStatus;
    bool m_networkIsUp = false;
};

} // namespace SonarixService
