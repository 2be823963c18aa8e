#include "aggregator/OfflineProducts.h"

#include "aggregator/AggregatorLog.h"
#include "aggregator/RemoteProducts.h"
#include "runtime/MonotonicClock.h"
#include "runtime/TaskCheck.h"

#include <limits>

namespace SonarixService
{

namespace
{

constexpr int kOfflineLimitSec = 1800;
constexpr std::uint64_t kLongestReapTimerMs = kOfflineLimitSec * 1000ULL;
constexpr std::uint64_t kNextSecondMs = 1000; // the unit of the stamps

} // namespace

OfflineProducts::OfflineProducts(NotifyTargetTaskIF* task, ProductTable& table, RemoteProducts& remoteProducts)
    : m_task(task)
    , m_table(table)
    , m_remoteProducts(remoteProducts)
    , m_reapTimer("DiscoveryServiceAggregator-ReapOfflineClientTimer", m_task)
{
}

bool OfflineProducts::HasOfflineStampExpired(const std::time_t& stamp)
{
    const double age = std::difftime(MonotonicClock::NowSec(), stamp);
    const std::uint64_t wholeSeconds = age < 0 ? 0 : static_cast<std::uint64_t>(age);
    return wholeSeconds > kOfflineLimitSec - 1;
}

bool OfflineProducts::IsPronouncedDead(const std::string& guid, const ProductTable::Products& table,
                                       const ProductTable::Stamps& stamps)
{
    const auto entry = table.find(guid);
    if (entry == table.end() || entry->second.state() != SXCommon::OFFLINE)
    {
        return false;
    }
    const auto stamp = stamps.find(guid);
    return stamp != stamps.end() && HasOfflineStampExpired(stamp->second);
}

std::map<std::string, bool> OfflineProducts::CollectExpiredOfflineStamps(const ProductTable::Stamps& stamps)
{
    std::map<std::string, bool> expired;
    for (const auto& [guid, stamp] : stamps)
    {
        expired[guid] = HasOfflineStampExpired(stamp);
    }
    return expired;
}

std::uint64_t OfflineProducts::ComputeMsToNextClosestTimeoutMs(const ProductTable::Stamps& stamps)
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
        closest = kOfflineLimitSec; // also if every stamp was skipped
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_DEBUG, "secondsToNextTimeout = " << std::to_string(closest));
    return static_cast<std::uint64_t>(closest * 1000.0);
}

void OfflineProducts::PeriodicReapOfflineProducts()
{
    m_reapTimer.Cancel();
    std::uint64_t ms = ComputeMsToNextClosestTimeoutMs(m_table.OfflineStamps());
    if (ms == 0)
    {
        // A stamp expires in this second, but the client of its product has been dropped. A timer of 0 ms would repeat
        // the pass, with the same result, until the second ends.
        ms = kNextSecondMs;
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
           "Setting timer for next HandleReapOfflineProducts. Fires in " << ms << " milliseconds ");
    m_reapTimer.PostIn(static_cast<unsigned int>(ms), [this] { HandleReapOfflineProducts(); });
}

void OfflineProducts::HandleReapOfflineProducts()
{
    TASK_CHECK(m_task);
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "");
    m_reapTimer.Cancel();

    for (const auto& [guid, isExpired] : CollectExpiredOfflineStamps(m_table.OfflineStamps()))
    {
        if (isExpired)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO,
                   "Product has been offline too long, stop tracking its heartbeat! Guid: " << guid);
            m_remoteProducts.StopTrackingHeartbeat(guid);
        }
    }

    for (const auto& [guid, product] : m_table.Rows())
    {
        if (m_remoteProducts.HasClient(guid) && product.state() == SXCommon::OFFLINE)
        {
            DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "Potential product to reap: " << product.productinfo().guid());
            PeriodicReapOfflineProducts();
            return;
        }
    }
    DPRINT(s_aggregatorLog, DPrint::LEVEL_INFO, "No products left offline! Not starting the Reap timer!");
}

void OfflineProducts::CancelTimer()
{
    TASK_CHECK(m_task);
    m_reapTimer.Cancel();
}

} // namespace SonarixService
