#pragma once

namespace Sonarix
{
class ProductList;
} // namespace Sonarix

namespace SonarixService
{

/// The table of the devices that SSDP has found on one interface. Safe from any thread.
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

    /// Starts a search of `timeoutSec` seconds; what has not answered at its end is reported and removed. False where
    /// the search was refused; then no device is listed until a later search has found it again.
    virtual bool RefreshDeviceList(SearchScope state, int timeoutSec) = 0;

    /// Replaces what is in `list` by copies of the devices that are ONLINE, by guid. One that is still waiting for its
    /// description has no productinfo.
    virtual void GetProductList(Sonarix::ProductList& list) = 0;
};

/// "SEARCH_ALL" and so on; "(?)" for a value outside the enumeration.
const char* Name(SsdpDiscoveryIF::SearchScope scope);

} // namespace SonarixService
