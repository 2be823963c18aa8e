#include "ipc/SsdpIPCClientHandler.h"

#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "ipc/ProductConversion.h"
#include "schemas/Sonarix.pb.h"

#include <utility>

namespace SonarixService
{

SsdpIPCClientHandler::SsdpIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                                           std::shared_ptr<Network::ConnectorSocket> socket,
                                           const std::shared_ptr<SsdpDiscoveryProtocolIF>& protocol)
    : IPCClientHandler(name, task, std::move(socket))
    , m_ssdpProtocol(protocol)
{
    SsdpIPCClientHandler::LogEntry(__func__);
}

SsdpIPCClientHandler::~SsdpIPCClientHandler() = default;

void SsdpIPCClientHandler::LogEntry(const char* operation) const
{
    DPRINTF(m_log, DPrint::LEVEL_DEBUG, "SsdpIPCClientHandler::%s\n", operation);
}

void SsdpIPCClientHandler::Subscribe(IPCMessageRouterIF& router)
{
    if (m_ssdpProtocol)
    {
        m_productStateConnection = m_ssdpProtocol->RegisterProductStateCallback(AsyncCallback<const Sonarix::Product>(
            [self = Self<SsdpIPCClientHandler>()](const Sonarix::Product& product)
            { self->HandleDeviceUpdate(ProductStateToDeviceState(product), ProductToDeviceInfo(product)); },
            m_task));
    }
    Attach(router, LIST_DEVICES, &SsdpIPCClientHandler::HandleDiscoveredDeviceListRequest);
}

void SsdpIPCClientHandler::HandleDiscoveredDeviceListRequest(const SonarixPb::DiscoveredDeviceList& /*request*/,
                                                             unsigned int tid)
{
    TASK_CHECK(m_task);
    LogEntry(__func__);
    if (!IsConnected())
    {
        return;
    }
    if (!m_ssdpProtocol)
    {
        DPRINTF(m_log, DPrint::LEVEL_WARNING, "Ssdp Protocol NULL");
        SendListError("Ssdp Protocol NULL", tid);
        return;
    }
    Sonarix::ProductList list;
    m_ssdpProtocol->GetProductList(list);
    SendDeviceList(list, tid);
}

void SsdpIPCClientHandler::HandleDeviceUpdate(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device)
{
    TASK_CHECK(m_task);
    DPRINTF(m_log, DPrint::LEVEL_INFO, "HandleDeviceUpdate Called");
    SendDevice(state, device);
}

void SsdpIPCClientHandler::SendSonarixNotification(SonarixPb::DeviceState state,
                                                   const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    DPRINTF(m_log, DPrint::LEVEL_INFO, "SendSonarixNotification Called");
    IPCClientHandler::SendSonarixNotification(state, device);
}

CallbackConnection SsdpIPCClientHandler::RegisterForDisconnect(const Callback<void>& callback)
{
    DPRINTF(m_log, DPrint::LEVEL_INFO, "RegisterForDisconnect called!");
    return IPCClientHandler::RegisterForDisconnect(callback);
}

} // namespace SonarixService
