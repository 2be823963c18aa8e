#pragma once

#include "Mdns/avahi/MdnsTypes.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <string>
#include <utility>

/// The interfaces of an mDNS backend.
///
/// Handles: Browse(), Resolve() and PublishService() return the only reference to the operation. Disconnecting the
/// handle ends the operation, and so does dropping or overwriting its last copy. A CallbackRegistry's handle is
/// different: dropping that one leaves the subscription active.
namespace MDNS
{

/// The common part of a browsing and a publishing backend.
/// Task: the owner makes all calls on its own task. Callbacks may come on any thread, so callers pass AsyncCallbacks.
/// Owner: the class that creates it. A backend that has failed is replaced; it never recovers by itself.
class Client
{
public:
    /// Ends all activity. May be called from a backend callback. Call it once.
    virtual void Stop() = 0;
    virtual ~Client() = default;
};

/// Finds service instances and resolves them.
class Browser : public virtual Client
{
public:
    /// Reports the services of `type` until the connection ends. Returns an empty connection on failure.
    virtual CallbackConnection Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed) = 0;

    /// Calls `resolved` once: with the host name and the complete service, or with kNotSeen and a service that holds
    /// only the id. The backend may delay the resolve until others have finished. Ending the connection cancels it.
    /// Returns an empty connection on failure.
    virtual CallbackConnection Resolve(ServiceId id, Callback<std::string, Service> resolved) = 0;

    /// Like Resolve(), for a name whose last resolve failed. All waiting first attempts run before this one.
    virtual CallbackConnection ResolveAgain(ServiceId id, Callback<std::string, Service> resolved)
    {
        return Resolve(std::move(id), std::move(resolved));
    }

    /// Cancels every resolve without a result. An owner that cancels them one by one would start waiting ones.
    virtual void CancelResolves() {}
};

/// Publishes services on the network.
class Publisher : public virtual Client
{
public:
    /// `published` gets the service as it was registered; a name collision may have changed its name. Ending the
    /// connection withdraws the service. Returns an empty connection on failure.
    virtual CallbackConnection PublishService(const Service& s, Callback<Service> published) = 0;

    /// Replaces the TXT records of the published service with this name. Returns true on success.
    virtual bool UpdateService(const Service& s) = 0;
};

/// The host name that Resolve() reports for a failed resolve.
inline constexpr const char* kNotSeen = "NOT SEEN";

} // namespace MDNS
