#pragma once

#include "Mdns/avahi/BackendFactory.h"
#include "Mdns/avahi/MdnsBackendIF.h"
#include "Mdns/avahi/MdnsTypes.h"
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

/// A LAN with mDNS services and the mDNS daemon of this product. Replaces the backends during its lifetime.
/// Use it on one thread, under the simulated engine. Its backends may outlive it.
///
///     FakeMdns mdns;
///     auto service = MdnsService::Create(task, true, false); // uses three browsers and a publisher of `mdns`
///     mdns.Announce(FakeMdns::MakeService("Kitchen", "_kova-lanyard._tcp", {{"GUID", "g-1"}}));
///     mdns.Withdraw("Kitchen", "_kova-lanyard._tcp");
///     mdns.KillDaemon();                    // every backend fails; new ones wait for StartDaemon()
///     mdns.StartDaemon();
///     EXPECT_THAT(mdns.Calls(), Contains("publish Bedroom _kova-lanyard._tcp"));
///
/// A published service joins the LAN and is reported to browsers. If its name is taken, it gets the suffix " #2" etc.
/// Handles of browses, resolves and published services end when they are dropped, as those of the real backend.
class FakeMdns final
{
public:
    FakeMdns()
        : m_lan(std::make_shared<Lan>())
        , m_browsers(m_lan, "browser", MDNS::BrowserFactory::s_factoryOverride)
        , m_publishers(m_lan, "publisher", MDNS::PublisherFactory::s_factoryOverride)
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

    /// Adds a service of another host. If it exists, its TXT records change, which browsers do not report.
    void Announce(const MDNS::Service& service)
    {
        m_lan->silent.erase({service.name, service.type});
        m_lan->Add(service);
    }
    void Withdraw(const std::string& name, const std::string& type)
    {
        m_lan->Remove({name, type});
    }
    /// Makes the browsers report an existing service again, as for another network interface.
    void ReportAgain(const std::string& name, const std::string& type)
    {
        m_lan->Report(m_lan->services.at({name, type}), &Browsing::added);
    }
    /// Makes the browsers report the removal. Resolves still succeed, as when one of several interfaces goes down.
    void ReportGone(const std::string& name, const std::string& type)
    {
        m_lan->Report(m_lan->services.at({name, type}), &Browsing::removed);
    }
    /// Makes resolves of the service fail from now on. Browsers report no removal.
    void FallSilent(const std::string& name, const std::string& type)
    {
        m_lan->silent.insert({name, type});
    }
    /// Returns null if the LAN has no such service.
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
    /// Makes the daemon enter its running state again, as after a host name collision.
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
    /// Sets whether D-Bus is there. Without D-Bus no backend can be created.
    void SetHasBus(bool hasBus)
    {
        m_lan->hasBus = hasBus;
    }

    /// If false, resolves wait for AnswerResolves().
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
    /// Returns the number of waiting resolves, including cancelled ones.
    std::size_t PendingResolves() const
    {
        return m_lan->resolvings.size();
    }
    /// If true, every resolve fails to start.
    void SetRefusesResolves(bool refuses)
    {
        m_lan->refusesResolves = refuses;
    }

    /// The calls of all backends, in order: "browse TYPE", "unbrowse TYPE", "resolve NAME", "resolve again NAME",
    /// "cancel resolves", "publish NAME TYPE", "withdraw NAME TYPE", "update NAME TYPE", "stop browser",
    /// "stop publisher".
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

    /// Callbacks of a test that decides when a resolve is answered and that records removals.
    struct Script
    {
        /// Passed to `resolving`: answers that resolve and returns its service. Null: the resolve was cancelled or has
        /// failed.
        using Answer = std::function<const MDNS::Service*()>;
        std::function<void(const MDNS::ServiceId&, const Answer&)> resolving; ///< called instead of an immediate answer
        std::function<void(const MDNS::ServiceId&)> removed;                  ///< called after the report of a removal
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
        std::shared_ptr<CallbackRegistry<std::string, MDNS::Service>> resolved; ///< cancelled: no subscriber
    };

    /// A connection that calls `end` when it is disconnected or dropped.
    class Connection final : public CallbackConnectionIF
    {
    public:
        explicit Connection(std::function<void()> end)
            : m_end(std::move(end))
        {
        }
        ~Connection() override
        {
            Connection::Disconnect();
        }
        Connection(const Connection&) = delete;
        Connection& operator=(const Connection&) = delete;
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
        std::list<std::weak_ptr<Backend>> backends; ///< connected to the daemon or waiting for it
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
            resolving.resolved->DisconnectAll();
            return isSeen ? &services.at(key) : nullptr;
        }
    };

    /// A browsing or publishing backend. The daemon's state reaches it until its Stop().
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
            DisconnectResolves();
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
            return Start("resolve ", id, resolved);
        }
        CallbackConnection ResolveAgain(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved) override
        {
            return Start("resolve again ", id, resolved);
        }
        void CancelResolves() override
        {
            m_lan->calls.emplace_back("cancel resolves");
            DisconnectResolves();
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

        /// Simulates the end of the daemon: no resolve is answered any more.
        void Fail()
        {
            DisconnectResolves();
            restart();
        }

        Callback<> connected;
        Callback<> restart;

    private:
        using ResolvedRegistry = CallbackRegistry<std::string, MDNS::Service>;

        void DisconnectResolves()
        {
            for (const std::weak_ptr<ResolvedRegistry>& each : std::exchange(m_resolves, {}))
            {
                if (const std::shared_ptr<ResolvedRegistry> resolved = each.lock())
                {
                    resolved->DisconnectAll();
                }
            }
        }
        CallbackConnection Start(const std::string& call, const MDNS::ServiceId& id,
                                 const Callback<std::string, MDNS::Service>& callback)
        {
            m_lan->calls.push_back(call + id.name);
            if (m_lan->refusesResolves)
            {
                return {};
            }
            const Resolving resolving{id, std::make_shared<ResolvedRegistry>()};
            const CallbackConnection connection = resolving.resolved->Connect(callback);
            std::erase_if(m_resolves, [](const std::weak_ptr<ResolvedRegistry>& each) { return each.expired(); });
            m_resolves.push_back(resolving.resolved);
            if (m_lan->script.resolving)
            {
                m_lan->script.resolving(id, [lan = m_lan.get(), resolving, connection]
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
            return Until([connection] { connection.Disconnect(); });
        }

        const std::shared_ptr<Lan> m_lan;
        const std::string m_name;
        std::vector<std::weak_ptr<ResolvedRegistry>> m_resolves;
    };

    /// Replaces one of the two factories during its lifetime.
    template <class Made>
    class Factory final : public MDNS::detail::BackendFactoryIF<Made>
    {
    public:
        using Override = FactoryOverride<MDNS::detail::BackendFactoryIF<Made>*>;

        Factory(std::shared_ptr<Lan> lan, std::string name, Override& factoryOverride)
            : m_lan(std::move(lan))
            , m_name(std::move(name))
            , m_override(factoryOverride)
        {
            m_override.Set(this);
        }
        ~Factory() override
        {
            m_override.Set(nullptr);
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
        Override& m_override;
    };

    const std::shared_ptr<Lan> m_lan;
    const Factory<MDNS::Browser> m_browsers;
    const Factory<MDNS::Publisher> m_publishers;
};
