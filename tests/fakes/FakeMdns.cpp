#include "FakeMdns.h"

#include "BrowserFactory.h"
#include "MdnsClient.h"
#include "PublisherFactory.h"

#include <arpa/inet.h>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <netinet/in.h>
#include <utility>

namespace
{

using Key = std::pair<std::string, std::string>; ///< name and type

/// Runs `end` once, at the disconnection or with the last handle.
class FakeConnection final : public CallbackConnectionIF
{
public:
    explicit FakeConnection(std::function<void()> end)
        : m_end(std::move(end))
    {
    }
    ~FakeConnection() override
    {
        Disconnect();
    }
    void Disconnect() override
    {
        if (const std::function<void()> end = std::exchange(m_end, nullptr))
        {
            end();
        }
    }
    bool IsConnected() const override
    {
        return m_end != nullptr;
    }

private:
    std::function<void()> m_end;
};

Network::IpAddress MakeAddress(const std::string& host, std::uint16_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    inet_pton(AF_INET, host.c_str(), &address.sin_addr);
    return {Network::AddrInfo(reinterpret_cast<const sockaddr*>(&address), sizeof address),
            Network::IpAddress::Family::STREAM};
}

CallbackConnection MakeConnection(std::function<void()> end)
{
    return CallbackConnection(std::make_shared<FakeConnection>(std::move(end)));
}

struct Backend
{
    Callback<> connected;
    Callback<> restart;
};

struct Browsing
{
    std::string type;
    Callback<MDNS::ServiceId> added;
    Callback<MDNS::ServiceId> removed;
};

struct Resolving
{
    MDNS::ServiceId id;
    Callback<std::string, MDNS::Service> resolved;
};

} // namespace

struct FakeMdns::Lan
{
    std::map<Key, MDNS::Service> services;
    std::map<Key, bool> silent;
    std::list<std::weak_ptr<Backend>> backends; ///< with the daemon that runs, or waiting for one
    std::list<Browsing> browsings;
    std::list<Resolving> resolvings;
    std::vector<std::string> calls;
    bool daemonRuns = true;
    bool hasBus = true;
    bool answersResolves = true;
    int browsersMade = 0;
    int publishersMade = 0;

    void Add(const MDNS::Service& service)
    {
        const Key key{service.name, service.type};
        if (services.insert_or_assign(key, service).second)
        {
            Report(service);
        }
    }
    void Remove(const Key& key)
    {
        const auto found = services.find(key);
        if (found == services.end())
        {
            return;
        }
        const MDNS::ServiceId id = found->second;
        services.erase(found);
        if (!daemonRuns)
        {
            return;
        }
        for (const Browsing& browsing : browsings)
        {
            if (browsing.type == id.type)
            {
                browsing.removed(id);
            }
        }
    }
    void Report(const MDNS::ServiceId& id) const
    {
        if (!daemonRuns)
        {
            return;
        }
        for (const Browsing& browsing : browsings)
        {
            if (browsing.type == id.type)
            {
                browsing.added(id);
            }
        }
    }
    void Answer(const Resolving& resolving) const
    {
        const Key key{resolving.id.name, resolving.id.type};
        const auto found = services.find(key);
        if (found == services.end() || silent.count(key) != 0)
        {
            resolving.resolved(MDNS::kNotSeen, MDNS::Service{resolving.id, {}, {}});
            return;
        }
        resolving.resolved("host.local", found->second);
    }
    /// Null where no backend can be made. It is told of the running daemon at once, and ends with the pointer.
    std::shared_ptr<Backend> Make(Callback<> connected, Callback<> restart)
    {
        if (!hasBus)
        {
            return nullptr;
        }
        auto backend = std::make_shared<Backend>(Backend{std::move(connected), std::move(restart)});
        backends.push_back(backend);
        if (daemonRuns)
        {
            backend->connected();
        }
        return backend;
    }
};

class FakeMdns::Browser final : public MDNS::Browser
{
public:
    Browser(std::shared_ptr<Lan> lan, std::shared_ptr<Backend> backend)
        : m_lan(std::move(lan))
        , m_backend(std::move(backend))
    {
    }
    void Stop() override
    {
        m_lan->calls.push_back("stop browser");
        m_backend.reset();
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
        return MakeConnection(
            [lan = m_lan, browsing]
            {
                lan->calls.push_back("unbrowse " + browsing->type);
                lan->browsings.erase(browsing);
            });
    }
    CallbackConnection Resolve(MDNS::ServiceId id, Callback<std::string, MDNS::Service> resolved) override
    {
        m_lan->calls.push_back("resolve " + id.name);
        if (m_lan->answersResolves)
        {
            m_lan->Answer({std::move(id), std::move(resolved)});
            return MakeConnection([] {});
        }
        const auto token = std::make_shared<bool>(true);
        m_lan->resolvings.push_back({id, [token, resolved](const std::string& host, const MDNS::Service& service)
                                     {
                                         if (*token)
                                         {
                                             resolved(host, service);
                                         }
                                     }});
        return MakeConnection([token] { *token = false; });
    }

private:
    const std::shared_ptr<Lan> m_lan;
    std::shared_ptr<Backend> m_backend;
};

class FakeMdns::Publisher final : public MDNS::Publisher
{
public:
    Publisher(std::shared_ptr<Lan> lan, std::shared_ptr<Backend> backend)
        : m_lan(std::move(lan))
        , m_backend(std::move(backend))
    {
    }
    void Stop() override
    {
        m_lan->calls.push_back("stop publisher");
        m_backend.reset();
    }
    CallbackConnection PublishService(const MDNS::Service& s, Callback<MDNS::Service> published) override
    {
        m_lan->calls.push_back("publish " + s.name + " " + s.type);
        if (s.name.empty() || s.type.empty())
        {
            return {};
        }
        MDNS::Service service = s;
        for (int number = 2; m_lan->services.count({service.name, service.type}) != 0; ++number)
        {
            service.name = s.name + " #" + std::to_string(number);
        }
        m_lan->Add(service);
        published(service);
        const Key key{service.name, service.type};
        return MakeConnection(
            [lan = m_lan, key]
            {
                lan->calls.push_back("withdraw " + key.first + " " + key.second);
                lan->Remove(key);
            });
    }
    bool UpdateService(const MDNS::Service& s) override
    {
        m_lan->calls.push_back("update " + s.name + " " + s.type);
        const auto found = m_lan->services.find({s.name, s.type});
        if (found == m_lan->services.end())
        {
            return false;
        }
        found->second.txt = s.txt;
        return true;
    }

private:
    const std::shared_ptr<Lan> m_lan;
    std::shared_ptr<Backend> m_backend;
};

class FakeMdns::BrowserFactory final : public MDNS::BrowserFactory::detail::BrowserFactoryIF
{
public:
    explicit BrowserFactory(std::shared_ptr<Lan> lan)
        : m_lan(std::move(lan))
    {
        MDNS::BrowserFactory::SetOverride(this);
    }
    ~BrowserFactory() override
    {
        MDNS::BrowserFactory::SetOverride(nullptr);
    }
    std::shared_ptr<MDNS::Browser> Create(bool, bool, Callback<> connected, Callback<> restart) override
    {
        ++m_lan->browsersMade;
        const std::shared_ptr<Backend> backend = m_lan->Make(std::move(connected), std::move(restart));
        return backend ? std::make_shared<Browser>(m_lan, backend) : nullptr;
    }

private:
    const std::shared_ptr<Lan> m_lan;
};

class FakeMdns::PublisherFactory final : public MDNS::PublisherFactory::detail::PublisherFactoryIF
{
public:
    explicit PublisherFactory(std::shared_ptr<Lan> lan)
        : m_lan(std::move(lan))
    {
        MDNS::PublisherFactory::SetOverride(this);
    }
    ~PublisherFactory() override
    {
        MDNS::PublisherFactory::SetOverride(nullptr);
    }
    std::shared_ptr<MDNS::Publisher> Create(bool, bool, Callback<> connected, Callback<> restart) override
    {
        ++m_lan->publishersMade;
        const std::shared_ptr<Backend> backend = m_lan->Make(std::move(connected), std::move(restart));
        return backend ? std::make_shared<Publisher>(m_lan, backend) : nullptr;
    }

private:
    const std::shared_ptr<Lan> m_lan;
};

FakeMdns::FakeMdns()
    : m_lan(std::make_shared<Lan>())
    , m_browserFactory(std::make_unique<BrowserFactory>(m_lan))
    , m_publisherFactory(std::make_unique<PublisherFactory>(m_lan))
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
    return {{interface, MDNS::Protocol::INET, name, type, "local"}, MakeAddress(host, 8090), txt};
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
    m_lan->Report(m_lan->services.at({name, type}));
}

void FakeMdns::FallSilent(const std::string& name, const std::string& type)
{
    m_lan->silent[{name, type}] = true;
}

const MDNS::Service* FakeMdns::Find(const std::string& name, const std::string& type) const
{
    const auto found = m_lan->services.find({name, type});
    return found != m_lan->services.end() ? &found->second : nullptr;
}

void FakeMdns::KillDaemon()
{
    m_lan->daemonRuns = false;
    for (const std::weak_ptr<Backend>& failed : std::exchange(m_lan->backends, {}))
    {
        if (const std::shared_ptr<Backend> backend = failed.lock())
        {
            backend->restart();
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
    for (const std::weak_ptr<Backend>& running : m_lan->backends)
    {
        if (const std::shared_ptr<Backend> backend = running.lock())
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
    return m_lan->browsersMade;
}

int FakeMdns::PublishersMade() const
{
    return m_lan->publishersMade;
}
