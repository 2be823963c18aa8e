#include "Mdns/MdnsService.h"

#include "Mdns/MdnsClient.h"
#include "Mdns/ProductFromService.h"
#include "Mdns/ServiceTypes.h"
#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"
#include "schemas/SonarixPb.pb.h"

#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MdnsService");

bool Passes(const MdnsServiceIF::Filter_t& filter, const MDNS::Service& service)
{
    switch (filter.kind)
    {
    case MdnsServiceIF::FILTER_NAME:
        return service.name.find(filter.value) != std::string::npos;
    case MdnsServiceIF::FILTER_MAC:
    {
        const auto mac = service.txt.find("MAC");
        return mac != service.txt.end() && mac->second == filter.value;
    }
    case MdnsServiceIF::FILTER_ALL:
        return true;
    default:
        return false;
    }
}

} // namespace

MdnsService::MdnsService(NotifyTargetTaskIF* task, bool useBackend, bool forceNone)
    : m_task(task)
    , m_useBackend(useBackend)
    , m_forceNone(forceNone)
    , m_reResolveTimer(APTimerFactory::CreateTimer(m_task, "RestartResolver"))
    , m_retries(static_cast<std::uint64_t>(MonotonicClock::NowMs())) // neighbours started at other times
    , m_retryTimer(APTimerFactory::CreateTimer(m_task, "RetryResolve"))
{
    m_reResolveTimer->SetTimeouts(kReResolveMilliseconds, 0);
}

MdnsService::~MdnsService() = default;

template <class Function>
void MdnsService::PostToSelf(Function function)
{
    IL::BreakThread([self = shared_from_this(), function = std::move(function)] { function(*self); }, m_task);
}

void MdnsService::StartService()
{
    PostToSelf([](MdnsService& self) { self.StartServiceBrowsers(); });
    PostToSelf([](MdnsService& self) { self.ReconnectPublisher(); });
}

void MdnsService::StopService()
{
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s()", "StopService");
    PostToSelf([](MdnsService& self) { self.StopServiceAction(); });
}

void MdnsService::StopServiceAction()
{
    m_isStopped = true;
    DisconnectPublisher();
    for (const auto& [type, sb] : m_browsers)
    {
        DisconnectClient(sb);
        sb->browser.reset();
    }
    m_browsers.clear();
    m_reResolveTimer->Stop();
}

void MdnsService::GetProductList(const std::string& serviceType, Callback<const Sonarix::ProductList> cb)
{
    PostToSelf([serviceType, cb = std::move(cb)](MdnsService& self) { self.GetProductListAction(serviceType, cb); });
}

void MdnsService::BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info)
{
    PostToSelf([info](MdnsService& self) { self.BroadcastInitialDeviceAnnouncementAction(info); });
}

void MdnsService::BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info)
{
    PostToSelf([info](MdnsService& self) { self.BroadcastInitialAccessoryAnnouncementAction(info); });
}

void MdnsService::AddService(const MDNS::Service& s)
{
    PostToSelf([s](MdnsService& self) { self.AddServiceAction(s); });
}

void MdnsService::RemoveService(const MDNS::Service& s)
{
    PostToSelf([s](MdnsService& self) { self.RemoveServiceAction(s); });
}

void MdnsService::UpdateServiceTxtRecords(const MDNS::Service& s, Callback<bool> cb)
{
    PostToSelf([s, cb = std::move(cb)](MdnsService& self) { self.UpdateServiceTxtRecordsAction(s, cb); });
}

void MdnsService::RegisterForProductUpdates(const Filter_t& filter, DiscoverableDeviceType type,
                                            Callback<Sonarix::Product> cb,
                                            Callback<CallbackConnection, bool> registered)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "DiscoveryFilter = " << filter.value);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "for " << DeviceTypeName(type));
    const CallbackConnection connection = m_productRegistry.Connect(
        [self = shared_from_this(), filter, type, cb](const MDNS::Service& service, const SonarixPb::DeviceState& state)
        { self->AnnounceService(filter, type, cb, service, state); });
    registered(connection, true);
    PostToSelf(
        [filter, type, cb = std::move(cb)](MdnsService& self)
        {
            for (const auto& [name, service] : self.m_discovered)
            {
                self.AnnounceService(filter, type, cb, service, SonarixPb::ONLINE);
            }
        });
}

void MdnsService::AnnounceService(const Filter_t& filter, DiscoverableDeviceType type,
                                  const Callback<Sonarix::Product>& cb, const MDNS::Service& service,
                                  SonarixPb::DeviceState state)
{
    if (ServiceTypeOf(type) != service.type)
    {
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "Service: " << service.name << " " << SonarixPb::DeviceState_Name(state));
    Sonarix::Product product;
    product.add_protocols(SXCommon::MDNS);
    product.set_state(state == SonarixPb::ONLINE ? SXCommon::ONLINE : SXCommon::OFFLINE);
    product.mutable_serviceid()->set_type(service.type);
    if (!Passes(filter, service))
    {
        return;
    }
    GetProductInfoFromService(product.mutable_productinfo(), service);
    cb(product);
}

void MdnsService::GetProductListAction(const std::string& serviceType, const Callback<const Sonarix::ProductList>& cb)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, serviceType);
    Sonarix::ProductList list;
    for (const auto& [name, service] : m_discovered)
    {
        if (service.type == serviceType)
        {
            Sonarix::Product& product = *list.add_products();
            product.add_protocols(SXCommon::MDNS);
            product.set_state(SXCommon::ONLINE);
            product.mutable_serviceid()->set_type(serviceType);
            GetProductInfoFromService(product.mutable_productinfo(), service);
        }
    }
    cb(list);
}

} // namespace SonarixService
