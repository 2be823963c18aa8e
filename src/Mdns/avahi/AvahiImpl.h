#pragma once

#include "Mdns/avahi/AvahiPollThread.h"
#include "Mdns/avahi/MdnsBackendIF.h"
#include "Mdns/avahi/ResolveQueue.h"

#include <atomic>
#include <map>
#include <memory>
#include <string>

struct AvahiClient;
struct AvahiEntryGroup;
struct AvahiServiceResolver;
struct AvahiThreadedPoll;

namespace MDNS
{

/// Browses and publishes through the mDNS daemon: one Avahi client with its own poll thread.
/// Task: operations run on the caller's task, and so does the end of connections. Callbacks run on the poll thread.
/// They validate, copy and call the given Callback; they also start the next waiting resolve or a repeated browse.
/// Callers pass AsyncCallbacks, so no code of theirs runs on the poll thread. Debug builds check the poll's lock.
/// Owner: the caller of Create(). Stop() ends the instance, and so does the release of the owner's last pointer.
/// Never reconnects: it reports a failure once through `restart`, and the owner creates a new instance. A missing
/// daemon is no failure: the client waits on D-Bus until the daemon's name appears, without any wake-up.
/// If a browse finds many services at once, it is repeated internally (BrowseRepeat).
///
/// Design: the adapter of the client callback holds the instance until Stop(). Each browser, resolver and group holds
/// it until its own end, so no event reaches a destroyed instance. Avahi's poll lock is the only lock; it protects all
/// Avahi objects, m_resolves and m_groups (AvahiPollThread). A resolver is freed on the poll thread when its result
/// arrives. The daemon reports a failure after 5 s without a response, so every request in m_resolves ends.
/// A failed or stopped instance invokes no callback.
class AvahiImpl final : public Browser, public Publisher, public std::enable_shared_from_this<AvahiImpl>
{
    struct Key
    {
    };

public:
    /// Creates and starts an instance. Returns null if the poll or the D-Bus connection cannot be created.
    static std::shared_ptr<AvahiImpl> Create(Callback<> connected, Callback<> restart);

    AvahiImpl(Key, Callback<> connected, Callback<> restart);
    ~AvahiImpl() override;
    AvahiImpl(const AvahiImpl&) = delete;
    AvahiImpl& operator=(const AvahiImpl&) = delete;

    CallbackConnection Browse(std::string type, Callback<ServiceId> added, Callback<ServiceId> removed) override;
    CallbackConnection Resolve(ServiceId id, Callback<std::string, Service> resolved) override;
    CallbackConnection ResolveAgain(ServiceId id, Callback<std::string, Service> resolved) override;
    void CancelResolves() override;
    CallbackConnection PublishService(const Service& s, Callback<Service> published) override;
    bool UpdateService(const Service& s) override;
    void Stop() override;

private:
    /// Create() returns a pointer that shares this object. Its destructor stops the instance.
    struct Owner;
    class Browsing;

    bool Start();
    void ClientStatus(AvahiClient* client, int state);
    void Fail();
    CallbackConnection QueueResolve(ServiceId id, Callback<std::string, Service> resolved,
                                    ResolveQueue::Attempt attempt);
    CallbackConnection StartResolver(const ResolveQueue::RequestPtr& request);
    void ResolveResult(const ResolveQueue::RequestPtr& request, AvahiServiceResolver* resolver, int event,
                       const std::string& host, const Network::AddrInfo& address, Service service);
    void PublishResult(Service& service, const Callback<Service>& published, AvahiEntryGroup* group, int state);

    /// Renames `service` until its name is free on this host.
    bool AddToGroup(Service& service, AvahiEntryGroup* group);
    /// Removes the group from m_groups and frees it. Returns the result of Avahi.
    int FreeGroup(AvahiEntryGroup* group);

    AvahiThreadedPoll* m_poll = nullptr;
    AvahiClient* m_client = nullptr;                  ///< null until avahi_client_new() returns
    CallbackConnection m_clientConnection;            ///< the adapter of the client state callback
    Callback<> m_connected;                           ///< called each time the client enters the running state
    Callback<> m_restart;                             ///< called at a failure that needs a new instance
    std::map<std::string, AvahiEntryGroup*> m_groups; ///< by final instance name
    ResolveQueue m_resolves{[this](const ResolveQueue::RequestPtr& request) { return StartResolver(request); }};
    bool m_hasFailed = false;     ///< m_restart has been called
    bool m_isLimitLogged = false; ///< once per instance: a new limit needs a daemon restart, which needs a new instance
    AvahiPollThread m_pollThread;
    std::atomic<bool> m_stopped{false};
};

} // namespace MDNS
