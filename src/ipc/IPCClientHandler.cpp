#include "ipc/IPCClientHandler.h"

#include "ipc/ProductConversion.h"
#include "runtime/Task.h"
#include "runtime/ipc/ConnectorSocket.h"
#include "runtime/ipc/IPCMessageEnvelope.h"
#include "schemas/Sonarix.pb.h"
#include <MfgData.h>

#include <utility>

namespace SonarixService
{

namespace
{

SonarixPb::DeviceDiscoveryError MakeError(const std::string& message)
{
    SonarixPb::DeviceDiscoveryError error;
    error.set_code(0);
    error.set_subcode(0);
    error.set_message(message);
    return error;
}

} // namespace

IPCClientHandler::IPCClientHandler(const std::string& name, NotifyTargetTaskIF* task,
                                   std::shared_ptr<Network::ConnectorSocket> socket)
    : m_log(name)
    , m_task(task)
    , m_socket(std::move(socket))
{
}

IPCClientHandler::~IPCClientHandler() = default;

void IPCClientHandler::Initialize()
{
    TASK_CHECK(m_task);
    LogEntry(__func__);
    const std::shared_ptr<IPCMessageRouterIF> router =
        IPCMessageRouterFactory::CreateRouter("DiscoveryServiceIPCServer_Router", m_task, nullptr);
    {
        const ScopedMutex lock(m_mutex);
        m_router = router;
    }
    Subscribe(*router);
    router->Start(std::move(m_socket),
                  AsyncCallback<>([self = shared_from_this()] { self->HandleDisconnect(); }, m_task));
}

void IPCClientHandler::Shutdown()
{
    LogEntry(__func__);
    IL::BreakThread([self = shared_from_this()] { self->HandleDisconnect(); }, m_task);
}

void IPCClientHandler::HandleDisconnect()
{
    TASK_CHECK(m_task);
    LogEntry(__func__);
    std::shared_ptr<IPCMessageRouterIF> router;
    {
        const ScopedMutex lock(m_mutex);
        router.swap(m_router);
    }
    if (router)
    {
        m_productStateConnection.Disconnect();
        Unsubscribe();
        router->Stop();
    }
    m_disconnectRegistry.Send(CallbackConnection());
    m_disconnectRegistry.DisconnectAll();
}

CallbackConnection IPCClientHandler::RegisterForDisconnect(const Callback<void>& callback)
{
    return m_disconnectRegistry.Connect(callback);
}

std::shared_ptr<IPCMessageRouterIF> IPCClientHandler::Router()
{
    const ScopedMutex lock(m_mutex);
    return m_router;
}

bool IPCClientHandler::IsConnected()
{
    return Router() != nullptr;
}

void IPCClientHandler::SendSonarixNotification(SonarixPb::DeviceState state,
                                               const std::shared_ptr<SonarixPb::DeviceInfo>& device)
{
    SendDevice(state, *device);
}

void IPCClientHandler::SendDevice(SonarixPb::DeviceState state, const SonarixPb::DeviceInfo& device)
{
    if (const std::shared_ptr<IPCMessageRouterIF> router = Router())
    {
        SonarixPb::DeviceDiscovery discovery;
        discovery.set_state(state);
        *discovery.mutable_device() = device;
        IPCMessageEnvelope envelope;
        envelope.SetPayload(discovery);
        router->SendNotification(DEVICE_NOTIFICATION, envelope);
    }
}

void IPCClientHandler::Respond(MessageId id, const google::protobuf::Message& message, unsigned int tid)
{
    if (const std::shared_ptr<IPCMessageRouterIF> router = Router())
    {
        IPCMessageEnvelope envelope;
        envelope.SetPayload(message);
        router->SendResponse(id, envelope, tid);
    }
}

void IPCClientHandler::SendDeviceList(const Sonarix::ProductList& list, unsigned int tid)
{
    SonarixPb::DiscoveredDeviceList devices;
    for (const Sonarix::Product& product : list.products())
    {
        *devices.add_device() = ProductToDeviceInfo(product);
    }
    Respond(LIST_DEVICES, devices, tid);
}

void IPCClientHandler::SendListError(const std::string& message, unsigned int tid)
{
    SonarixPb::DeviceDiscoveryError error = MakeError(message);
    error.set_guid(MfgData::Get("guid").value_or("guid.is.not.set.perhaps.x86"));
    Respond(LIST_DEVICES, error, tid);
}

void IPCClientHandler::SendError(MessageId id, const std::string& message, unsigned int tid)
{
    Respond(id, MakeError(message), tid);
}

} // namespace SonarixService
