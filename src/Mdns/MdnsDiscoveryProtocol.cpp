#include "Mdns/MdnsDiscoveryProtocol.h"

#include "Mdns/MdnsService.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/Liveness.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "schemas/Sonarix.pb.h"

#include <cstdint>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsDiscoveryProtocol");

std::string KeyOf(const SonarixPb::Service& service)
{
    return service.id().name() + service.id().type() + service.id().domain();
}

/// The low 16 bits of the message's `address` field hold the port. If a TXT key occurs twice, the last value is kept.
MDNS::Service ServiceFromMessage(const SonarixPb::Service& message)
{
    const SonarixPb::ServiceId& id = message.id();
    MDNS::Service service{
        {id.interface(), static_cast<MDNS::Protocol>(id.protocol()), id.name(), id.type(), id.domain()},
        Network::IpAddress(static_cast<std::uint16_t>(message.address() & 0xFFFF)),
        {}};
    for (const SonarixPb::ServiceRecords& record : message.txt())
    {
        service.txt[record.key()] = record.value();
    }
    return service;
}

} // namespace

std::shared_ptr<MdnsDiscoveryProtocolIF> MdnsDiscoveryProtocol::Create()
{
    const auto factory = s_factoryOverride.Get();
    return factory != nullptr ? factory() : std::make_shared<MdnsDiscoveryProtocol>();
}

MdnsDiscoveryProtocol::MdnsDiscoveryProtocol()
    : m_productRegistry({}, std::make_shared<CThreadMutex>())
    , m_task(IL::CreateTask("MdnsDiscoveryProtocolTask", ""))
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "MdnsDiscoveryProtocol");
    Start();
}

MdnsDiscoveryProtocol::~MdnsDiscoveryProtocol()
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "~MdnsDiscoveryProtocol");
    Stop();
    IL::JoinTask(m_task);
}

std::shared_ptr<MdnsServiceIF> MdnsDiscoveryProtocol::Service()
{
    const ScopedMutex lock(m_mutex);
    return m_mdnsService;
}

void MdnsDiscoveryProtocol::ProductStateCallback(const Sonarix::Product& product)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "Callback for device: " << product.productinfo().friendlyname());
    m_productRegistry.Send(product, CallbackConnection());
}

void MdnsDiscoveryProtocol::RegistrationStatusCallback(MdnsServiceIF& service, const CallbackConnection& connection,
                                                       bool enabled)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "RegistrationStatusCallback : enabled = %s", enabled ? "true" : "false");
    {
        const ScopedMutex lock(m_mutex);
        if (&service == m_mdnsService.get())
        {
            m_registrations.push_back(connection);
            return;
        }
    }
    connection.Disconnect(); // the service was stopped while this call was queued
}

void MdnsDiscoveryProtocol::Start()
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Start");
    if (Service())
    {
        return;
    }
    const std::shared_ptr<MdnsServiceIF> service = MdnsService::Create(m_task, true, false);
    {
        const ScopedMutex lock(m_mutex);
        m_mdnsService = service;
    }

    // Both callbacks run on m_task. The destructor waits for the end of that task, so `this` is valid in them.
    const AsyncCallback<Sonarix::Product> product(
        [this](const Sonarix::Product& update) { ProductStateCallback(update); }, m_task);
    const AsyncCallback<CallbackConnection, bool> registered(
        Liveness::Weakly(service, [this](MdnsServiceIF& of, const CallbackConnection& connection, const bool& enabled)
                         { RegistrationStatusCallback(of, connection, enabled); }),
        m_task);
    service->RegisterForProductUpdates({MdnsServiceIF::FILTER_ALL, ""}, MdnsServiceIF::RENDERER, product, registered);
    service->RegisterForProductUpdates({MdnsServiceIF::FILTER_ALL, ""}, MdnsServiceIF::CLOCK, product, registered);

    m_restartRegistry.Send(CallbackConnection());
}

void MdnsDiscoveryProtocol::Stop()
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "Stop");
    std::shared_ptr<MdnsServiceIF> service;
    std::list<CallbackConnection> registrations;
    {
        const ScopedMutex lock(m_mutex);
        service.swap(m_mdnsService);
        if (service)
        {
            registrations.swap(m_registrations);
        }
    }
    if (service)
    {
        service->StopService(); // the posted action holds the service
        for (const CallbackConnection& connection : registrations)
        {
            connection.Disconnect();
        }
    }
}

CallbackConnection MdnsDiscoveryProtocol::RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback)
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "RegisterProductStateCallback");
    return m_productRegistry.Connect(callback);
}

CallbackConnection MdnsDiscoveryProtocol::RegisterForServiceRestartNotification(const Callback<>& callback)
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "RegisterForServiceRestartNotification");
    return m_restartRegistry.Connect(callback);
}

void MdnsDiscoveryProtocol::GetProductList(const std::string& serviceType,
                                           const Callback<const Sonarix::ProductList>& callback)
{
    const std::shared_ptr<MdnsServiceIF> service = Service();
    if (!service)
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG, "MDNS Service not runnning!");
        callback(Sonarix::ProductList());
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, serviceType);
    service->GetProductList(serviceType, callback);
}

bool MdnsDiscoveryProtocol::AddService(const SonarixPb::Service& service)
{
    std::shared_ptr<MdnsServiceIF> mdns;
    {
        const ScopedMutex lock(m_mutex);
        if (!m_networkIsUp)
        {
            m_pendingAdds[KeyOf(service)] = service;
            return false;
        }
        mdns = m_mdnsService;
    }
    if (!mdns)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "Failed to AddService , MdnsService not started yet ");
        return false;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, service.id().name() << " " << service.id().type());
    mdns->AddService(ServiceFromMessage(service));
    return true;
}

void MdnsDiscoveryProtocol::UpdateServiceTxtRecords(const SonarixPb::Service& service, const Callback<bool>& result)
{
    std::shared_ptr<MdnsServiceIF> mdns;
    {
        const ScopedMutex lock(m_mutex);
        if (m_networkIsUp)
        {
            mdns = m_mdnsService;
        }
        else
        {
            m_pendingAdds[KeyOf(service)] = service;
        }
    }
    if (!mdns)
    {
        result(false);
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, service.id().name() << " " << service.id().type());
    mdns->UpdateServiceTxtRecords(ServiceFromMessage(service), result);
}

void MdnsDiscoveryProtocol::RemoveService(const SonarixPb::Service& service)
{
    std::shared_ptr<MdnsServiceIF> mdns;
    {
        const ScopedMutex lock(m_mutex);
        if (!m_networkIsUp)
        {
            const std::string key = KeyOf(service);
            if (m_pendingAdds.erase(key) == 0) // a stored add and its removal cancel out
            {
                m_pendingRemoves[key] = service;
            }
            return;
        }
        mdns = m_mdnsService;
    }
    if (mdns)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, service.id().name() << " " << service.id().type());
        mdns->RemoveService(ServiceFromMessage(service));
    }
}

void MdnsDiscoveryProtocol::Broadcast(const char* function, const SonarixPb::DeviceInfo& info,
                                      std::optional<SonarixPb::DeviceInfo>& deferred, BroadcastOperation broadcast)
{
    std::shared_ptr<MdnsServiceIF> mdns;
    bool isUp = false;
    {
        const ScopedMutex lock(m_mutex);
        isUp = m_networkIsUp;
        if (isUp)
        {
            mdns = m_mdnsService;
        }
        else
        {
            deferred = info;
        }
    }
    DPRINT_AS(s_log, DPrint::LEVEL_INFO, function, "m_networkIsUp: " << (isUp ? "true" : "false"));
    if (mdns)
    {
        DPRINT_AS(s_log, DPrint::LEVEL_INFO, function, info.friendlyname());
        (mdns.get()->*broadcast)(info);
    }
}

void MdnsDiscoveryProtocol::BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info)
{
    Broadcast(__func__, info, m_deferredDevice, &MdnsServiceIF::BroadcastInitialDeviceAnnouncement);
}

void MdnsDiscoveryProtocol::BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info)
{
    Broadcast(__func__, info, m_deferredAccessory, &MdnsServiceIF::BroadcastInitialAccessoryAnnouncement);
}

void MdnsDiscoveryProtocol::NetworkWentUp()
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "NetworkWentUp");
    // Locked until the end, so that a new request of another task is posted after the stored ones.
    const ScopedMutex lock(m_mutex);
    m_networkIsUp = true;
    if (!m_mdnsService)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR,
               "MdnsService is not running: the deferred requests wait for the next NetworkWentUp");
        return;
    }

    // Announcements come first, because other services are published only after them. Removals come before adds, so a
    // replaced service is present at the end.
    if (m_deferredDevice)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, "Broadcasting deferred initial device announcement");
        m_mdnsService->BroadcastInitialDeviceAnnouncement(*m_deferredDevice);
        m_deferredDevice.reset();
    }
    if (m_deferredAccessory)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, "Broadcasting deferred initial accessory announcement");
        m_mdnsService->BroadcastInitialAccessoryAnnouncement(*m_deferredAccessory);
        m_deferredAccessory.reset();
    }
    for (const auto& [key, service] : m_pendingRemoves)
    {
        m_mdnsService->RemoveService(ServiceFromMessage(service));
    }
    m_pendingRemoves.clear();
    for (const auto& [key, service] : m_pendingAdds)
    {
        m_mdnsService->AddService(ServiceFromMessage(service));
    }
    m_pendingAdds.clear();
}

void MdnsDiscoveryProtocol::NetworkWentDown()
{
    const ScopedMutex lock(m_mutex);
    m_networkIsUp = false;
}

} // namespace SonarixService
