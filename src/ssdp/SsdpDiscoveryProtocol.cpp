#include "ssdp/SsdpDiscoveryProtocol.h"

#include "http/CHttpInterface.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"
#include "ssdp/SsdpDiscovery.h"

#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("SsdpDiscoveryProtocol");

} // namespace

std::shared_ptr<SsdpDiscoveryProtocolIF> SsdpDiscoveryProtocol::Create()
{
    const auto factory = s_factoryOverride.Get();
    return factory != nullptr ? factory() : std::make_shared<SsdpDiscoveryProtocol>();
}

SsdpDiscoveryProtocol::SsdpDiscoveryProtocol()
    : SsdpDiscoveryProtocol(std::make_unique<CHttpInterface>(false, ""), ReadInterfaceAddresses)
{
}

SsdpDiscoveryProtocol::SsdpDiscoveryProtocol(std::unique_ptr<IHttpInterface> http, AddressReader readAddresses)
    : m_task(IL::CreateTask("SsdpDiscoveryProtocolTask", ""))
    , m_pollTimer(APTimerFactory::CreateTimer(m_task, "SsdpPollingTimer"))
    , m_http(std::move(http))
    , m_readAddresses(std::move(readAddresses))
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
}

SsdpDiscoveryProtocol::~SsdpDiscoveryProtocol()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    Stop();
    IL::JoinTask(m_task);
}

void SsdpDiscoveryProtocol::Start(const std::string& interfaceName)
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    m_pollTimer->Stop();
    EndDiscovery();
    m_interfaceName = interfaceName;
    BeginDiscovery();
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s: Setting timer for %d seconds", __func__,
            static_cast<int>(kPollingPeriodMs / 1000));
    m_pollTimer->SetTimeouts(kPollingPeriodMs, kPollingPeriodMs);
    m_pollTimer->Start([this] { RefreshSonarix(); });
}

void SsdpDiscoveryProtocol::Stop()
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    m_pollTimer->Stop();
    EndDiscovery();
}

/// Called with m_mutex held.
void SsdpDiscoveryProtocol::BeginDiscovery()
{
    m_addresses = m_readAddresses(m_interfaceName); // before the sockets are bound, so that no change is missed
    m_ssdpDiscovery = std::make_shared<SsdpDiscovery>(m_http.get(), m_interfaceName,
                                                      [this](const Sonarix::Product& product)
                                                      { m_productRegistry.Send(product, CallbackConnection()); });
    // The first search does not wait for the timer. If it is refused, the timer starts the next one.
    m_ssdpDiscovery->RefreshDeviceList(SsdpDiscoveryIF::SEARCH_RENDERERS, kSearchTimeoutSec);
}

/// Called with m_mutex held. The table's destructor joins its task, which never takes m_mutex.
void SsdpDiscoveryProtocol::EndDiscovery()
{
    m_ssdpDiscovery.reset();
    m_http->DiscardRequests(); // ends the sleeps of the table's requests; their results are dropped
}

void SsdpDiscoveryProtocol::RefreshSonarix()
{
    TASK_CHECK(m_task);
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    if (!m_ssdpDiscovery)
    {
        return;
    }
    const InterfaceAddresses addresses = m_readAddresses(m_interfaceName);
    if (!addresses.subnets.empty() && !addresses.IsSameAs(m_addresses)) // sockets cannot be bound without an address
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               m_interfaceName << " was created again or has another address: SSDP restarts");
        EndDiscovery();
        BeginDiscovery();
        return;
    }
    m_ssdpDiscovery->RefreshDeviceList(SsdpDiscoveryIF::SEARCH_RENDERERS, kSearchTimeoutSec);
}

CallbackConnection SsdpDiscoveryProtocol::RegisterProductStateCallback(const Callback<const Sonarix::Product>& callback)
{
    return m_productRegistry.Connect(callback);
}

void SsdpDiscoveryProtocol::GetProductList(Sonarix::ProductList& list)
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    list.mutable_products()->Clear();
    if (m_ssdpDiscovery)
    {
        m_ssdpDiscovery->GetProductList(list);
    }
}

} // namespace SonarixService
