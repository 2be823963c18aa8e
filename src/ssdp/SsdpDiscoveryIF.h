#pragma once

namespace Sonarix
{
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

/// The table of the SSDP devices of one interface. Safe from any thread.
class SsdpDiscoveryIF
{
public:
    enum SearchScope
    {
        SEARCH_ALL = 0,
        SEARCH_SERVERS = 1,
        SEARCH_RENDERERS = 2,
    };

    virtual ~SsdpDiscoveryIF() = default;

    /// Starts a search of `timeoutSec` seconds. Devices that have not responded at its end are reported and removed.
    /// False: the search was refused, and no device is listed until a later search finds it again.
    virtual bool RefreshDeviceList(SearchScope state, int timeoutSec) = 0;

    /// Replaces the products of `list` by copies of the devices that are ONLINE, ordered by guid. A device without a
    /// description yet has no productinfo.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
};

/// "SEARCH_ALL" and so on; "(?)" for a value outside the enumeration.
const char* Name(SsdpDiscoveryIF::SearchScope scope);

} // namespace SonarixService
