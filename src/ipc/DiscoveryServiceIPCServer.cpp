#include "ipc/DiscoveryServiceIPCServer.h"

#include "interfaces/DiscoveryServiceControllerIF.h"
#include "ipc/IPCServerListener.h"
#include "ipc/MdnsIPCClientHandler.h"
#include "ipc/SsdpIPCClientHandler.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCDirectory.h"

#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("DiscoveryServiceIPCServer");

void LogEntry(const char* operation)
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "DiscoveryServiceIPCServer::%s", operation);
}

void LogHandler(const char* operation, const std::string& name)
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "DiscoveryServiceIPCServer::%s - %s", operation, name.c_str());
}

using ListenerImpl = IPCServerListener<DiscoveryServiceIPCClientHandlerIF>;

} // namespace

std::shared_ptr<DiscoveryServiceIPCServerIF>
DiscoveryServiceIPCServer::Create(const std::shared_ptr<DiscoveryServiceControllerIF>& controller)
{
    const Factory factory = s_factoryOverride.Get();
    return factory != nullptr ? factory(controller) : std::make_shared<DiscoveryServiceIPCServer>(controller);
}

DiscoveryServiceIPCServer::DiscoveryServiceIPCServer(const std::shared_ptr<DiscoveryServiceControllerIF>& controller)
    : m_task(IL::CreateTask("DiscoveryServiceIPCServerTask", ""))
    , m_controller(controller)
    , m_mdnsListener(ListenerImpl::Create("DiscoveryServiceIPCServerListenerMdns", m_task))
    , m_ssdpListener(ListenerImpl::Create("DiscoveryServiceIPCServerListenerSsdp", m_task))
{
    LogEntry(__func__);
}

DiscoveryServiceIPCServer::~DiscoveryServiceIPCServer() = default;

void DiscoveryServiceIPCServer::Initialize()
{
    LogEntry(__func__);
    const std::shared_ptr<DiscoveryServiceIPCServer> self = shared_from_this();
    const AsyncCallback<Handler> newClient([self](const Handler& handler) { self->HandleNewClient(handler); }, m_task);
    m_mdnsListener->Start(IPCDirectory::Get()->Lookup("SonarixMdnsService"), newClient,
                          [self](const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket)
                          { return self->CreateMdnsClientHandler(name, std::move(socket)); });
    m_ssdpListener->Start(IPCDirectory::Get()->Lookup("SonarixSsdpService"), newClient,
                          [self](const std::string& name, std::shared_ptr<Network::ConnectorSocket> socket)
                          { return self->CreateSsdpClientHandler(name, std::move(socket)); });
}

DiscoveryServiceIPCServer::Handler
DiscoveryServiceIPCServer::CreateMdnsClientHandler(const std::string& name,
                                                   std::shared_ptr<Network::ConnectorSocket> socket)
{
    TASK_CHECK(m_task);
    LogHandler(__func__, name);
    return std::make_shared<MdnsIPCClientHandler>(name, m_task, std::move(socket),
                                                  m_controller->GetMdnsDiscoveryProtocol());
}

DiscoveryServiceIPCServer::Handler
DiscoveryServiceIPCServer::CreateSsdpClientHandler(const std::string& name,
                                                   std::shared_ptr<Network::ConnectorSocket> socket)
{
    TASK_CHECK(m_task);
    LogHandler(__func__, name);
    return std::make_shared<SsdpIPCClientHandler>(name, m_task, std::move(socket),
                                                  m_controller->GetSsdpDiscoveryProtocol());
}

void DiscoveryServiceIPCServer::HandleNewClient(const Handler& handler)
{
    TASK_CHECK(m_task);
    LogEntry(__func__);
    {
        // The client is listed before Initialize(), so that a concurrent Shutdown() misses no client. The disconnect
        // that Shutdown() posts runs after this function.
        const ScopedMutex lock(m_clientsMutex);
        if (m_isShutDown)
        {
            return; // the handler's destructor closes its socket
        }
        m_clients.push_back(handler);
    }
    handler->RegisterForDisconnect([self = shared_from_this(), handler] { self->RemoveClient(handler); });
    handler->Initialize();
}

void DiscoveryServiceIPCServer::RemoveClient(const Handler& handler)
{
    TASK_CHECK(m_task);
    std::size_t left = 0;
    {
        const ScopedMutex lock(m_clientsMutex);
        m_clients.remove(handler);
        left = m_clients.size();
    }
    DPRINTF(s_log, DPrint::LEVEL_INFO, "Removing Client. Client List new size: %zu ", left);
}

void DiscoveryServiceIPCServer::SendSonarixNotification(SonarixPb::DeviceState state,
                                                        const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    std::list<Handler> clients;
    {
        const ScopedMutex lock(m_clientsMutex);
        clients = m_clients;
    }
    for (const Handler& client : clients)
    {
        client->SendSonarixNotification(state, device);
    }
}

void DiscoveryServiceIPCServer::Shutdown()
{
    LogEntry(__func__);
    std::list<Handler> clients;
    {
        const ScopedMutex lock(m_clientsMutex);
        clients.swap(m_clients);
        m_isShutDown = true;
    }
    for (const Handler& client : clients)
    {
        client->Shutdown();
    }
    m_mdnsListener->Stop();
    m_ssdpListener->Stop();
    // StopTask() discards queued entries. It is posted, so that the clients' queued disconnects run before it.
    IL::BreakThread([task = m_task] { IL::StopTask(task); }, m_task);
    IL::JoinTask(m_task);
}

} // namespace SonarixService
