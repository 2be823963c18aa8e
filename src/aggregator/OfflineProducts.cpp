// The two timers: products that have been offline for too long lose their connection, though never their row; and
// both sources are asked every six hours for what they know.

#include "aggregator/AggregatorLog.h"
#include "aggregator/DiscoveryServiceAggregator.h"
#include "aggregator/ProductMerge.h"
#include "interfaces/MdnsDiscoveryProtocolIF.h"
#include "interfaces/SsdpDiscoveryProtocolIF.h"
#include "runtime/ConditionSemaphore.h"
#include "runtime/MonotonicClock.h"
#include "runtime/ThreadMutex.h"
#include <PorticoClientIF.h>

#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <utility>

namespace SonarixService
{

namespace
{

constexpr int kOfflineLimitSec = 1800;
constexpr std::uint64_t kLongestReapTimerMs = 1800000;
constexpr std::uint64_t kNextSecondMs = 1000;       // stamps are whole seconds
constexpr unsigned int kRefreshPeriodMs = 21600000; // 6 h
constexpr unsigned int kMdnsAnswerLimitMs = 1000;

/// The mDNS answer to one refresh, which comes on another task, perhaps late or never.
struct RefreshAnswer
{
    CThreadMutex mutex;
    ConditionSemaphore arrived{0};
    std::optional<Sonarix::ProductList> list;
    bool isAwaited = true; ///< false: there already, or too late
};

} // namespace

bool DiscoveryServiceAggregator::HasOfflineStampExpired(const std::time_t& stamp)
{
    const double age = std::difftime(MonotonicClock::NowSec(), stamp);
    const std::uint64_t wholeSeconds = age < 0 ? 0 : static_cast<std::uint64_t>(age);
    return wholeSeconds > kOfflineLimitSec - 1;
}

bool DiscoveryServiceAggregator::IsPronouncedDead(const std::string& guid, const Table& table, const Stamps& stamps)
{
    const auto entry = table.find(guid);
    if (entry == table.end() || entry->second.state() != SXCommon::OFFLINE)
    {
        return false;
    }
    const auto stamp = stamps.find(guid);
    return stamp != stamps.end() && HasOfflineStampExpired(stamp->second);
}

std::map<std::string, bool> DiscoveryServiceAggregator::CollectExpiredOfflineStamps(const Stamps& stamps)
{
    std::map<std::string, bool> expired;
    for (const auto& [guid, stamp] : stamps)
    {
        expired[guid] = HasOfflineStampExpired(stamp);
    }
    return expired;
}

std::uint64_t DiscoveryServiceAggregator::ComputeMsToNextClosestTimeoutMs(const Stamps& stamps)
{
    if (stamps.empty())
    {
        DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
               "No devices are stamped as offline...waiting the max amount possible: " << kOfflineLimitSec);
        return kLongestReapTimerMs;
    }
    const std::time_t now = MonotonicClock::NowSec();
    double closest = std::numeric_limits<double>::max();
    for (const auto& [guid, stamp] : stamps)
    {
        const double remaining = std::difftime(stamp + kOfflineLimitSec, now);
        if (remaining < 0)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_ERROR,
                   "Product has timed out in the future?? Deering until then. Guid: " << guid);
        }
        else if (closest > remaining)
        {
            closest = remaining;
        }
    }
    if (closest > kOfflineLimitSec)
    {
        closest = kOfflineLimitSec; // also where every stamp was left out
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "secondsToNextTimeout = " << std::to_string(closest));
    return static_cast<std::uint64_t>(closest * 1000.0);
}

void DiscoveryServiceAggregator::PeriodicReapOfflineProducts()
{
    m_reapTimer.Cancel();
    std::uint64_t ms = ComputeMsToNextClosestTimeoutMs(m_offlineStamps);
    if (ms == 0)
    {
        // A product that this very pass has given up: its stamp stays, so that a pass at once, and each after it
        // until the second is over, would find the same again.
        ms = kNextSecondMs;
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
           "Setting timer for next HandleReapOfflineProducts. Fires in " << ms << " milliseconds ");
    m_reapTimer.PostIn(static_cast<unsigned int>(ms), [this] { HandleReapOfflineProducts(); });
}

void DiscoveryServiceAggregator::HandleReapOfflineProducts()
{
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    m_reapTimer.Cancel();

    for (const auto& [guid, isExpired] : CollectExpiredOfflineStamps(m_offlineStamps))
    {
        if (isExpired)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
                   "Product has been offline too long, stop tracking its heartbeat! Guid: " << guid);
            StopTrackingHeartbeat(guid);
        }
    }

    for (const auto& [guid, product] : m_products)
    {
        if (m_remoteClients.contains(guid) && product.state() == SXCommon::OFFLINE)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Potential product to reap: " << product.productinfo().guid());
            PeriodicReapOfflineProducts();
            return;
        }
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "No products left offline! Not starting the Reap timer!");
}

void DiscoveryServiceAggregator::StopTrackingHeartbeat(const std::string& guid)
{
    m_remoteClients.erase(guid);
    m_remoteInfoConnections.erase(guid);
}

void DiscoveryServiceAggregator::PeriodicGetProductList()
{
    m_periodicResolverTimer.PostIn(kRefreshPeriodMs, [this] { HandlePeriodicGetProductList(); });
}

void DiscoveryServiceAggregator::HandlePeriodicGetProductList()
{
    try
    {
        RefreshFromSsdp();
        RefreshFromMdns();
    }
    catch (...) // or it would have been the last refresh
    {
        PeriodicGetProductList();
        throw;
    }
    PeriodicGetProductList();
}

void DiscoveryServiceAggregator::RefreshFromSsdp()
{
    if (m_ssdpProtocol)
    {
        Sonarix::ProductList list;
        m_ssdpProtocol->GetProductList(list);
        MergeRefreshedProducts(list);
    }
}

void DiscoveryServiceAggregator::RefreshFromMdns()
{
    if (!m_mdnsProtocol)
    {
        return;
    }
    const auto answer = std::make_shared<RefreshAnswer>();
    const auto mergeLate =
        OnTask<const Sonarix::ProductList>([this](const Sonarix::ProductList& list) { MergeRefreshedProducts(list); });
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
        MergeRefreshedProducts(*list);
    }
}

void DiscoveryServiceAggregator::MergeRefreshedProducts(const Sonarix::ProductList& list)
{
    for (const Sonarix::Product& product : list.products())
    {
        const std::string& guid = product.productinfo().guid();
        const auto known = m_products.find(guid);
        if (known == m_products.end())
        {
            m_products[guid] = product; // with the state that the source gives it
            ConnectToRemoteProduct(guid);
            continue;
        }
        const SXCommon::ProductState state = known->second.state();
        known->second = MergeProducts(known->second, product);
        known->second.set_state(state);
    }
}

} // namespace SonarixService
