#pragma once

#include "Mdns/MdnsTypes.h"
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

/// What the service must show, told from outside: every fact that the network, the gateway or another process tells
/// the service is told to the model at the same instant, and the model says what the service's pages must hold then.
/// It knows nothing of tasks, timers, requests and callbacks; where the service has to act, it only says that it must
/// have acted by now. One fact at an instant, with the service at rest before and after.
class Model
{
public:
    static constexpr const char* kOwn = "own";         ///< the guid of the product that runs the service
    static constexpr std::int64_t kGiveUpAfter = 1800; ///< seconds offline

    struct Row
    {
        Row() = default;
        explicit Row(const Sonarix::Product& product);
        void Take(const Sonarix::ProductInfo& info); ///< what it sets
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

    struct Description ///< of an SSDP device, as far as it says something
    {
        std::optional<std::string> name;
        std::string ecosystem;
        std::map<std::string, int> icons; ///< width by url
    };

    explicit Model(bool isAccessory)
        : m_isAccessory(isAccessory)
    {
    }

    // --- facts ---
    void Status(bool isPrimaryUp, const std::string& address, bool hasInterface, std::int64_t nowMs);
    void Advertised(const std::string& name);
    void Resolved(const MDNS::Service& service);
    void Removed(const MDNS::ServiceId& id);                                              ///< a browser has reported it
    void Heard(const std::string& guid, const std::string& location, std::int64_t nowMs); ///< by SSDP
    void HeardBye(const std::string& guid);                                               ///< by SSDP
    void SearchOver();
    void Fetched(unsigned fetch, const std::optional<Description>& description); ///< nothing: it has failed
    void Refreshed();                                ///< the sources were asked, as every six hours
    void Answered(const Sonarix::ProductInfo& info); ///< or pushed by itself
    void Heartbeat(const std::string& guid, bool isThere, std::int64_t nowSec);
    void ChildPosted(const Sonarix::Product& product);
    void ChildDeleted(const std::string& guid);

    // --- what the service does about it ---
    void Opened(const std::string& guid, const std::string& subProtocol);
    void Closed(const std::string& guid, std::int64_t nowSec);
    void Asked(const std::string& guid);
    void SsdpBegins(bool isForAnotherLink); ///< with an empty table
    void Searched(std::int64_t nowMs);
    unsigned Fetches(const std::string& location, std::int64_t nowMs); ///< it has begun to: a number for Fetched()
    void Settled();                                                    ///< it has nothing left to do at this instant
    void Pass(std::int64_t nowMs); ///< before a fact: what waits no longer is over by now

    // --- what must be so ---
    std::vector<std::string> Table() const; ///< rows in the order of the list
    std::string Own() const;                ///< in the form of Row::Text()
    const Row* Find(const std::string& guid) const;
    bool IsResolved(const std::string& instanceName, const std::string& type) const;
    bool IsDescribed(const std::string& guid) const; ///< by SSDP
    /// Since when a product is offline by the gateway's word.
    std::optional<std::int64_t> OfflineSince(const std::string& guid) const;

    std::set<std::string> connections;          ///< guids of products that the service is connected to
    std::size_t lists = 0;                      ///< times that the list was notified
    std::optional<MDNS::ServiceId> publication; ///< what the product announces; its name before any collision
    bool isDiscovering = true;                  ///< from the service's start on
    std::optional<std::int64_t> searchDue;      ///< ms
    std::string complaint;                      ///< the first thing that the service did and should not have

private:
    struct Sight ///< what a discovery source has to say
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
        Sight sight;              ///< empty until its first description has come
        std::optional<bool> isUp; ///< nothing: it was given up when its description came
    };
    struct Fetch ///< of a description, also one that waits for its turn
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
    Row m_own; ///< what was reported of it
    std::string m_ownAddress;
    std::map<std::string, Row> m_rows;
    std::map<std::string, Row> m_children;
    std::map<std::string, std::int64_t> m_offlineSince;    ///< seconds; the first miss since the last answer
    std::map<std::string, MDNS::Service> m_resolved;       ///< by instance name alone
    std::set<std::pair<std::string, std::string>> m_known; ///< resolved and not removed, by name and type
    std::map<std::string, SsdpDevice> m_ssdp;              ///< by guid
    std::vector<Fetch> m_fetches;                          ///< the longest first
    unsigned m_fetchNumbers = 0;                           ///< given out
    std::vector<Sight> m_heldBack;                         ///< while the mode is not known
    std::map<std::string, MDNS::ServiceId> m_deferred;     ///< announcements, by type
    std::set<std::string> m_mustAsk;                       ///< at this instant
    std::set<std::string> m_mustClose;                     ///< at this instant, since the mode has changed
};
