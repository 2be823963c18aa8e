#pragma once

#include "runtime/Callback.h"
#include "runtime/FactoryOverride.h"

#include <memory>
#include <string>

namespace SonarixService
{

/// Searches one interface by SSDP and reports the responses and announcements. Safe from any thread. Subscribers pass
/// AsyncCallbacks: they are called on a foreign thread, with a mutex held that every operation here takes.
class GSSDPHandlerIF
{
public:
    enum SearchStatus
    {
        SEARCH_NOT_READY = 0,   ///< no running main loop
        SEARCH_READY = 1,       ///< the main loop runs, no search has been started yet
        SEARCH_IN_PROGRESS = 2, ///< the time-out of a search counts down
        SEARCH_COMPLETE = 3,    ///< the last search has reached its time-out
    };

    enum ResourceStatus
    {
        RESOURCE_UNAVAILABLE = 0,
        RESOURCE_AVAILABLE = 1,
    };

    /// Replaces Create() in tests.
    class Factory
    {
    public:
        virtual std::shared_ptr<GSSDPHandlerIF> Create(const std::string& iface) = 0;

    protected:
        ~Factory() = default;
    };

    virtual ~GSSDPHandlerIF() = default;

    /// The subscriptions last as long as the object. Only SEARCH_IN_PROGRESS and SEARCH_COMPLETE are published.
    virtual void RegisterForSearchStatus(const Callback<SearchStatus>& callback) = 0;
    /// The arguments are the status, the USN and the LOCATION (empty if there is none).
    virtual void RegisterForResourceStatus(const Callback<ResourceStatus, std::string, std::string>& callback) = 0;

    /// Searches for `target`, which is "ssdp:all" or a URN with a version, and publishes SEARCH_COMPLETE after
    /// `timeoutSec` seconds, or never if that is not positive. Devices that were known are reported again. Returns
    /// false and changes nothing if the handler is not ready or a search with a time-out is in progress.
    virtual bool StartSearch(const std::string& target, int timeoutSec) = 0;

    /// A GSSDPHandler on the interface `iface` (empty: the library chooses). On return it is ready or has failed.
    static std::shared_ptr<GSSDPHandlerIF> Create(const std::string& iface);
    static inline FactoryOverride<Factory*> s_factoryOverride;
};

/// "SEARCH_READY" and so on; "(?)" for a value outside the enumeration.
const char* Name(GSSDPHandlerIF::SearchStatus status);
const char* Name(GSSDPHandlerIF::ResourceStatus status);

} // namespace SonarixService
