#include "aggregator/DiscoverySources.h"

#include "interfaces/DiscoveryServiceControllerIF.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/TaskCheck.h"
#include "runtime/ThreadMutex.h"

#include <optional>
#include <utility>

namespace SonarixService
{

namespace
{

constexpr unsigned int kRefreshPeriodMs = 21600000; // 6 h
constexpr unsigned int kMdnsAnswerLimitMs = 1000;

/// The mDNS answer to one refresh. It arrives on another task, possibly late or never.
struct RefreshAnswer
{
    CThreadMutex mutex;
    ConditionSemaphore arrived{0};
    std::optional<Sonarix::ProductList> list;
    bool isAwaited = true; ///< false after the answer or the time limit
};

} // namespace

DiscoverySources::DiscoverySources(NotifyTargetTaskIF* task, std::shared_ptr<DiscoveryServiceControllerIF> controller,
                                   ReportHandler onSsdpReport, ReportHandler onMdnsReport, ListHandler onList)
    : m_task(task)
    , m_controller(std::move(controller))
    , m_onSsdpReport(std::move(onSsdpReport))
    , m_onMdnsReport(std::move(onMdnsReport))
    , m_onList(std::move(onList))
    , m_periodicResolverTimer("DiscoveryServiceAggregatorPeriodicResolver", m_task)
{
}

void DiscoverySources::Subscribe()
{
    if (!m_ssdpProtocol)
    {
        m_ssdpProtocol = m_controller->GetSsdpDiscoveryProtocol();
        if (m_ssdpProtocol)
        {
            m_ssdpConnection = m_ssdpProtocol->RegisterProductStateCallback(
                m_liveness.OnTask<const Sonarix::Product>(m_task, m_onSsdpReport));
        }
    }
    if (!m_mdnsProtocol)
    {
        m_mdnsProtocol = m_controller->GetMdnsDiscoveryProtocol();
        m_mdnsConnection.Disconnect();
        if (m_mdnsProtocol)
        {
            m_mdnsConnection = m_mdnsProtocol->RegisterProductStateCallback(
                m_liveness.OnTask<const Sonarix::Product>(m_task, m_onMdnsReport));
        }
    }
}

void DiscoverySources::Shutdown()
{
    TASK_CHECK(m_task);
    m_mdnsConnection.Disconnect();
    m_ssdpConnection.Disconnect();
    m_ssdpProtocol.reset();
    m_mdnsProtocol.reset();
}

void DiscoverySources::PeriodicGetProductList()
{
    m_periodicResolverTimer.PostIn(kRefreshPeriodMs, [this] { HandlePeriodicGetProductList(); });
}

void DiscoverySources::HandlePeriodicGetProductList()
{
    TASK_CHECK(m_task);
    try
    {
        RefreshFromSsdp();
        RefreshFromMdns();
    }
    catch (...) // the next refresh must still be armed
    {
        PeriodicGetProductList();
        throw;
    }
    PeriodicGetProductList();
}

void DiscoverySources::RefreshFromSsdp()
{
    if (m_ssdpProtocol)
    {
        Sonarix::ProductList list;
        m_ssdpProtocol->GetProductList(list);
        m_onList(list);
    }
}

void DiscoverySources::RefreshFromMdns()
{
    if (!m_mdnsProtocol)
    {
        return;
    }
    const auto answer = std::make_shared<RefreshAnswer>();
    const auto mergeLate = m_liveness.OnTask<const Sonarix::ProductList>(m_task, m_onList);
    m_mdnsProtocol->GetProductList("_kova-lanyard._tcp",
                                   [answer, mergeLate](const Sonarix::ProductList& list)
                                   {
                                       {
                                           const ScopedMutex lock(answer->mutex);
                                           if (answer->isAwaited)
                                           {
                                               answer->isAwaited = false;
                                               answer->list = list;
                                               answer->arrived.Signal();
                                               return;
                                           }
                                       }
                                       mergeLate(list);
                                   });
    answer->arrived.Wait(kMdnsAnswerLimitMs);

    std::optional<Sonarix::ProductList> list;
    {
        const ScopedMutex lock(answer->mutex);
        answer->isAwaited = false;
        list.swap(answer->list);
    }
    if (list)
    {
        m_onList(*list);
    }
}

} // namespace SonarixService
