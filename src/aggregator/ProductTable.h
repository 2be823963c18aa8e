#pragma once

#include "schemas/Sonarix.pb.h"

#include <ctime>
#include <map>
#include <string>
#include <vector>

class NotifyTargetTaskIF;

namespace SonarixService
{

/// The rows of the known products, the child products, and the offline stamps, each keyed by guid. Keys are compared
/// byte by byte.
/// Task: all operations except Children() run on `task` (checked in debug builds). Owner: the aggregator.
/// Notifies no one and opens no connection. Never removes a row because of its age.
class ProductTable final
{
public:
    using Products = std::map<std::string, Sonarix::Product>;
    using Stamps = std::map<std::string, std::time_t>;

    explicit ProductTable(const NotifyTargetTaskIF* task);

    /// The row of `guid`, or null.
    Sonarix::Product* Find(const std::string& guid);
    /// The row of `guid`. An unknown guid gets an empty row. This is the only place where the table grows.
    Sonarix::Product& Row(const std::string& guid);
    const Products& Rows() const;

    /// Stores a discovery report. A new row is OFFLINE, whatever the report says. A known row keeps state and address.
    void Track(const Sonarix::Product& product);
    /// Stores a product of a source's list. A new row has the state that the source gives, a known row keeps its own.
    /// True if the row is new.
    bool Refresh(const Sonarix::Product& product);
    /// Stores a product's own information. The row becomes ONLINE, its offline stamp is erased.
    Sonarix::Product& SetOnline(const Sonarix::ProductInfo& info);
    bool SetOffline(const std::string& guid); ///< true if the state changed
    /// Sets the offline stamp to now, unless one is set since the product's last answer.
    void StampOffline(const std::string& guid);
    /// Removes all rows but that of `guid`, and all stamps but its own. A map that does not hold `guid` is not changed.
    void KeepOnly(const std::string& guid);

    /// Seconds of the monotonic clock at the first OFFLINE heartbeat since the product's last answer.
    const Stamps& OfflineStamps() const;

    void AddChild(const Sonarix::Product& product); ///< replaces the child of the same guid
    bool RemoveChild(const std::string& guid);      ///< false if there is no such child
    /// Does not check the task: constructors read the children on the main thread while the task is held.
    const Products& Children() const;

    /// Returns the rows to publish: those that are not children, then the children, each in ascending order of guid.
    /// The pointers are valid until the next change of the table.
    std::vector<const Sonarix::Product*> CollectRows() const;

private:
    const NotifyTargetTaskIF* m_task;
    Products m_children;
    Products m_products;
    Stamps m_offlineStamps;
};

} // namespace SonarixService
