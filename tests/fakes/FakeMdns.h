#pragma once

#include "Mdns/BrowserFactory.h"
#include "Mdns/MdnsClient.h"
#include "Mdns/MdnsTypes.h"
#include "Mdns/PublisherFactory.h"
#include "Mdns/avahi/ResolveQueue.h"
#include "runtime/Callback.h"
#include "runtime/CallbackRegistry.h"

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>

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
    FakeMdns()
        : m_lan(std::make_shared<Lan>())
        , m_factories{std::make_shared<Factory<MDNS::BrowserFactory::detail::BrowserFactoryIF, MDNS::Browser,
                                               MDNS::BrowserFactory::SetOverride>>(m_lan, "browser"),
                      std::make_shared<Factory<MDNS::PublisherFactory::detail::PublisherFactoryIF, MDNS::Publisher,
                                               MDNS::PublisherFactory::SetOverride>>(m_lan, "publisher")}
    {
    }

    ~FakeMdns()
    {
        m_lan->backends.clear();
        m_lan->resolvings.clear();
    }
    FakeMdns(const FakeMdns&) = delete;
    FakeMdns& operator=(const FakeMdns&) = delete;

    static MDNS::Service MakeService(const std::string& name, const std::string& type,
                                     const std::map<std::string, std::string>& txt = {},
                                     const std::string& host = "10.0.0.9", int interface = 2)
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(8090);
        inet_pton(AF_INET, host.c_str(), &address.sin_addr);
        const Network::AddrInfo info(reinterpret_cast<const sockaddr*>(&address), sizeof address);
        return {
            {interface, MDNS::Protocol::INET, name, type, "local"}, {info, Network::IpAddress::Family::STREAM}, txt};
    }

    /// A neighbour's service; known already: its records change, of which browsers are not told.
    void Announce(const MDNS::Service& service)
    {
        m_lan->silent.erase({service.name, service.type});
        m_lan->Add(service);
    }
    void Withdraw(const std::string& name, const std::string& type)
    {
        m_lan->Remove({name, type});
    }
    /// A service that is known is reported once more, as from another interface.
    void ReportAgain(const std::string& name, const std::string& type)
    {
        m_lan->Report(m_lan->services.at({name, type}), &Browsing::added);
    }
    /// Its removal is reported though resolves still find it, as when one of its interfaces goes.
    void ReportGone(const std::string& name, const std::string& type)
    {
        m_lan->Report(m_lan->services.at({name, type}), &Browsing::removed);
    }
    /// The service can't be resolved from now on, though its removal was never heard.
    void FallSilent(const std::string& name, const std::string& type)
    {
        m_lan->silent.insert({name, type});
    }
    /// Null where the LAN has none.
    const MDNS::Service* Find(const std::string& name, const std::string& type) const
    {
        const auto found = m_lan->services.find({name, type});
        return found != m_lan->services.end() ? &found->second : nullptr;
    }

    void KillDaemon()
    {
        m_lan->daemonRuns = false;
        for (const std::weak_ptr<Backend>& each : std::exchange(m_lan->backends, {}))
        {
            if (const std::shared_ptr<Backend> backend = each.lock())
            {
                backend->Fail();
            }
        }
    }
    void StartDaemon()
    {
        m_lan->daemonRuns = true;
        EnterRunningAgain();
    }
    /// The running daemon enters its running state anew, as after a collision of host names.
    void EnterRunningAgain()
    {
        for (const std::weak_ptr<Backend>& each : m_lan->backends)
        {
            if (const std::shared_ptr<Backend> backend = each.lock())
            {
                backend->connected();
            }
        }
    }
    /// Without a bus no backend can be made.
    void SetHasBus(bool hasBus)
    {
        m_lan->hasBus = hasBus;
    }

    /// False: resolves wait for AnswerResolves().
    void SetAnswersResolves(bool answers)
    {
        m_lan->answersResolves = answers;
    }
    void AnswerResolves()
    {
        const std::list<Resolving> resolvings = std::exchange(m_lan->resolvings, {});
        for (const Resolving& resolving : resolvings)
        {
            m_lan->Answer(resolving);
        }
    }
    /// Those that have been started, at most ResolveQueue::kMaxRunning a backend, and those cancelled since.
    std::size_t PendingResolves() const
    {
        return m_lan->resolvings.size();
    }
    /// True: the daemon can start no resolve.
    void SetRefusesResolves(bool refuses)
    {
        m_lan->refusesResolves = refuses;
    }

    /// What the backends were asked for, in order: "browse TYPE", "unbrowse TYPE", "resolve NAME", "publish NAME
    /// TYPE", "withdraw NAME TYPE", "update NAME TYPE", "stop browser", "stop publisher".
    const std::vector<std::string>& Calls() const
    {
        return m_lan->calls;
    }
    void ClearCalls()
    {
        m_lan->calls.clear();
    }
    int BrowsersMade() const
    {
        return m_lan->made["browser"];
    }
    int PublishersMade() const
    {
        return m_lan->made["publisher"];
    }

    /// For scripts that decide themselves when a resolve is answered, and that keep book of what the browsers hear.
    struct Script
    {
        /// Answers; gives what was told. Null: nobody waits any more, or the service was not seen.
        using Answer = std::function<const MDNS::Service*()>;
        std::function<void(const MDNS::ServiceId&, const Answer&)> resolving; ///< in place of an answer at once
        std::function<void(const MDNS::ServiceId&)> removed;                  ///< to a browser of ours
    };
    void SetScript(const Script& script)
    {
        m_lan->script = script;
    }

private:
    class Backend;
    using Key = std::pair<std::string, std::string>; ///< name and type

    struct Browsing
    {
        std::string type;
        Callback<MDNS::ServiceId> added;
        Callback<MDNS::ServiceId> removed;
    };

    struct Resolving
    {
        MDNS::ServiceId id;
        std::shared_ptr<CallbackRegistry<std::string, MDNS::Service>> resolved; ///< cancelled: of nobody
    };

    /// In force until it is disconnected, which calls `end`.
    class Connection final : public CallbackConnectionIF
    {
    public:
        explicit Connection(std::function<void()> end)
            : m_end(std::move(end))
        {
        }
        bool IsConnected() const override
        {
            return m_end != nullptr;
        }
        void Disconnect() override
        {
            if (const auto end = std::exchange(m_end, nullptr))
            {
                end();
            }
        }

    private:
        std::function<void()> m_end;
    };
    static CallbackConnection Until(std::function<void()> end)
    {
        return CallbackConnection(std::make_shared<Connection>(std::move(end)));
    }

    struct Lan
    {
        std::map<Key, MDNS::Service> services;
        std::set<Key> silent;
        std::list<std::weak_ptr<Backend>> backends; ///< with the daemon that runs, or waiting for one
        std::list<Browsing> browsings;
        std::list<Resolving> resolvings;
        std::vector<std::string> calls;
        std::map<std::string, int> made;
        bool daemonRuns = true;
        bool hasBus = true;
        bool answersResolves = true;
        bool refusesResolves = false;
        Script script;

        void Add(const MDNS::Service& service)
        {
            if (services.insert_or_assign({service.name, service.type}, service).second)
            {
                Report(service, &Browsing::added);
            }
        }
        void Remove(const Key& key)
        {
            if (const auto gone = services.extract(key))
            {
                Report(gone.mapped(), &Browsing::removed);
            }
        }
        void Report(const MDNS::ServiceId& id, Callback<MDNS::ServiceId> Browsing::*how) const
        {
            for (const Browsing& browsing : browsings)
            {
                if (daemonRuns && browsing.type == id.type)
                {
                    (browsing.*how)(id);
                    if (how == &Browsing::removed && script.removed)
                    {
                        script.removed(id);
                    }
                }
            }
        }
        const MDNS::Service* Answer(const Resolving& resolving) const
        {
            const Key key{resolving.id.name, resolving.id.type};
            const bool isSeen = services.contains(key) && !silent.contains(key);
            resolving.resolved->Send(isSeen ? "host.local" : MDNS::kNotSeen,
                                     isSeen ? services.at(key) : MDNS::Service{resolving.id, {}, {}}, {});
            return isSeen ? &services.at(key) : nullptr;
        }
    };

    /// Either kind: it is told of the daemon until its Stop().
    class Backend final : public MDNS::Browser, public MDNS::Publisher, public std::enable_shared_from_this<Backend>
    {
    public:
        Backend(std::shared_ptr<Lan> lan, std::string name, Callback<> onConnected, Callback<> onRestart)
            : connected(std::move(onConnected))
            , restart(std::move(onRestart))
            , m_lan(std::move(lan))
            , m_name(std::move(name))
        {
        }
        void Stop() override
        {
            m_lan->calls.push_back("stop " + m_name);
            m_resolves.CancelAll();
            connected.Clear();
            restart.Clear();
        }
        CallbackConnection Browse(std::string type, Callback<MDNS::ServiceId> added,
                                  Callback<MDNS::ServiceId> removed) override
        {
            m_lan->calls.push_back("browse " + type);
            const auto browsing = m_lan->browsings.insert(m_lan->browsings.end(), {type, added, std::move(removed)});
            for (const auto& [key, service] : m_lan->services)
            {
                if (service.type == type)
                {
                    added(service);
                }
            }
            return Until(
                [lan = m_lan, browsing]
                {
                    lan->calls.push_back("unbrowse " + browsing->type);
                    lan->browsings.erase(browsing);
                });
        }
        CallbackConnection Resolve(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved) override
        {
            return Queue(std::move(id), std::move(resolved), MDNS::ResolveQueue::Order::FIRST);
        }
        CallbackConnection ResolveAgain(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved) override
        {
            return Queue(std::move(id), std::move(resolved), MDNS::ResolveQueue::Order::AGAIN);
        }
        void CancelResolves() override
        {
            m_resolves.CancelAll();
        }
        CallbackConnection PublishService(const MDNS::Service& s, Callback<MDNS::Service> published) override
        {
            m_lan->calls.push_back("publish " + s.name + " " + s.type);
            if (s.name.empty() || s.type.empty())
            {
                return {};
            }
            MDNS::Service service = s;
            for (int number = 2; m_lan->services.contains({service.name, service.type}); ++number)
            {
                service.name = s.name + " #" + std::to_string(number);
            }
            m_lan->Add(service);
            published(service);
            return Until(
                [lan = m_lan, key = Key{service.name, service.type}]
                {
                    lan->calls.push_back("withdraw " + key.first + " " + key.second);
                    lan->Remove(key);
                });
        }
        bool UpdateService(const MDNS::Service& s) override
        {
            m_lan->calls.push_back("update " + s.name + " " + s.type);
            const auto known = m_lan->services.find({s.name, s.type});
            const bool isKnown = known != m_lan->services.end();
            if (isKnown)
            {
                known->second.txt = s.txt;
            }
            return isKnown;
        }

        /// The daemon has gone: nothing that was asked for is answered any more.
        void Fail()
        {
            m_resolves.CancelAll();
            restart();
        }

        Callback<> connected;
        Callback<> restart;

    private:
        CallbackConnection Queue(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved,
                                 MDNS::ResolveQueue::Order order)
        {
            const auto ask = m_resolves.Add(std::move(id), std::move(resolved), order);
            if (!ask)
            {
                return {};
            }
            return Until( // also after the answer
                [weak = weak_from_this(), ask]
                {
                    if (const std::shared_ptr<Backend> backend = weak.lock())
                    {
                        backend->m_resolves.Cancel(ask);
                    }
                });
        }
        CallbackConnection Start(const MDNS::ResolveQueue::AskPtr& ask)
        {
            m_lan->calls.push_back("resolve " + ask->id.name);
            if (m_lan->refusesResolves)
            {
                return {};
            }
            const Resolving resolving{ask->id, std::make_shared<CallbackRegistry<std::string, MDNS::Service>>()};
            const CallbackConnection connection = resolving.resolved->Connect(
                [this, ask](const std::string& host, const MDNS::Service& s) { m_resolves.Answer(ask, host, s); });
            if (m_lan->script.resolving)
            {
                m_lan->script.resolving(ask->id, [lan = m_lan.get(), resolving, connection]
                                        { return connection.IsConnected() ? lan->Answer(resolving) : nullptr; });
            }
            else if (m_lan->answersResolves)
            {
                m_lan->Answer(resolving);
            }
            else
            {
                m_lan->resolvings.push_back(resolving);
            }
            return connection;
        }

        const std::shared_ptr<Lan> m_lan;
        const std::string m_name;
        MDNS::ResolveQueue m_resolves{[this](const MDNS::ResolveQueue::AskPtr& ask) { return Start(ask); }};
    };

    /// Takes the place of one of the two factories while it lives.
    template <class FactoryIF, class Made, void (*SetOverride)(FactoryIF*)>
    class Factory final : public FactoryIF
    {
    public:
        Factory(std::shared_ptr<Lan> lan, std::string name)
            : m_lan(std::move(lan))
            , m_name(std::move(name))
        {
            SetOverride(this);
        }
        ~Factory() override
        {
            SetOverride(nullptr);
        }
        std::shared_ptr<Made> Create(bool, bool, Callback<> connected, Callback<> restart) override
        {
            ++m_lan->made[m_name];
            if (!m_lan->hasBus)
            {
                return nullptr;
            }
            auto backend = std::make_shared<Backend>(m_lan, m_name, std::move(connected), std::move(restart));
            m_lan->backends.push_back(backend);
            if (m_lan->daemonRuns)
            {
                backend->connected();
            }
            return backend;
        }

    private:
        const std::shared_ptr<Lan> m_lan;
        const std::string m_name;
    };

    const std::shared_ptr<Lan> m_lan;
    const std::vector<std::shared_ptr<void>> m_factories;
};
