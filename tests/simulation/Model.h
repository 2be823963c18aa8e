#pragma once

#include "MdnsTypes.h"
#include "SXCommon.pb.h"

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
class ProductList;
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
        bool isOnline = false;
        std::set<int> protocols;
        std::map<std::string, int> icons; ///< width by url
        std::vector<std::string> bands;
        std::vector<std::string> children;
        SXCommon::ProductMode mode = SXCommon::UNKNOWN_MODE;
    };

    explicit Model(bool isAccessory)
        : m_isAccessory(isAccessory)
    {
    }

    // --- facts ---
    void Status(bool isPrimaryUp, const std::string& address, bool hasInterface);
    void Advertised(const std::string& name);
    void Resolved(const MDNS::Service& service);
    void Removed(const MDNS::ServiceId& id); ///< a browser has reported it
    void HeardBySsdp(const Sonarix::Product& product);
    void Refreshed(const Sonarix::ProductList& ssdpList); ///< the sources were asked, as every six hours
    void Answered(const Sonarix::ProductInfo& info);      ///< or pushed by itself
    void Heartbeat(const std::string& guid, bool isThere, std::int64_t nowSec);
    void ChildPosted(const Sonarix::Product& product);
    void ChildDeleted(const std::string& guid);

    // --- what the service does about it ---
    void Opened(const std::string& guid, const std::string& subProtocol);
    void Closed(const std::string& guid, std::int64_t nowSec);
    void Asked(const std::string& guid);
    void Settled(); ///< it has nothing left to do at this instant

    // --- what must be so ---
    std::vector<std::string> Table() const; ///< rows in the order of the list
    std::string Own() const;                ///< in the form of Row::Text()
    const Row* Find(const std::string& guid) const;
    bool IsResolved(const std::string& instanceName, const std::string& type) const;
    /// Since when a product is offline by the gateway's word.
    std::optional<std::int64_t> OfflineSince(const std::string& guid) const;

    std::set<std::string> connections;          ///< guids of products that the service is connected to
    std::size_t lists = 0;                      ///< times that the list was notified
    std::optional<MDNS::ServiceId> publication; ///< what the product announces; its name before any collision
    bool isDiscovering = true;                  ///< from the service's start on
    std::string complaint;                      ///< the first thing that the service did and should not have

private:
    struct Sight ///< what a discovery source has to say
    {
        bool isByMdns = true;
        std::string guid;
        std::string ecosystem;
        std::string name;
        std::string address;
    };
    static Sight SightOf(const MDNS::Service& service);
    static Sight SightOf(const Sonarix::Product& product);

    void Sighted(const Sight& sight);
    void Refresh(const Sight& sight);
    Row& Merge(const Sight& sight);
    void Connect(const std::string& guid);
    void Announce(const MDNS::ServiceId& id);
    Row OwnRow() const;
    void SetMode(SXCommon::ProductMode mode);

    const bool m_isAccessory;
    SXCommon::ProductMode m_mode = SXCommon::UNKNOWN_MODE;
    bool m_isPrimaryUp = false;
    bool m_isNetworkUp = false;
    std::string m_ownName;
    std::string m_ownAddress;
    std::map<std::string, Row> m_rows;
    std::map<std::string, Row> m_children;
    std::map<std::string, std::int64_t> m_offlineSince;    ///< seconds; the first miss since the last answer
    std::map<std::string, MDNS::Service> m_resolved;       ///< by instance name alone
    std::set<std::pair<std::string, std::string>> m_known; ///< resolved and not removed, by name and type
    std::vector<Sight> m_heldBack;                         ///< while the mode is not known
    std::map<std::string, MDNS::ServiceId> m_deferred;     ///< announcements, by type
    std::set<std::string> m_mustAsk;                       ///< at this instant
    std::set<std::string> m_mustClose;                     ///< at this instant, since the mode has changed
};
