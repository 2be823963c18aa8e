#include "ipc/MdnsIPCClientHandler.h"

#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "ipc/ProductConversion.h"
#include "runtime/Liveness.h"
#include "schemas/Sonarix.pb.h"

#include <algorithm>
#include <utility>

namespace SonarixService
{

namespace
{

const char* const kLanyardType = "_kova-lanyard._tcp";

} // namespace

MdnsIPCClientHandler::MdnsIPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                                           std::shared_ptr<Network::ConnectorSocket> socket,
                                           const std::shared_ptr<MdnsDiscoveryProtocolIF>& protocol)
    : IPCClientHandler(name, task, std::move(socket))
    , m_mdnsProtocol(protocol)
{
}

MdnsIPCClientHandler::~MdnsIPCClientHandler() = default;

void MdnsIPCClientHandler::LogEntry(const char* operation) const
{
    DPRINTF(m_log, DPrint::LEVEL_DEBUG, "%s", operation);
}

void MdnsIPCClientHandler::Subscribe(IPCMessageRouterIF& router)
{
    const auto self = Self<MdnsIPCClientHandler>();
    if (m_mdnsProtocol)
    {
        // Runs on the mDNS task, which saves a task switch per report. It may run while another thread destroys the
        // handler.
        m_productStateConnection = m_mdnsProtocol->RegisterProductStateCallback(
            Liveness::Weakly(self, [](MdnsIPCClientHandler& handler, const Sonarix::Product& product)
                             { handler.HandleDeviceUpdate(product); }));
        m_restartConnection = m_mdnsProtocol->RegisterForServiceRestartNotification(
            AsyncCallback<>([self] { self->AddBackAllServices(); }, m_task));
    }
    Attach(router, LIST_DEVICES, &MdnsIPCClientHandler::HandleDiscoveredDeviceListRequest);
    Attach(router, ADD_SERVICE, &MdnsIPCClientHandler::HandleAddServiceRequest);
    Attach(router, UPDATE_TXT_RECORDS, &MdnsIPCClientHandler::HandleUpdateServiceTxtRecordsRequest);
    Attach(router, REMOVE_SERVICE, &MdnsIPCClientHandler::HandleRemoveServiceRequest);
    Attach(router, BROADCAST_ANNOUNCEMENT, &MdnsIPCClientHandler::HandleBroadcastInitialDeviceAnnouncement);
}

void MdnsIPCClientHandler::Unsubscribe()
{
    m_restartConnection.Disconnect();
    m_queuedLists.clear();
}

void MdnsIPCClientHandler::HandleDiscoveredDeviceListRequest(const SonarixPb::ServiceId& request, unsigned int tid)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    if (!IsConnected())
    {
        return;
    }
    if (!m_mdnsProtocol)
    {
        DPRINT(m_log, DPrint::LEVEL_WARNING, "GetDeviceListCalled Before it was set!!");
        SendListError("Get DeviceList not SET!", tid);
        return;
    }
    DPRINT(m_log, DPrint::LEVEL_INFO, "Got request for serviceType: " << request.type());
    if (m_runningLists < kMaxRunningLists)
    {
        RequestList(request.type(), tid);
    }
    else if (m_queuedLists.size() < kMaxQueuedLists)
    {
        m_queuedLists.emplace_back(request.type(), tid);
    }
    else
    {
        DPRINT(m_log, DPrint::LEVEL_WARNING, "the connection ends: " << kMaxQueuedLists << " list requests are queued");
        HandleDisconnect();
    }
}

void MdnsIPCClientHandler::RequestList(const std::string& serviceType, unsigned int tid)
{
    ++m_runningLists;
    m_mdnsProtocol->GetProductList(
        serviceType, AsyncCallback<Sonarix::ProductList>(
                         [self = Self<MdnsIPCClientHandler>(), serviceType, tid](const Sonarix::ProductList& list)
                         { self->DiscoveredDeviceListResponse(serviceType, tid, list); },
                         m_task));
}

void MdnsIPCClientHandler::DiscoveredDeviceListResponse(const std::string& serviceType, unsigned int tid,
                                                        const Sonarix::ProductList& list)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_INFO, "Got response for serviceType: " << serviceType);
    --m_runningLists;
    if (!IsConnected())
    {
        return;
    }
    SendDeviceList(list, tid);
    if (!m_queuedLists.empty())
    {
        const auto [nextType, nextTid] = std::move(m_queuedLists.front());
        m_queuedLists.pop_front();
        RequestList(nextType, nextTid);
    }
}

void MdnsIPCClientHandler::HandleAddServiceRequest(const SonarixPb::Service& service, unsigned int tid)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    const std::string& type = service.id().type();
    if (SubscribeTo(type))
    {
        DPRINT(m_log, DPrint::LEVEL_INFO, "Adding Service " << type << " to DeviceUpdate List.");
    }
    else
    {
        DPRINT(m_log, DPrint::LEVEL_INFO, "Service: " << type << " already in list.");
    }
    StoreRecord(service);
    if (m_mdnsProtocol && m_mdnsProtocol->AddService(service))
    {
        Respond(ADD_SERVICE, SonarixPb::DiscoveryServiceVoid(), tid);
    }
    else // the record stays stored, so that a restart of mDNS tries again
    {
        SendError(ADD_SERVICE, "AddService request Failed!", tid);
    }
}

void MdnsIPCClientHandler::HandleRemoveServiceRequest(const SonarixPb::Service& service, unsigned int /*tid*/)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    m_advertisedServices.remove_if([&service](const ServiceRecord& record)
                                   { return record.serviceType == service.id().type(); });
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->RemoveService(service);
    }
}

void MdnsIPCClientHandler::HandleUpdateServiceTxtRecordsRequest(const SonarixPb::Service& service, unsigned int tid)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    StoreRecord(service);
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->UpdateServiceTxtRecords(
            service, AsyncCallback<bool>([self = Self<MdnsIPCClientHandler>(), tid](const bool& isSuccess)
                                         { self->UpdateServiceTxtRecordsResponse(isSuccess, tid); },
                                         m_task));
    }
}

void MdnsIPCClientHandler::UpdateServiceTxtRecordsResponse(bool isSuccess, unsigned int tid)
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_INFO, "isSuccess: " << (isSuccess ? "TRUE" : "FALSE") << " tid: " << tid);
    if (isSuccess || !IsConnected())
    {
        return; // a success has no response
    }
    DPRINT(m_log, DPrint::LEVEL_ERROR, "Update Service Failed!");
    SendError(UPDATE_TXT_RECORDS, "Update Service Failed!", tid);
}

void MdnsIPCClientHandler::HandleBroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info,
                                                                    unsigned int /*tid*/)
{
    TASK_CHECK(m_task);
    if (SubscribeTo(kLanyardType))
    {
        DPRINT(m_log, DPrint::LEVEL_INFO, "Adding Service " << kLanyardType << " to DeviceUpdate List.");
    }
    m_initialAnnouncement = info;
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->BroadcastInitialDeviceAnnouncement(info);
    }
}

void MdnsIPCClientHandler::AddBackAllServices()
{
    TASK_CHECK(m_task);
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    if (!m_mdnsProtocol)
    {
        return;
    }
    if (m_initialAnnouncement)
    {
        DPRINT(m_log, DPrint::LEVEL_DEBUG, "Recreate Initial Broadcast Device Announcement.");
        m_mdnsProtocol->BroadcastInitialDeviceAnnouncement(*m_initialAnnouncement);
    }
    for (const ServiceRecord& record : m_advertisedServices)
    {
        if (record.service)
        {
            DPRINT(m_log, DPrint::LEVEL_DEBUG, "Recreate Service Advertisement: " << record.serviceType);
            m_mdnsProtocol->AddService(*record.service);
        }
    }
}

void MdnsIPCClientHandler::RemoveAllServices()
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    for (const ServiceRecord& record : m_advertisedServices)
    {
        if (record.service && m_mdnsProtocol)
        {
            DPRINT(m_log, DPrint::LEVEL_DEBUG, "Remove Service Advertisement: " << record.serviceType);
            m_mdnsProtocol->RemoveService(*record.service);
        }
    }
}

/// Replaces the record of the same service type, even if its name differs.
void MdnsIPCClientHandler::StoreRecord(const SonarixPb::Service& service)
{
    const std::string& type = service.id().type();
    const auto found = std::find_if(m_advertisedServices.begin(), m_advertisedServices.end(),
                                    [&type](const ServiceRecord& record) { return record.serviceType == type; });
    if (found != m_advertisedServices.end())
    {
        found->service = service;
    }
    else
    {
        m_advertisedServices.push_back({type, service});
    }
}

/// Returns false if the client is subscribed already.
bool MdnsIPCClientHandler::SubscribeTo(const std::string& serviceType)
{
    const ScopedMutex lock(m_mutex);
    if (IsSubscribedTo(serviceType))
    {
        return false;
    }
    m_deviceUpdateServices.push_back(serviceType);
    return true;
}

bool MdnsIPCClientHandler::IsSubscribedTo(const std::string& serviceType)
{
    const ScopedMutex lock(m_mutex);
    return std::find(m_deviceUpdateServices.begin(), m_deviceUpdateServices.end(), serviceType) !=
           m_deviceUpdateServices.end();
}

void MdnsIPCClientHandler::HandleDeviceUpdate(const Sonarix::Product& product)
{
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    const std::string& type = product.serviceid().type();
    if (!IsSubscribedTo(type))
    {
        DPRINT(m_log, DPrint::LEVEL_DEBUG,
               "Update for service: " << type << ", Service not added so skipping forward to client.");
        return;
    }
    SendDevice(ProductStateToDeviceState(product), ProductToDeviceInfo(product));
}

void MdnsIPCClientHandler::SendSonarixNotification(SonarixPb::DeviceState state,
                                                   const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "SendSonarixNotification Called");
    IPCClientHandler::SendSonarixNotification(state, device);
}

CallbackConnection MdnsIPCClientHandler::RegisterForDisconnect(const Callback<void>& callback)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    return IPCClientHandler::RegisterForDisconnect(callback);
}

} // namespace SonarixService
