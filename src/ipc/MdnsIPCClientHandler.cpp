#include "ipc/MdnsIPCClientHandler.h"

#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "ipc/IPCMessages.h"
#include "ipc/ProductConversion.h"
#include "runtime/AsyncCallback.h"
#include "runtime/Task.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "runtime/ipc/IPCMessageRouterFactory.h"
#include "runtime/ipc/IPCMessageRouterIF.h"
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
    : m_log(name)
    , m_task(task)
    , m_socket(std::move(socket))
    , m_mdnsProtocol(protocol)
{
}

MdnsIPCClientHandler::~MdnsIPCClientHandler() = default;

void MdnsIPCClientHandler::Initialize()
{
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    const std::shared_ptr<MdnsIPCClientHandler> self = shared_from_this();
    const std::shared_ptr<IPCMessageRouterIF> router =
        IPCMessageRouterFactory::CreateRouter("DiscoveryServiceIPCServer_Router", m_task, nullptr);
    {
        const ScopedMutex lock(m_mutex);
        m_router = router;
    }
    if (m_mdnsProtocol)
    {
        // Not posted, and so without a hop to our task. Weak: it may run while we go.
        m_productStateConnection = m_mdnsProtocol->RegisterProductStateCallback(
            [weak = weak_from_this()](const Sonarix::Product& product)
            {
                if (const std::shared_ptr<MdnsIPCClientHandler> handler = weak.lock())
                {
                    handler->HandleDeviceUpdate(product);
                }
            });
        m_restartConnection = m_mdnsProtocol->RegisterForServiceRestartNotification(
            AsyncCallback<>([self] { self->AddBackAllServices(); }, m_task));
    }
    AttachRequests(*router);
    router->Start(std::move(m_socket), AsyncCallback<>([self] { self->HandleDisconnect(); }, m_task));
}

void MdnsIPCClientHandler::AttachRequests(IPCMessageRouterIF& router)
{
    using SonarixPb::DeviceInfo;
    using SonarixPb::Service;
    using SonarixPb::ServiceId;
    const std::shared_ptr<MdnsIPCClientHandler> self = shared_from_this();
    router.AttachForRequest(
        LIST_DEVICES, AsyncCallback<ServiceId, unsigned int>([self](const ServiceId& request, const unsigned int& tid)
                                                             { self->HandleDiscoveredDeviceListRequest(request, tid); },
                                                             m_task));
    router.AttachForRequest(ADD_SERVICE,
                            AsyncCallback<Service, unsigned int>([self](const Service& service, const unsigned int& tid)
                                                                 { self->HandleAddServiceRequest(service, tid); },
                                                                 m_task));
    router.AttachForRequest(UPDATE_TXT_RECORDS, AsyncCallback<Service, unsigned int>(
                                                    [self](const Service& service, const unsigned int& tid)
                                                    { self->HandleUpdateServiceTxtRecordsRequest(service, tid); },
                                                    m_task));
    router.AttachForRequest(
        REMOVE_SERVICE, AsyncCallback<Service, unsigned int>([self](const Service& service, const unsigned int& /*tid*/)
                                                             { self->HandleRemoveServiceRequest(service); },
                                                             m_task));
    router.AttachForRequest(BROADCAST_ANNOUNCEMENT, AsyncCallback<DeviceInfo, unsigned int>(
                                                        [self](const DeviceInfo& info, const unsigned int& /*tid*/)
                                                        { self->HandleBroadcastInitialDeviceAnnouncement(info); },
                                                        m_task));
}

std::shared_ptr<IPCMessageRouterIF> MdnsIPCClientHandler::Router()
{
    const ScopedMutex lock(m_mutex);
    return m_router;
}

// ---- lists --------------------------------------------------------------------------------------------------

void MdnsIPCClientHandler::HandleDiscoveredDeviceListRequest(const SonarixPb::ServiceId& request, unsigned int tid)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    const std::shared_ptr<IPCMessageRouterIF> router = Router();
    if (!router)
    {
        return;
    }
    if (!m_mdnsProtocol)
    {
        DPRINT(m_log, DPrint::LEVEL_WARNING, "GetDeviceListCalled Before it was set!!");
        SendListError(*router, "Get DeviceList not SET!", tid);
        return;
    }
    DPRINT(m_log, DPrint::LEVEL_INFO, "Got request for serviceType: " << request.type());
    if (m_listsUnderWay < kMaxListsUnderWay)
    {
        AskForList(request.type(), tid);
    }
    else if (m_listsWaiting.size() < kMaxListsWaiting)
    {
        m_listsWaiting.emplace_back(request.type(), tid);
    }
    else
    {
        DPRINT(m_log, DPrint::LEVEL_WARNING, "the connection ends: " << kMaxListsWaiting << " lists wait already");
        HandleDisconnect();
    }
}

void MdnsIPCClientHandler::AskForList(const std::string& serviceType, unsigned int tid)
{
    ++m_listsUnderWay;
    m_mdnsProtocol->GetProductList(serviceType,
                                   AsyncCallback<Sonarix::ProductList>(
                                       [self = shared_from_this(), serviceType, tid](const Sonarix::ProductList& list)
                                       { self->DiscoveredDeviceListResponse(serviceType, tid, list); },
                                       m_task));
}

void MdnsIPCClientHandler::DiscoveredDeviceListResponse(const std::string& serviceType, unsigned int tid,
                                                        const Sonarix::ProductList& list)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "Got response for serviceType: " << serviceType);
    --m_listsUnderWay;
    const std::shared_ptr<IPCMessageRouterIF> router = Router();
    if (!router)
    {
        return;
    }
    SendDeviceList(*router, list, tid);
    if (!m_listsWaiting.empty())
    {
        const auto [nextType, nextTid] = std::move(m_listsWaiting.front());
        m_listsWaiting.pop_front();
        AskForList(nextType, nextTid);
    }
}

// ---- records ------------------------------------------------------------------------------------------------

void MdnsIPCClientHandler::HandleAddServiceRequest(const SonarixPb::Service& service, unsigned int tid)
{
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
    Remember(service);

    const bool isAdded = m_mdnsProtocol && m_mdnsProtocol->AddService(service);
    const std::shared_ptr<IPCMessageRouterIF> router = Router();
    if (!router)
    {
        return;
    }
    if (!isAdded) // the record stays: the next start tries again
    {
        SendError(*router, ADD_SERVICE, "AddService request Failed!", tid);
        return;
    }
    IPCMessageEnvelope envelope;
    envelope.SetPayload(SonarixPb::DiscoveryServiceVoid());
    router->SendResponse(ADD_SERVICE, envelope, tid);
}

void MdnsIPCClientHandler::HandleRemoveServiceRequest(const SonarixPb::Service& service)
{
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
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    Remember(service);
    if (m_mdnsProtocol)
    {
        m_mdnsProtocol->UpdateServiceTxtRecords(
            service, AsyncCallback<bool>([self = shared_from_this(), tid](const bool& isSuccess)
                                         { self->UpdateServiceTxtRecordsResponse(isSuccess, tid); },
                                         m_task));
    }
}

void MdnsIPCClientHandler::UpdateServiceTxtRecordsResponse(bool isSuccess, unsigned int tid)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "isSuccess: " << (isSuccess ? "TRUE" : "FALSE") << " tid: " << tid);
    const std::shared_ptr<IPCMessageRouterIF> router = Router();
    if (!router || isSuccess)
    {
        return; // clients know success by silence
    }
    DPRINT(m_log, DPrint::LEVEL_ERROR, "Update Service Failed!");
    SendError(*router, UPDATE_TXT_RECORDS, "Update Service Failed!", tid);
}

void MdnsIPCClientHandler::HandleBroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info)
{
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

/// A record of the same type is replaced, whatever its name.
void MdnsIPCClientHandler::Remember(const SonarixPb::Service& service)
{
    const std::string& type = service.id().type();
    const auto found = std::find_if(m_advertisedServices.begin(), m_advertisedServices.end(),
                                    [&type](const ServiceRecord& record) { return record.serviceType == type; });
    if (found != m_advertisedServices.end())
    {
        found->service = service;
        return;
    }
    m_advertisedServices.push_back({type, service});
}

// ---- devices ------------------------------------------------------------------------------------------------

/// False: it was already.
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
    if (const std::shared_ptr<IPCMessageRouterIF> router = Router())
    {
        SendDevice(*router, ProductStateToDeviceState(product), ProductToDeviceInfo(product));
    }
}

void MdnsIPCClientHandler::SendSonarixNotification(SonarixPb::DeviceState state,
                                                   const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "SendSonarixNotification Called");
    if (const std::shared_ptr<IPCMessageRouterIF> router = Router())
    {
        SendDevice(*router, state, *device);
    }
}

// ---- the end ------------------------------------------------------------------------------------------------

CallbackConnection MdnsIPCClientHandler::RegisterForDisconnect(const Callback<void>& callback)
{
    DPRINT(m_log, DPrint::LEVEL_INFO, "");
    return m_disconnectRegistry.Connect(callback);
}

void MdnsIPCClientHandler::Shutdown()
{
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    IL::BreakThread([self = shared_from_this()] { self->HandleDisconnect(); }, m_task);
}

void MdnsIPCClientHandler::HandleDisconnect()
{
    DPRINT(m_log, DPrint::LEVEL_DEBUG, "");
    std::shared_ptr<IPCMessageRouterIF> router;
    {
        const ScopedMutex lock(m_mutex);
        router.swap(m_router);
    }
    if (router)
    {
        m_productStateConnection.Disconnect();
        m_restartConnection.Disconnect();
        m_listsWaiting.clear();
        router->Stop();
    }
    m_disconnectRegistry.Send(CallbackConnection());
    m_disconnectRegistry.DisconnectAll();
}

} // namespace SonarixService
