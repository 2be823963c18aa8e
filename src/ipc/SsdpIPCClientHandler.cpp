#include "ipc/SsdpIPCClientHandler.h"

#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "ipc/IPCMessages.h"
#include "ipc/ProductConversion.h"
#include "runtime/AsyncCallback.h"
#include "runtime/Task.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCMessageRouterFactory.h"
#include "runtime/ipc/IPCMessageRouterIF.h"
#include "schemas/Sonarix.pb.h"

#include <utility>

namespace SonarixService
{

namespace
{

void LogEntry(const DPrint& log, const char* operation)
{
    DPRINTF(log, DPrint::LEVEL_DEBUG, "SsdpIPCClientHandler::%s\n", operation);
}

} // namespace

SsdpIPCClientHandler::SsdpIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                                           std::shared_ptr<Network::ConnectorSocket> socket,
                                           const std::shared_ptr<SsdpDiscoveryProtocolIF>& protocol)
    : m_log(name)
    , m_task(task)
    , m_socket(std::move(socket))
    , m_ssdpProtocol(protocol)
{
    LogEntry(m_log, "SsdpIPCClientHandler");
}

SsdpIPCClientHandler::~SsdpIPCClientHandler() = default;

void SsdpIPCClientHandler::Initialize()
{
    LogEntry(m_log, "Initialize");
    const std::shared_ptr<SsdpIPCClientHandler> self = shared_from_this();
    const std::shared_ptr<IPCMessageRouterIF> router =
        IPCMessageRouterFactory::CreateRouter("DiscoveryServiceIPCServer_Router", m_task, nullptr);
    {
        const ScopedMutex lock(m_mutex);
        m_router = router;
    }
    if (m_ssdpProtocol)
    {
        m_productStateConnection = m_ssdpProtocol->RegisterProductStateCallback(AsyncCallback<const Sonarix::Product>(
            [self](const Sonarix::Product& product)
            { self->HandleDeviceUpdate(ProductStateToDeviceState(product), ProductToDeviceInfo(product)); },
            m_task));
    }
    router->AttachForRequest(LIST_DEVICES,
                             AsyncCallback<SonarixPb::DiscoveredDeviceList, unsigned int>(
                                 [self](const SonarixPb::DiscoveredDeviceList& request, const unsigned int& tid)
                                 { self->HandleDiscoveredDeviceListRequest(request, tid); },
                                 m_task));
    router->Start(std::move(m_socket), AsyncCallback<>([self] { self->HandleDisconnect(); }, m_task));
}

std::shared_ptr<IPCMessageRouterIF> SsdpIPCClientHandler::Router()
{
    const ScopedMutex lock(m_mutex);
    return m_router;
}

void SsdpIPCClientHandler::HandleDiscoveredDeviceListRequest(const SonarixPb::DiscoveredDeviceList& /*request*/,
                                                             unsigned int tid)
{
    LogEntry(m_log, "HandleDiscoveredDeviceListRequest");
    const std::shared_ptr<IPCMessageRouterIF> router = Router();
    if (!router)
    {
        return;
    }
    if (!m_ssdpProtocol)
    {
        DPRINTF(m_log, DPrint::LEVEL_WARNING, "Ssdp Protocol NULL");
        SendListError(*router, "Ssdp Protocol NULL", tid);
        return;
    }
    Sonarix::ProductList list;
    m_ssdpProtocol->GetProductList(list);
    SendDeviceList(*router, list, tid);
}

void SsdpIPCClientHandler::HandleDeviceUpdate(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device)
{
    DPRINTF(m_log, DPrint::LEVEL_INFO, "HandleDeviceUpdate Called");
    Notify(state, device);
}

void SsdpIPCClientHandler::SendSonarixNotification(SonarixPb::DeviceState state,
                                                   const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    DPRINTF(m_log, DPrint::LEVEL_INFO, "SendSonarixNotification Called");
    Notify(state, *device);
}

void SsdpIPCClientHandler::Notify(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device)
{
    if (const std::shared_ptr<IPCMessageRouterIF> router = Router())
    {
        SendDevice(*router, state, device);
    }
}

CallbackConnection SsdpIPCClientHandler::RegisterForDisconnect(const Callback<void>& callback)
{
    DPRINTF(m_log, DPrint::LEVEL_INFO, "RegisterForDisconnect called!");
    return m_disconnectRegistry.Connect(callback);
}

void SsdpIPCClientHandler::Shutdown()
{
    LogEntry(m_log, "Shutdown");
    IL::BreakThread([self = shared_from_this()] { self->HandleDisconnect(); }, m_task);
}

void SsdpIPCClientHandler::HandleDisconnect()
{
    LogEntry(m_log, "HandleDisconnect");
    std::shared_ptr<IPCMessageRouterIF> router;
    {
        const ScopedMutex lock(m_mutex);
        router.swap(m_router);
    }
    if (router)
    {
        m_productStateConnection.Disconnect();
        router->Stop();
    }
    m_disconnectRegistry.Send(CallbackConnection());
    m_disconnectRegistry.DisconnectAll();
}

} // namespace SonarixService
