#include "ssdp/SsdpDiscoveryProtocol.h"

#include "http/CHttpInterface.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/Timers.h"
#include "schemas/Sonarix.pb.h"
#include "ssdp/SsdpDeviceParser.h"
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
    : SsdpDiscoveryProtocol(std::make_unique<CHttpInterface>(false, ""), ReadInterfaceLink)
{
}

SsdpDiscoveryProtocol::SsdpDiscoveryProtocol(std::unique_ptr<IHttpInterface> http, LinkReader readLink)
    : m_task(IL::CreateTask("SsdpDiscoveryProtocolTask", ""))
    , m_pollTimer(APTimerFactory::CreateTimer(m_task, "SsdpPollingTimer"))
    , m_http(std::move(http))
    , m_readLink(std::move(readLink))
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "SsdpDiscoveryProtocol");
}

SsdpDiscoveryProtocol::~SsdpDiscoveryProtocol()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "~SsdpDiscoveryProtocol");
    Stop();
    IL::JoinTask(m_task);
}

void SsdpDiscoveryProtocol::Start(const std::string& interfaceName)
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Start");
    m_pollTimer->Stop();
    EndDiscovery();
    m_interfaceName = interfaceName;
    BeginDiscovery();
    DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "%s: Setting timer for %d seconds", "Start",
            static_cast<int>(kPollingPeriodMs / 1000));
    m_pollTimer->SetTimeouts(kPollingPeriodMs, kPollingPeriodMs);
    m_pollTimer->Start([this] { RefreshSonarix(); });
}

void SsdpDiscoveryProtocol::Stop()
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Stop");
    m_pollTimer->Stop();
    EndDiscovery();
}

/// With the mutex held.
void SsdpDiscoveryProtocol::BeginDiscovery()
{
    m_link = m_readLink(m_interfaceName); // before the sockets are bound: what changes now differs later
    const SsdpDeviceParserFactory makeParser = [this](NotifyTargetTaskIF* task, const ParseCallback& parsed)
    { return std::make_unique<SsdpDeviceParser>(m_http.get(), task, parsed); };
    m_ssdpDiscovery = std::make_shared<SsdpDiscovery>(makeParser, m_interfaceName,
                                                      [this](const Sonarix::Product& product)
                                                      { m_productRegistry.Send(product, CallbackConnection()); });
    // Not only when the timer comes. Where it is refused, the next tick tries again.
    m_ssdpDiscovery->RefreshDeviceList(SsdpDiscoveryIF::SEARCH_RENDERERS, kSearchTimeoutSec);
}

/// With the mutex held. The table's end waits for its task, which never takes our mutex.
void SsdpDiscoveryProtocol::EndDiscovery()
{
    m_ssdpDiscovery.reset();
    m_http->DiscardRequests(); // what the table has asked for; nobody hears of it any more
}

void SsdpDiscoveryProtocol::RefreshSonarix()
{
    const ScopedMutex lock(m_mutex);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "RefreshSonarix");
    if (!m_ssdpDiscovery)
    {
        return;
    }
    const InterfaceLink link = m_readLink(m_interfaceName);
    if (!link.subnets.empty() && !link.IsSameAs(m_link)) // without an address there is nothing to bind to
    {
        DPRINT(s_log, DPrint::LEVEL_INFO,
               m_interfaceName << " is another interface now, or has another address: SSDP begins anew");
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
