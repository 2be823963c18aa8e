#include "Mdns/MdnsDiscoveryProtocol.h"

#include "Mdns/MdnsServiceFactory.h"
#include "Mdns/MdnsServiceIF.h"
#include "Mdns/ServiceConversion.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "schemas/Sonarix.pb.h"

#include <atomic>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsDiscoveryProtocol");
std::atomic<MdnsDiscoveryProtocol::Factory> s_factory{nullptr};

std::string KeyOf(const SonarixPb::Service& service)
{
    return service.id().name() + service.id().type() + service.id().domain();
}

const char* Text(bool flag)
{
    return flag ? "true" : "false";
}

} // namespace

std::shared_ptr<MdnsDiscoveryProtocolIF> MdnsDiscoveryProtocol::Create()
{
    const Factory factory = s_factory.load();
    return factory != nullptr ? factory() : std::make_shared<MdnsDiscoveryProtocol>();
}

void MdnsDiscoveryProtocol::SetFactoryOverride(Factory factory)
{
    s_factory = factory;
}

MdnsDiscoveryProtocol::MdnsDiscoveryProtocol()
    : m_productRegistry({}, std::make_shared<CThreadMutex>())
    , m_task(IL::CreateTask("MdnsDiscoveryProtocolTask", ""))
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "MdnsDiscoveryProtocol");
    Start();
}

MdnsDiscoveryProtocol::~MdnsDiscoveryProtocol()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "~MdnsDiscoveryProtocol");
    Stop();
    IL::JoinTask(m_task);
}

std::shared_ptr<MdnsServiceIF> MdnsDiscoveryProtocol::MdnsService()
{
    const ScopedMutex lock(m_mutex);
    return m_mdnsService;
}

void MdnsDiscoveryProtocol::AddRegistration(const CallbackConnection& connection,
                                            const std::shared_ptr<MdnsServiceIF>& service)
{
    {
        const ScopedMutex lock(m_mutex);
        if (service && service == m_mdnsService)
        {
            m_registrations.push_back(connection);
            return;
        }
    }
    connection.Disconnect(); // stopped meanwhile
}

void MdnsDiscoveryProtocol::Start()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Start");
    if (MdnsService())
    {
        return;
    }
    const std::shared_ptr<MdnsServiceIF> service = MdnsServiceFactory::Create(m_task, true, false);
    {
        const ScopedMutex lock(m_mutex);
        m_mdnsService = service;
    }

    // Both run on m_task alone, whose end the destructor waits for: no call can find `this` gone.
    const AsyncCallback<Sonarix::Product> product(
        [this](const Sonarix::Product& update)
        {
            DPRINT(s_log, DPrint::LEVEL_INFO, "Callback for device: " << update.productinfo().friendlyname());
            m_productRegistry.Send(update, CallbackConnection());
        },
        m_task);
    const AsyncCallback<CallbackConnection, bool> registered(
        [this, of = std::weak_ptr<MdnsServiceIF>(service)](const CallbackConnection& connection, const bool& enabled)
        {
            DPRINT(s_log, DPrint::LEVEL_DEBUG, "RegistrationStatusCallback : enabled = " << Text(enabled));
            AddRegistration(connection, of.lock());
        },
        m_task);
    service->RegisterForProductUpdates({MdnsServiceIF::FILTER_ALL, ""}, MdnsServiceIF::RENDERER, product, registered);
    service->RegisterForProductUpdates({MdnsServiceIF::FILTER_ALL, ""}, MdnsServiceIF::CLOCK, product, registered);

    m_restartRegistry.Send(CallbackConnection());
}

void MdnsDiscoveryProtocol::Stop()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Stop");
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
        service->StopService(); // what it posts holds the service until it has run
        for (const CallbackConnection& connection : registrations)
        {
            connection.Disconnect();
        }
    }
}

CallbackConnection MdnsDiscoveryProtocol::RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "RegisterProductStateCallback");
    return m_productRegistry.Connect(callback);
}

CallbackConnection MdnsDiscoveryProtocol::RegisterForServiceRestartNotification(const Callback<>& callback)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "RegisterForServiceRestartNotification");
    return m_restartRegistry.Connect(callback);
}

void MdnsDiscoveryProtocol::GetProductList(const std::string& serviceType,
                                           const Callback<const Sonarix::ProductList>& callback)
{
    const std::shared_ptr<MdnsServiceIF> service = MdnsService();
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
    mdns->AddService(ToMdnsService(service));
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
    mdns->UpdateServiceTxtRecords(ToMdnsService(service), result);
}

void MdnsDiscoveryProtocol::RemoveService(const SonarixPb::Service& service)
{
    std::shared_ptr<MdnsServiceIF> mdns;
    {
        const ScopedMutex lock(m_mutex);
        if (!m_networkIsUp)
        {
            const std::string key = KeyOf(service);
            if (m_pendingAdds.erase(key) == 0) // an add that never went out and its removal cancel out
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
        mdns->RemoveService(ToMdnsService(service));
    }
}

std::pair<bool, std::shared_ptr<MdnsServiceIF>>
MdnsDiscoveryProtocol::PassOrDefer(const SonarixPb::DeviceInfo& info, std::optional<SonarixPb::DeviceInfo>& deferred)
{
    const ScopedMutex lock(m_mutex);
    if (!m_networkIsUp)
    {
        deferred = info;
    }
    return {m_networkIsUp, m_mdnsService};
}

void MdnsDiscoveryProtocol::BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info)
{
    const auto [isUp, mdns] = PassOrDefer(info, m_deferredDevice);
    DPRINT(s_log, DPrint::LEVEL_INFO, "m_networkIsUp: " << Text(isUp));
    if (isUp && mdns)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, info.friendlyname());
        mdns->BroadcastInitialDeviceAnnouncement(info);
    }
}

void MdnsDiscoveryProtocol::BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info)
{
    const auto [isUp, mdns] = PassOrDefer(info, m_deferredAccessory);
    DPRINT(s_log, DPrint::LEVEL_INFO, "m_networkIsUp: " << Text(isUp));
    if (isUp && mdns)
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, info.friendlyname());
        mdns->BroadcastInitialAccessoryAnnouncement(info);
    }
}

void MdnsDiscoveryProtocol::NetworkWentUp()
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "NetworkWentUp");
    // Held to the end, so that no newer request of another task overtakes what was parked: the operations of the
    // service only copy and post.
    const ScopedMutex lock(m_mutex);
    m_networkIsUp = true;
    if (!m_mdnsService)
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR, "MdnsService not started yet, what was deferred stays so");
        return;
    }

    // The announcement first, since the other records wait for it; removals before adds, so that a service that was
    // replaced ends up present.
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
        m_mdnsService->RemoveService(ToMdnsService(service));
    }
    m_pendingRemoves.clear();
    for (const auto& [key, service] : m_pendingAdds)
    {
        m_mdnsService->AddService(ToMdnsService(service));
    }
    m_pendingAdds.clear();
}

void MdnsDiscoveryProtocol::NetworkWentDown()
{
    const ScopedMutex lock(m_mutex);
    m_networkIsUp = false;
}

} // namespace SonarixService
