#pragma once

#include "Mdns/MdnsClient.h"
#include "Mdns/avahi/AvahiPollThread.h"
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

/// Browses and publishes through the mDNS daemon: one Avahi client on a poll thread of its own.
/// Task: operations and the disconnecting of connections on the caller's task; callbacks on the poll thread, where
/// they check, copy and call on, and start what waited for them: the next resolve, a second browser. Callers pass
/// AsyncCallbacks, so that nothing of theirs runs there. Owner: whoever called Create(). Stop(), or the release of the
/// owner's last pointer, ends it. Never reconnects by itself: a failure is reported once through `restart`, and the
/// owner makes a new instance. A browser that is told of very many in its first moments is followed by a second one,
/// unseen (SecondLook). A missing daemon is no failure but a wait: the client sleeps on D-Bus until the daemon's name
/// appears, and costs nothing meanwhile.
///
/// Design: the adapter of the client's callbacks holds the instance until Stop(), and each browser, resolver and
/// group holds it until it ends, so that no event finds a dead instance. Avahi's poll lock is the only
/// lock, held around everything that touches Avahi's objects, m_resolves or m_groups (AvahiPollThread).
/// A resolver is freed with its one answer, on the poll thread; the daemon answers for each within 5 s, with a failure
/// where nobody else does, so that no place in m_resolves is held for ever. What fails or is stopped calls no more.
class AvahiImpl final : public Browser, public Publisher, public std::enable_shared_from_this<AvahiImpl>
{
    struct Key
    {
    };

public:
    /// Makes the instance and starts it. Empty where the poll or the D-Bus connection cannot be made.
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
    /// What Create() hands out points here: with its end the instance is stopped, whoever forgot to.
    struct Owner;
    class Browsing;

    bool Start();
    void ClientStatus(AvahiClient* client, int state);
    /// With the poll's lock held.
    void Fail();
    CallbackConnection QueueResolve(ServiceId id, Callback<std::string, Service> resolved, ResolveQueue::Order order);
    /// With the poll's lock held.
    CallbackConnection StartResolver(const ResolveQueue::AskPtr& ask);
    void ResolveResult(const ResolveQueue::AskPtr& ask, AvahiServiceResolver* resolver, int event,
                       const std::string& host, const Network::AddrInfo& address, Service service);
    void PublishResult(Service& service, const Callback<Service>& published, AvahiEntryGroup* group, int state);

    /// With the poll's lock held. Renames `service` until the name is free on this host.
    bool AddToGroup(Service& service, AvahiEntryGroup* group);
    /// With the poll's lock held. Forgets the group under all its names. The result is that of Avahi.
    int FreeGroup(AvahiEntryGroup* group);

    AvahiThreadedPoll* m_poll = nullptr;
    AvahiClient* m_client = nullptr;                  ///< null until avahi_client_new has returned
    CallbackConnection m_clientConnection;            ///< the adapter that carries client state callbacks
    Callback<> m_connected;                           ///< at each entry into the running state
    Callback<> m_restart;                             ///< at each failure that needs a new instance
    std::map<std::string, AvahiEntryGroup*> m_groups; ///< by final instance name
    ResolveQueue m_resolves{[this](const ResolveQueue::AskPtr& ask) { return StartResolver(ask); }};
    bool m_hasFailed = false;   ///< and waits to be replaced
    bool m_toldOfLimit = false; ///< another limit of the daemon comes with another daemon, and that with an instance
    AvahiPollThread m_pollThread;
    std::atomic<bool> m_stopped{false};
};

} // namespace MDNS
