#pragma once

#include "runtime/ThreadMutex.h"
#include "ssdp/GSSDPHandlerIF.h"
#include "ssdp/SsdpDeviceParser.h"
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

/// The table of SSDP devices: makes products of announcements and their descriptions, decides after each search which
/// devices are offline, and reports every change to its callback.
/// Task: the handlers run on "SsdpDiscoveryTask", which this object creates and ends. The public operations run on the
/// caller's thread.
/// Owner: SsdpDiscoveryProtocol, from Start() to Stop(); a later Start() makes a new table.
/// Has no timer: SsdpDiscoveryProtocol starts the searches.
///
/// Design: RefreshDeviceList() sets every device to OFFLINE. An announcement or a response during the search sets the
/// device to ONLINE. At SEARCH_COMPLETE, devices that are still OFFLINE are reported and removed: a device that misses
/// one search is gone. A description is fetched when a guid is new and when its LOCATION changes.
///
///     RefreshDeviceList   all devices: OFFLINE
///       available         known: ONLINE, reported      unknown: added, description requested
///       description                                    reported
///     SEARCH_COMPLETE     still OFFLINE: reported, removed
class SsdpDiscovery final : public SsdpDiscoveryIF
{
public:
    /// `http` is not owned. `productStateCb` may be empty. It is called with m_mutex held, on "SsdpDiscoveryTask" and
    /// on the thread of the destructor: it must copy the product and must not call this object.
    SsdpDiscovery(IHttpInterface* http, const std::string& iface, Callback<Sonarix::Product> productStateCb);
    /// Reports every remaining device as OFFLINE. Must not run on "SsdpDiscoveryTask".
    ~SsdpDiscovery() override;
    SsdpDiscovery(const SsdpDiscovery&) = delete;
    SsdpDiscovery& operator=(const SsdpDiscovery&) = delete;

    bool RefreshDeviceList(SearchScope state, int timeoutSec) override;
    void GetProductList(Sonarix::ProductList& list) override;

private:
    // The On... handlers run on "SsdpDiscoveryTask".
    void OnResourceStatus(GSSDPHandlerIF::ResourceStatus status, const std::string& usn, const std::string& location);
    void OnSearchStatus(GSSDPHandlerIF::SearchStatus status);
    void OnParseComplete(SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info);

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
    SsdpDeviceParser m_parser; ///< destroyed first
};

} // namespace SonarixService
