#pragma once

#include "aggregator/ProductTable.h"
#include "runtime/Timers.h"

#include <cstdint>
#include <ctime>
#include <map>
#include <string>

namespace SonarixService
{

class RemoteProducts;

/// Ends the heartbeat of products that have been offline for 1800 s, so that they use no gateway client. Their rows
/// and stamps stay.
/// Task: everything on `task` (checked in debug builds). Owner: the aggregator. After destruction the timer does not
/// fire.
class OfflineProducts final
{
public:
    /// `table` and `remoteProducts` outlive this object.
    OfflineProducts(NotifyTargetTaskIF* task, ProductTable& table, RemoteProducts& remoteProducts);

    /// Drops the clients of products over the offline limit. Arms the timer if an OFFLINE product keeps a client.
    void HandleReapOfflineProducts();
    void CancelTimer();

    static bool IsPronouncedDead(const std::string& guid, const ProductTable::Products& table,
                                 const ProductTable::Stamps& stamps);

private:
    static bool HasOfflineStampExpired(const std::time_t& stamp);
    static std::map<std::string, bool> CollectExpiredOfflineStamps(const ProductTable::Stamps& stamps);
    static std::uint64_t ComputeMsToNextClosestTimeoutMs(const ProductTable::Stamps& stamps);
    void PeriodicReapOfflineProducts();

    NotifyTargetTaskIF* m_task;
    ProductTable& m_table;
    RemoteProducts& m_remoteProducts;
    MessageTimer m_reapTimer;
};

} // namespace SonarixService
