#include "FakeMdns.h"

#include "BrowserFactory.h"
#include "CallbackRegistry.h"
#include "MdnsClient.h"
#include "PublisherFactory.h"
#include "ResolveQueue.h"

#include <arpa/inet.h>
#include <cstdint>
#include <functional>
#include <list>
#include <netinet/in.h>
#include <set>
#include <utility>

namespace
{

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

} // namespace

struct FakeMdns::Lan
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
    std::list<CallbackRegistry<>> connections; ///< of one connection each; last, as their ends touch the others

    CallbackConnection Until(const Callback<>& end)
    {
        return connections.emplace_back(end).Connect({});
    }
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
class FakeMdns::Backend final : public MDNS::Browser,
                                public MDNS::Publisher,
                                public std::enable_shared_from_this<Backend>
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
        return m_lan->Until(
            [lan = m_lan.get(), browsing]
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
        return m_lan->Until(
            [lan = m_lan.get(), key = Key{service.name, service.type}]
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
    /// Connected until it is disconnected, also after the answer.
    class AskedResolve final : public CallbackConnectionIF
    {
    public:
        AskedResolve(std::weak_ptr<Backend> backend, MDNS::ResolveQueue::AskPtr ask)
            : m_backend(std::move(backend))
            , m_ask(std::move(ask))
        {
        }
        bool IsConnected() const override
        {
            return m_ask != nullptr;
        }
        void Disconnect() override
        {
            const MDNS::ResolveQueue::AskPtr ask = std::exchange(m_ask, nullptr);
            if (const std::shared_ptr<Backend> backend = m_backend.lock(); backend && ask)
            {
                backend->m_resolves.Cancel(ask);
            }
        }

    private:
        const std::weak_ptr<Backend> m_backend;
        MDNS::ResolveQueue::AskPtr m_ask;
    };

    CallbackConnection Queue(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved,
                             MDNS::ResolveQueue::Order order)
    {
        const auto ask = m_resolves.Add(std::move(id), std::move(resolved), order);
        return ask ? CallbackConnection(std::make_shared<AskedResolve>(weak_from_this(), ask)) : CallbackConnection();
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
class FakeMdns::Factory final : public FactoryIF
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

FakeMdns::FakeMdns()
    : m_lan(std::make_shared<Lan>())
    , m_factories{std::make_shared<Factory<MDNS::BrowserFactory::detail::BrowserFactoryIF, MDNS::Browser,
                                           MDNS::BrowserFactory::SetOverride>>(m_lan, "browser"),
                  std::make_shared<Factory<MDNS::PublisherFactory::detail::PublisherFactoryIF, MDNS::Publisher,
                                           MDNS::PublisherFactory::SetOverride>>(m_lan, "publisher")}
{
}

FakeMdns::~FakeMdns()
{
    m_lan->backends.clear();
    m_lan->resolvings.clear();
}

MDNS::Service FakeMdns::MakeService(const std::string& name, const std::string& type,
                                    const std::map<std::string, std::string>& txt, const std::string& host,
                                    int interface)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(8090);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    const Network::AddrInfo info(reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return {{interface, MDNS::Protocol::INET, name, type, "local"}, {info, Network::IpAddress::Family::STREAM}, txt};
}

void FakeMdns::Announce(const MDNS::Service& service)
{
    m_lan->silent.erase({service.name, service.type});
    m_lan->Add(service);
}

void FakeMdns::Withdraw(const std::string& name, const std::string& type)
{
    m_lan->Remove({name, type});
}

void FakeMdns::ReportAgain(const std::string& name, const std::string& type)
{
    m_lan->Report(m_lan->services.at({name, type}), &Browsing::added);
}

void FakeMdns::ReportGone(const std::string& name, const std::string& type)
{
    m_lan->Report(m_lan->services.at({name, type}), &Browsing::removed);
}

void FakeMdns::FallSilent(const std::string& name, const std::string& type)
{
    m_lan->silent.insert({name, type});
}

const MDNS::Service* FakeMdns::Find(const std::string& name, const std::string& type) const
{
    const auto found = m_lan->services.find({name, type});
    return found != m_lan->services.end() ? &found->second : nullptr;
}

void FakeMdns::KillDaemon()
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

void FakeMdns::StartDaemon()
{
    m_lan->daemonRuns = true;
    EnterRunningAgain();
}

void FakeMdns::EnterRunningAgain()
{
    for (const std::weak_ptr<Backend>& each : m_lan->backends)
    {
        if (const std::shared_ptr<Backend> backend = each.lock())
        {
            backend->connected();
        }
    }
}

void FakeMdns::SetHasBus(bool hasBus)
{
    m_lan->hasBus = hasBus;
}

void FakeMdns::SetAnswersResolves(bool answers)
{
    m_lan->answersResolves = answers;
}

void FakeMdns::AnswerResolves()
{
    const std::list<Resolving> resolvings = std::exchange(m_lan->resolvings, {});
    for (const Resolving& resolving : resolvings)
    {
        m_lan->Answer(resolving);
    }
}

void FakeMdns::SetRefusesResolves(bool refuses)
{
    m_lan->refusesResolves = refuses;
}

std::size_t FakeMdns::PendingResolves() const
{
    return m_lan->resolvings.size();
}

const std::vector<std::string>& FakeMdns::Calls() const
{
    return m_lan->calls;
}

void FakeMdns::ClearCalls()
{
    m_lan->calls.clear();
}

int FakeMdns::BrowsersMade() const
{
    return m_lan->made["browser"];
}

int FakeMdns::PublishersMade() const
{
    return m_lan->made["publisher"];
}

void FakeMdns::SetScript(const Script& script)
{
    m_lan->script = script;
}
