#pragma once

#include "runtime/Callback.h"

#include <string>

namespace SonarixService
{

/// Searches one interface by SSDP and reports what answers. Safe from any thread; subscribers pass AsyncCallbacks,
/// since they are called on a foreign thread, under a lock that every operation here takes.
class GSSDPHandlerIF
{
public:
    enum SearchStatus
    {
        SEARCH_NOT_READY = 0,   ///< no running main loop
        SEARCH_READY = 1,       ///< the main loop runs, no search was asked for yet
        SEARCH_IN_PROGRESS = 2, ///< a search is counting down
        SEARCH_COMPLETE = 3,    ///< the last search has reached its time-out
    };

    enum ResourceStatus
    {
        RESOURCE_UNAVAILABLE = 0,
        RESOURCE_AVAILABLE = 1,
    };

    virtual ~GSSDPHandlerIF() = default;

    /// The subscriptions last as long as the object. Published are SEARCH_IN_PROGRESS and SEARCH_COMPLETE only.
    virtual void RegisterForSearchStatus(const Callback<SearchStatus>& callback) = 0;
    /// The arguments are the status, the USN and the LOCATION (empty where there is none).
    virtual void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) = 0;

    /// Searches for `target` ("ssdp:all", or a URN with a version) and reports SEARCH_COMPLETE after `timeoutSec`
    /// seconds; without a positive time-out never. What is there is reported anew, also what was known. False, and
    /// nothing changes: not ready, or a search with a time-out still counts down.
    virtual bool StartSearch(const std::string& target, int timeoutSec) = 0;
};

/// "SEARCH_READY" and so on; "(?)" for a value outside the enumeration.
const char* Name(GSSDPHandlerIF::SearchStatus status);
const char* Name(GSSDPHandlerIF::ResourceStatus status);

} // namespace SonarixService
