#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "schemas/SXCommon.pb.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace Sonarix
{
class Product;
class ProductInfo;
} // namespace Sonarix

/// Computes the expected content of the service's resources. Each input of the service (from network, gateway or
/// another process) is also passed to the model at the same instant. The model has no tasks, timers, requests or
/// callbacks; it only requires that the service has acted by a certain time. There is one input per instant, and the
/// service is idle before and after it.
class Model
{
public:
    static constexpr const char* kOwn = "own";         ///< the guid of the product that runs the service
    static constexpr std::int64_t kGiveUpAfter = 1800; ///< seconds offline until the connection to a product is removed

    struct Row
    {
        Row() = default;
        explicit Row(const Sonarix::Product& product);
        void Take(const Sonarix::ProductInfo& info); ///< merges the fields that are set
        std::string Text() const;

        std::string guid;
        std::string name;
        std::string address;
        std::string location; ///< of its description
        bool isOnline = false;
        std::set<int> protocols;
        std::map<std::string, int> icons; ///< width by url
        std::vector<std::string> bands;
        std::vector<std::string> children;
        SXCommon::ProductMode mode = SXCommon::UNKNOWN_MODE;
    };

    struct Description ///< of an SSDP device; absent fields are empty
    {
        std::optional<std::string> name;
        std::string ecosystem;
        std::map<std::string, int> icons; ///< width by url
    };

    explicit Model(bool isAccessory)
        : m_isAccessory(isAccessory)
    {
    }

    // --- inputs ---
    void Status(bool isPrimaryUp, const std::string& address, bool hasInterface, std::int64_t nowMs);
    void Advertised(const std::string& name);
    void Resolved(const MDNS::Service& service);
    void Removed(const MDNS::ServiceId& id);                                              ///< reported by a browser
    void Heard(const std::string& guid, const std::string& location, std::int64_t nowMs); ///< by SSDP
    void HeardBye(const std::string& guid);                                               ///< by SSDP
    void SearchOver();
    void Fetched(unsigned fetch, const std::optional<Description>& description); ///< nothing: the fetch failed
    void Refreshed();                                                            ///< the refresh every six hours
    void Answered(const Sonarix::ProductInfo& info);                             ///< response or notification
    void Heartbeat(const std::string& guid, bool isThere, std::int64_t nowSec);
    void ChildPosted(const Sonarix::Product& product);
    void ChildDeleted(const std::string& guid);

    // --- observed actions of the service ---
    void Opened(const std::string& guid, const std::string& subProtocol);
    void Closed(const std::string& guid, std::int64_t nowSec);
    void Asked(const std::string& guid);
    void SsdpBegins(bool isForAnotherLink); ///< with an empty table
    void Searched(std::int64_t nowMs);
    unsigned Fetches(const std::string& location,
                     std::int64_t nowMs); ///< a fetch started; returns the number for Fetched()
    void Settled();                       ///< the service is idle at this instant
    void Pass(std::int64_t nowMs);        ///< before an input: expires queued fetches

    // --- expected state ---
    std::vector<std::string> Table() const; ///< rows in the order of the list
    std::string Own() const;                ///< in the form of Row::Text()
    const Row* Find(const std::string& guid) const;
    bool IsResolved(const std::string& instanceName, const std::string& type) const;
    bool IsDescribed(const std::string& guid) const; ///< by SSDP
    /// Returns the time since which the gateway reports the product as offline.
    std::optional<std::int64_t> OfflineSince(const std::string& guid) const;

    std::set<std::string> connections;          ///< guids of the products to which the service must be connected
    std::size_t lists = 0;                      ///< number of list notifications
    std::optional<MDNS::ServiceId> publication; ///< the product's own record; name before any collision
    bool isDiscovering = true;                  ///< true from the start
    std::optional<std::int64_t> searchDue;      ///< ms
    std::string complaint;                      ///< first unexpected action of the service

private:
    struct Sight ///< one report of a discovery source
    {
        std::set<int> protocols;
        std::string guid;
        std::string ecosystem;
        std::optional<std::string> name;
        std::optional<std::string> address;
        std::optional<std::string> location;
        std::map<std::string, int> icons;
    };
    struct SsdpDevice
    {
        Sight sight;              ///< empty until the first description
        std::optional<bool> isUp; ///< nothing: it had expired when its description arrived
    };
    struct Fetch ///< of a description, running or queued
    {
        unsigned number;
        Sight sight; ///< to be completed
        std::int64_t sinceMs;
        bool hasBegun = false;
    };
    static Sight SightOf(const MDNS::Service& service);

    void Sighted(const Sight& sight);
    void Refresh(const Sight& sight);
    static void Merge(Row& row, const Sight& sight);
    void Fail(const Sight& sight);
    void EndSsdp();
    void Connect(const std::string& guid);
    void Announce(const MDNS::ServiceId& id);
    Row OwnRow() const;
    void SetMode(SXCommon::ProductMode mode);

    const bool m_isAccessory;
    SXCommon::ProductMode m_mode = SXCommon::UNKNOWN_MODE;
    bool m_isPrimaryUp = false;
    bool m_isNetworkUp = false;
    Row m_own; ///< own fields as reported
    std::string m_ownAddress;
    std::map<std::string, Row> m_rows;
    std::map<std::string, Row> m_children;
    std::map<std::string, std::int64_t> m_offlineSince;    ///< seconds; first failed heartbeat since the last response
    std::map<std::string, MDNS::Service> m_resolved;       ///< by instance name without type
    std::set<std::pair<std::string, std::string>> m_known; ///< resolved and not removed, by name and type
    std::map<std::string, SsdpDevice> m_ssdp;              ///< by guid
    std::vector<Fetch> m_fetches;                          ///< oldest first
    unsigned m_fetchNumbers = 0;                           ///< last assigned number
    std::vector<Sight> m_heldBack;                         ///< reports while the mode is unknown
    std::map<std::string, MDNS::ServiceId> m_deferred;     ///< announcements, by type
    std::set<std::string> m_mustAsk;                       ///< must happen within this instant
    std::set<std::string> m_mustClose;                     ///< must happen within this instant because the mode changed
};
