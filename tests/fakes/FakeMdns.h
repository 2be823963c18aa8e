#pragma once

#include "Callback.h"
#include "MdnsTypes.h"

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

/// A LAN with mDNS services on it and this product's mDNS daemon, in place of the real browsing and publishing
/// backends while it lives. On one thread: under the simulated engine. Backends may outlive it.
///
///     FakeMdns mdns;
///     auto service = MdnsServiceFactory::Create(task, true, false); // three browsers and a publisher of ours
///     mdns.Announce(FakeMdns::MakeService("Kitchen", "_kova-lanyard._tcp", {{"GUID", "g-1"}}));
///     mdns.Withdraw("Kitchen", "_kova-lanyard._tcp");
///     mdns.KillDaemon();                    // every backend fails; those made meanwhile wait
///     mdns.StartDaemon();
///     EXPECT_THAT(mdns.Calls(), Contains("publish Bedroom _kova-lanyard._tcp"));
///
/// What is published joins the LAN, renamed with " #2" and so on where the name is taken, and is reported to browsers.
class FakeMdns final
{
public:
    FakeMdns();
    ~FakeMdns();
    FakeMdns(const FakeMdns&) = delete;
    FakeMdns& operator=(const FakeMdns&) = delete;

    static MDNS::Service MakeService(const std::string& name, const std::string& type,
                                     const std::map<std::string, std::string>& txt = {},
                                     const std::string& host = "10.0.0.9", int interface = 2);

    /// A neighbour's service; known already: its records change, of which browsers are not told.
    void Announce(const MDNS::Service& service);
    void Withdraw(const std::string& name, const std::string& type);
    /// A service that is known is reported once more, as from another interface.
    void ReportAgain(const std::string& name, const std::string& type);
    /// Its removal is reported though resolves still find it, as when one of its interfaces goes.
    void ReportGone(const std::string& name, const std::string& type);
    /// The service can't be resolved from now on, though its removal was never heard.
    void FallSilent(const std::string& name, const std::string& type);
    /// Null where the LAN has none.
    const MDNS::Service* Find(const std::string& name, const std::string& type) const;

    void KillDaemon();
    void StartDaemon();
    /// The running daemon enters its running state anew, as after a collision of host names.
    void EnterRunningAgain();
    /// Without a bus no backend can be made.
    void SetHasBus(bool hasBus);

    /// False: resolves wait for AnswerResolves().
    void SetAnswersResolves(bool answers);
    void AnswerResolves();
    /// Those that have been started, at most ResolveQueue::kMaxRunning a backend, and those cancelled since.
    std::size_t PendingResolves() const;
    /// True: the daemon can start no resolve.
    void SetRefusesResolves(bool refuses);

    /// What the backends were asked for, in order: "browse TYPE", "unbrowse TYPE", "resolve NAME", "publish NAME
    /// TYPE", "withdraw NAME TYPE", "update NAME TYPE", "stop browser", "stop publisher".
    const std::vector<std::string>& Calls() const;
    void ClearCalls();
    int BrowsersMade() const;
    int PublishersMade() const;

    /// For scripts that decide themselves when a resolve is answered, and that keep book of what the browsers hear.
    struct Script
    {
        /// Answers; gives what was told. Null: nobody waits any more, or the service was not seen.
        using Answer = std::function<const MDNS::Service*()>;
        std::function<void(const MDNS::ServiceId&, const Answer&)> resolving; ///< in place of an answer at once
        std::function<void(const MDNS::ServiceId&)> removed;                  ///< to a browser of ours
    };
    void SetScript(const Script& script);

private:
    class Backend;
    template <class FactoryIF, class Made, void (*SetOverride)(FactoryIF*)>
    class Factory;
    struct Lan;

    const std::shared_ptr<Lan> m_lan;
    const std::vector<std::shared_ptr<void>> m_factories;
};
