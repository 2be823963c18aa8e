#include "Mdns/MdnsService.h"

#include "Mdns/ServiceTypes.h"
#include "Mdns/TxtKeys.h"
#include "runtime/DPrint.h"
#include "runtime/MonotonicClock.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
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

Sonarix::Product ProductFromService(const MDNS::Service& service, SXCommon::ProductState state)
{
    Sonarix::Product product;
    product.add_protocols(SXCommon::MDNS);
    product.set_state(state);
    product.mutable_serviceid()->set_type(service.type);
    GetProductInfoFromService(product.mutable_productinfo(), service);
    return product;
}

} // namespace

MdnsService::MdnsService(NotifyTargetTaskIF* task, bool useBackend, bool forceNone)
    : m_task(task)
    , m_useBackend(useBackend)
    , m_forceNone(forceNone)
    , m_reResolveTimer(APTimerFactory::CreateTimer(m_task, "RestartResolver"))
    , m_retries(static_cast<std::uint64_t>(MonotonicClock::NowMs())) // the start time differs between products
    , m_retryTimer(APTimerFactory::CreateTimer(m_task, "RetryResolve"))
{
    m_reResolveTimer->SetTimeouts(kReResolveMilliseconds, 0);
}

MdnsService::~MdnsService() = default;

std::shared_ptr<MdnsServiceIF> MdnsService::Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone)
{
    if (FactoryIF* const factory = s_factoryOverride.Get())
    {
        return factory->Create(task, useBackend, forceNone);
    }
    const auto service = std::make_shared<MdnsService>(task, useBackend, forceNone);
    service->StartService();
    return service;
}

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
    TASK_CHECK(m_task);
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
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "for " << NameFromDeviceType(type));
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
    TASK_CHECK(m_task);
    if (ServiceTypeFromDeviceType(type) != service.type)
    {
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_INFO, "Service: " << service.name << " " << SonarixPb::DeviceState_Name(state));
    if (Passes(filter, service))
    {
        cb(ProductFromService(service, state == SonarixPb::ONLINE ? SXCommon::ONLINE : SXCommon::OFFLINE));
    }
}

void MdnsService::GetProductListAction(const std::string& serviceType, const Callback<const Sonarix::ProductList>& cb)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, serviceType);
    Sonarix::ProductList list;
    for (const auto& [name, service] : m_discovered)
    {
        if (service.type == serviceType)
        {
            *list.add_products() = ProductFromService(service, SXCommon::ONLINE);
        }
    }
    cb(list);
}

} // namespace SonarixService
