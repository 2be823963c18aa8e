#pragma once

#include "Mdns/MdnsTypes.h"
#include "runtime/Callback.h"
#include "runtime/CallbackConnection.h"

#include <string>
#include <utility>

namespace MDNS
{

/// What browsing and publishing backends have in common. Owned by the mDNS task, which makes all calls; callbacks
/// may come on any thread, so callers pass AsyncCallbacks. A backend that has failed is replaced, never revived.
class Client
{
public:
    /// Ends all activity; safe from a backend callback. Once.
    virtual void Stop() = 0;
    virtual ~Client() = default;
};

/// Finds service instances and what is known of them.
class Browser : public virtual Client
{
public:
    /// Reports the services of `type` until the connection is disconnected. Empty connection: failed.
    virtual CallbackConnection Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed) = 0;

    /// One result, then nothing: the host name and the whole service, or "NOT SEEN" and a service that holds the id
    /// alone. May wait until others are done. Disconnecting cancels. Empty connection: failed.
    virtual CallbackConnection Resolve(ServiceId id, Callback<std::string, Service> resolved) = 0;

    /// Resolve() for a name that failed before: where resolves wait, it lets every other go first.
    virtual CallbackConnection ResolveAgain(ServiceId id, Callback<std::string, Service> resolved)
    {
        return Resolve(std::move(id), std::move(resolved));
    }

    /// Ends every resolve without a result; for an owner that cancels all, since cancelling one starts the next.
    virtual void CancelResolves() {}
};

/// Puts services on the network.
class Publisher : public virtual Client
{
public:
    /// `published` gets the service as finally registered, with any changed name. Disconnecting withdraws it.
    /// Empty connection: failed.
    virtual CallbackConnection PublishService(const Service& s, Callback<Service> published) = 0;

    /// Replaces the TXT records of the published service of that name; true on success.
    virtual bool UpdateService(const Service& s) = 0;
};

/// The host name of a resolve that failed.
inline constexpr const char* kNotSeen = "NOT SEEN";

} // namespace MDNS
