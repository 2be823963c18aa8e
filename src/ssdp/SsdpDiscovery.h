#pragma once

#include "runtime/ThreadMutex.h"
#include "ssdp/GSSDPHandlerIF.h"
#include "ssdp/SsdpDeviceParserIF.h"
#include "ssdp/SsdpDiscoveryIF.h"

#include <map>
#include <memory>
#include <string>

namespace Sonarix
{
class Product;
} // namespace Sonarix

namespace SonarixService
{

/// Turns the bare announcements of the SSDP adapter into products, has their descriptions read, judges which are
/// offline after each search, and reports every change upward.
/// Task: everything that changes the table but the flags of RefreshDeviceList() runs on "SsdpDiscoveryTask", which is
/// made here and ends here. The public operations run on the caller's thread.
/// Owner: SsdpDiscoveryProtocol, from a start to a stop; a later start makes a new one with an empty table.
/// Never has a clock: it is told when to search.
///
/// Design: RefreshDeviceList() flags every device OFFLINE, a sighting during the search raises it to ONLINE, and at
/// SEARCH_COMPLETE whatever is still flagged is reported and removed. So the measure of being alive is to have answered
/// the last search. A description is fetched at the first sighting and at each one with another location.
///
///     RefreshDeviceList   flags: OFFLINE
///       sighting          known: ONLINE, reported      unknown: entered, description asked for
///       description                                    reported
///     SEARCH_COMPLETE     still OFFLINE: reported, removed
class SsdpDiscovery final : public SsdpDiscoveryIF
{
public:
    /// `productStateCb` may be empty. It is called with the table's mutex held, on "SsdpDiscoveryTask" and at last on
    /// the thread of the destructor: it copies the product, and calls nothing here.
    SsdpDiscovery(const SsdpDeviceParserFactory& makeParser, const std::string& iface,
                  Callback<Sonarix::Product> productStateCb);
    /// Reports every device that is left as OFFLINE. Not on "SsdpDiscoveryTask".
    ~SsdpDiscovery() override;
    SsdpDiscovery(const SsdpDiscovery&) = delete;
    SsdpDiscovery& operator=(const SsdpDiscovery&) = delete;

    bool RefreshDeviceList(SearchScope state, int timeoutSec) override;
    void GetProductList(Sonarix::ProductList& list) override;

private:
    // On the task.
    void OnResourceStatus(GSSDPHandlerIF::ResourceStatus status, const std::string& usn, const std::string& location);
    void OnSearchStatus(GSSDPHandlerIF::SearchStatus status);
    void OnParseComplete(SsdpDeviceParserIF::ParseStatus status, const Sonarix::ProductInfo& info);

    void AddDevice(const std::string& guid, const std::string& location); ///< with m_mutex held
    void UpdateDevice(Sonarix::Product& device, GSSDPHandlerIF::ResourceStatus status, const std::string& location);
    void RequestParse(const std::string& location, const Sonarix::ProductInfo& info);
    void ClearDeviceStateFlags();
    void RemoveOfflineDevices();
    static std::string ParseGuid(const std::string& usn);
    static std::string ExtractHostFromLocation(const std::string& location);

    std::map<std::string, std::shared_ptr<Sonarix::Product>> m_deviceMap; ///< by guid
    CThreadMutex m_mutex;                                                 ///< guards the table and its entries
    Callback<Sonarix::Product> m_productStateCb;
    NotifyTargetTaskIF* const m_task;
    std::shared_ptr<GSSDPHandlerIF> m_gssdpHandler;
    std::unique_ptr<SsdpDeviceParserIF> m_parser; ///< goes first
};

} // namespace SonarixService
