// MdnsService: publishing.
#include "Mdns/MdnsService.h"
#include "Mdns/ServiceTypes.h"
#include "Mdns/TxtKeys.h"
#include "Mdns/avahi/BackendFactory.h"
#include "Mdns/avahi/MdnsBackendIF.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/TaskCheck.h"
#include "schemas/SonarixPb.pb.h"

#include <cstdint>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsService");

/// The port of the product's local API gateway, which other products connect to.
constexpr std::uint16_t kAnnouncedPort = 8090;

} // namespace

void MdnsService::BroadcastInitialDeviceAnnouncementAction(const SonarixPb::DeviceInfo& info)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << info.friendlyname() << ")");
    SetRendererService(info.friendlyname(),
                       ServiceTypeFromDeviceType(info.devicetype() == "RENDERER" ? RENDERER : SERVER),
                       TxtFromDeviceInfo(info));
}

void MdnsService::BroadcastInitialAccessoryAnnouncementAction(const SonarixPb::DeviceInfo& info)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << info.friendlyname() << ")");
    SetRendererService("Accessory", ServiceTypeFromDeviceType(ACCESSORY), {{"GUID", info.guid()}});
}

void MdnsService::SetRendererService(const std::string& name, const std::string& type,
                                     std::map<std::string, std::string> txt)
{
    m_rendererService = {
        {-1, MDNS::Protocol::INET, name, type, "local"}, Network::IpAddress(kAnnouncedPort), std::move(txt)};
    m_rendererValid = true;
    if (m_publisherConnected) // otherwise PublisherConnected() publishes it
    {
        PublishRenderer();
    }
}

void MdnsService::PublishRenderer()
{
    m_rendererConnection.Disconnect();
    const AsyncCallback<MDNS::Service> published(
        [self = shared_from_this()](const MDNS::Service& s) { self->RendererPublished(s); }, m_task);
    m_rendererConnection = m_publisher->PublishService(m_rendererService, published);
}

void MdnsService::RendererPublished(const MDNS::Service& s)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "RendererPublished");
    m_rendererService = s; // a collision may have changed its name
}

void MdnsService::AddServiceAction(const MDNS::Service& s)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << s.name << " - " << s.type << ")");
    RemoveServiceAction(s);
    if (!m_publisherConnected)
    {
        m_publishedServices[s.type] = {s, CallbackConnection()};
    }
    else
    {
        m_publishedServices[s.type] = {s, Publish(s, s)};
    }
    if (s.type == ServiceTypeFromDeviceType(CLOCK))
    {
        m_ownClockName = s.name;
    }
}

CallbackConnection MdnsService::Publish(const MDNS::ServiceId& id, const MDNS::Service& s)
{
    const AsyncCallback<MDNS::Service> published(
        [self = shared_from_this(), id](const MDNS::Service& service) { self->ServicePublished(id, service); }, m_task);
    return m_publisher->PublishService(s, published);
}

void MdnsService::RemoveServiceAction(const MDNS::Service& s)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << s.name << " - " << s.type << ")");
    const auto record = m_publishedServices.find(s.type);
    if (record == m_publishedServices.end())
    {
        return;
    }
    DPRINTF(s_log, DPrint::LEVEL_INFO, "Removing service %s - %s", record->second.service.name.c_str(),
            record->second.service.type.c_str());
    record->second.connection.Disconnect();
    m_publishedServices.erase(record);
    if (s.type == ServiceTypeFromDeviceType(CLOCK))
    {
        m_ownClockName.clear();
    }
}

void MdnsService::UpdateServiceTxtRecordsAction(const MDNS::Service& s, const Callback<bool>& cb)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << s.name << " - " << s.type << ")");
    bool result = true;
    if (m_publisherConnected && m_publishedServices.count(s.type) != 0)
    {
        result = m_publisher->UpdateService(s); // the stored record keeps its old TXT records
    }
    else
    {
        DPRINT(s_log, DPrint::LEVEL_INFO, "(" << s.type << " Not in list. Adding Service)");
        AddServiceAction(s);
    }
    cb(result);
}

void MdnsService::ServicePublished(const MDNS::ServiceId& id, const MDNS::Service& s)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "(" << s.name << " " << s.type << ")");
    const CallbackConnection connection = m_publishedServices[id.type].connection;
    m_publishedServices.erase(id.type);
    m_publishedServices[id.type] = {s, connection};
}

void MdnsService::ReconnectPublisher()
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "ReconnectPublisher");
    if (m_isStopped) // the backend failed while the stop was queued
    {
        return;
    }
    DisconnectPublisher();
    const auto self = shared_from_this();
    const AsyncCallback<> connected([self] { self->PublisherConnected(); }, m_task);
    const AsyncCallback<> restart([self] { self->ReconnectPublisher(); }, m_task);
    m_publisher = MDNS::PublisherFactory::Create(m_useBackend, m_forceNone, connected, restart);
}

void MdnsService::DisconnectPublisher()
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "DisconnectPublisher");
    m_rendererConnection.Disconnect();
    m_rendererConnection = {};
    for (auto& [type, record] : m_publishedServices)
    {
        record.connection.Disconnect();
        record.connection = {};
    }
    if (m_publisherConnected)
    {
        m_publisher->Stop();
    }
    m_publisher.reset();
    m_publisherConnected = false;
}

void MdnsService::PublisherConnected()
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "PublisherConnected");
    if (!m_publisher)
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Publisher was destroyed already.");
        return;
    }
    m_publisherConnected = true;
    if (!m_rendererValid) // other services are published only after the announcement of the product
    {
        return;
    }
    PublishRenderer();
    for (auto& [type, record] : m_publishedServices)
    {
        record.connection.Disconnect();
        const MDNS::ServiceId id = record.service;
        const MDNS::Service s{id, std::move(record.service.address), std::move(record.service.txt)};
        record.service.txt.clear(); // ServicePublished() sets it again
        record.connection = Publish(id, s);
    }
}

} // namespace SonarixService
