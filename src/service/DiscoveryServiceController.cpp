#include "service/DiscoveryServiceController.h"

#include "Mdns/MdnsDiscoveryProtocol.h"
#include "aggregator/DiscoveryServiceAggregator.h"
#include "gateway/DiscoveryServicePorticoClient.h"
#include "ipc/DiscoveryServiceIPCServer.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "service/DebugCommands.h"
#include "service/TaskPause.h"
#include "ssdp/SsdpDiscoveryProtocol.h"
#include <PorticoClient.h>

#include <optional>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServiceController");

} // namespace

DiscoveryServiceController::DiscoveryServiceController()
    : m_task(IL::CreateTask("DiscoveryServiceControllerTask", ""))
    , m_cliClient(m_task)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    m_mdnsProtocol = MdnsDiscoveryProtocol::Create();
    m_ssdpProtocol = SsdpDiscoveryProtocol::Create();
}

DiscoveryServiceController::~DiscoveryServiceController()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    Shutdown();
}

void DiscoveryServiceController::Initialize()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    const std::shared_ptr<DiscoveryServiceControllerIF> self = shared_from_this();

    {
        // The gateway loses notifications for a path that is not registered yet. The task processes requests only
        // after the gateway client has registered all paths.
        const TaskPause pause(m_task);
        CreateGatewayClient(self);
        m_ipcServer = DiscoveryServiceIPCServer::Create(self);
        m_porticoClient->Initialize();
    }
    if (m_ipcServer)
    {
        m_ipcServer->Initialize();
    }
    InitializeCLI();
}

void DiscoveryServiceController::CreateGatewayClient(const std::shared_ptr<DiscoveryServiceControllerIF>& self)
{
    const std::shared_ptr<PorticoClientIF> portico = Portico::PorticoClient::Create(
        "SonarixService", "localhost", 8084, "tarsier", "", nullptr, std::nullopt, Portico::CommonClientCreationInfo());
    m_porticoClient =
        DiscoveryServicePorticoClient::Create(m_task, self, portico, DiscoveryServiceAggregator::Create(m_task, self));
}

void DiscoveryServiceController::InitializeCLI()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    for (const DebugCommands::Command& command : DebugCommands::Table())
    {
        m_cliClient.RegisterCliCmd(command.key, command.words, command.help, command.usage);
    }
    // A weak pointer: the commands are owned by the controller.
    const auto primaryInterface = [weak = weak_from_this()]
    {
        const auto self = std::static_pointer_cast<DiscoveryServiceController>(weak.lock());
        return self ? self->GetPrimaryInterfaceName() : std::string();
    };
    const auto commands = std::make_shared<DebugCommands>(
        DebugCommands::Context{m_task, m_ssdpProtocol, m_mdnsProtocol, m_porticoClient, m_ipcServer, primaryInterface});
    m_cliClient.Initialize([commands](int cmdKey, const std::list<std::string>& arguments)
                           { return commands->HandleCliCmd(cmdKey, arguments); });
}

void DiscoveryServiceController::JoinTasks()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    IL::JoinTask(m_task);
}

void DiscoveryServiceController::SetNetworkStatus(const NetManager::Protobuf::NetworkStatus& status)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_VERBOSE, status.ShortDebugString());
    bool isPrimaryUp = false;
    {
        const ScopedMutex lock(m_mutex);
        m_networkStatus = status;
        isPrimaryUp = m_networkStatus.isprimaryup();
    }
    const std::string name = GetPrimaryInterfaceName();
    const bool isUp = !name.empty() && isPrimaryUp;
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s : iface = %s, status = %s", "SetNetworkStatus", name.c_str(),
            isUp ? "UP" : "DOWN");

    if (!m_networkIsUp && isUp)
    {
        m_networkIsUp = true;
        OnNetworkUp(name);
    }
    else if (m_networkIsUp && !isUp)
    {
        m_networkIsUp = false;
        OnNetworkDown();
    }
}

std::shared_ptr<SsdpDiscoveryProtocolIF> DiscoveryServiceController::GetSsdpDiscoveryProtocol()
{
    return m_ssdpProtocol;
}

std::shared_ptr<MdnsDiscoveryProtocolIF> DiscoveryServiceController::GetMdnsDiscoveryProtocol()
{
    return m_mdnsProtocol;
}

std::string DiscoveryServiceController::GetPrimaryInterfaceName()
{
    const ScopedMutex lock(m_mutex);
    for (const NetManager::Protobuf::NetworkInterface& interface : m_networkStatus.interfaces())
    {
        if (interface.type() == m_networkStatus.primary())
        {
            return interface.name();
        }
    }
    return {};
}

void DiscoveryServiceController::OnNetworkUp(const std::string& interfaceName)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "Network is up on interface: " << interfaceName);
    m_interfaceName = interfaceName;
    StartSonarix();
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->NetworkWentUp(); // after the start: it sends the deferred initial announcement
    }
}

void DiscoveryServiceController::OnNetworkDown()
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "Network is down");
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->NetworkWentDown();
    }
    StopSonarix();
}

void DiscoveryServiceController::StartSonarix()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    m_mdnsProtocol->Start();
    if (m_ssdpProtocol)
    {
        m_ssdpProtocol->Start(GetPrimaryInterfaceName());
    }
}

void DiscoveryServiceController::StopSonarix()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->Stop();
    }
    if (m_ssdpProtocol)
    {
        m_ssdpProtocol->Stop();
    }
}

void DiscoveryServiceController::Shutdown()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    StopSonarix();
    if (m_porticoClient) // null if Initialize() was not called
    {
        m_porticoClient->Shutdown();
    }
    if (m_ipcServer)
    {
        m_ipcServer->Shutdown();
    }
    IL::StopTask(m_task);
}

} // namespace SonarixService
