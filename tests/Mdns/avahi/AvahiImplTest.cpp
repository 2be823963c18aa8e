#include "Mdns/avahi/AvahiImpl.h"

#include "Mdns/avahi/BrowseRepeat.h"
#include "tests/Mdns/avahi/AvahiHost.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Watched.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <iterator>
#include <list>
#include <map>
#include <set>
#include <stdexcept>
#include <vector>

using namespace MDNS;
using namespace std::chrono_literals;

namespace
{

/// A test whose body runs in the namespaces of AvahiHost.
#define TEST_ON_AVAHI_HOST(name)                                                                                       \
    void name();                                                                                                       \
    TEST(AvahiImplTest, name)                                                                                          \
    {                                                                                                                  \
        if (AvahiHost::Enter())                                                                                        \
        {                                                                                                              \
            name();                                                                                                    \
        }                                                                                                              \
    }                                                                                                                  \
    void name()

const char* const kType = "_kova-clock._tcp";
const char* const kDatagram = "_kova-test._udp";

Service MakeService(const std::string& name, const std::string& type = kType)
{
    return {{-1, Protocol::INET, name, type, "local"}, Network::IpAddress(4711), {{"KEY", ""}, {"GUID", "a=b"}}};
}

/// An instance, and the number of its callbacks, which run on the poll thread.
struct Backend
{
    Watched<int> connected{0};
    Watched<int> restarts{0};
    std::shared_ptr<AvahiImpl> impl = AvahiImpl::Create([this] { connected.Change([](int& count) { ++count; }); },
                                                        [this] { restarts.Change([](int& count) { ++count; }); });

    ~Backend()
    {
        if (impl)
        {
            impl->Stop();
        }
    }
};

/// A published service and its last registered name.
struct Published
{
    Watched<std::string> name;
    ScopedConnection connection;

    Published(Backend& backend, const Service& service)
        : connection(backend.impl->PublishService(service, [this](const Service& s) { name.Set(s.name); }))
    {
    }
};

/// The names that a browser has added and not removed.
struct Seen
{
    Watched<std::set<std::string>> names;
    ScopedConnection connection;

    Seen(Backend& backend, const std::string& type)
        : connection(backend.impl->Browse(
              type, [this](const ServiceId& id) { names.Change([&id](auto& known) { known.insert(id.name); }); },
              [this](const ServiceId& id) { names.Change([&id](auto& known) { known.erase(id.name); }); }))
    {
    }
};

/// Resolves until the result has these TXT records, because the daemon may report a change late.
Service Resolve(Backend& backend, const ServiceId& id, const std::map<std::string, std::string>& txt)
{
    Watched<int> answers{0};
    Service answer;
    const auto end = std::chrono::steady_clock::now() + 10s;
    for (int attempt = 1; (answer.name != id.name || answer.txt != txt) && std::chrono::steady_clock::now() < end;
         ++attempt)
    {
        const CallbackConnection connection = backend.impl->Resolve(id,
                                                                    [&](const std::string& host, const Service& service)
                                                                    {
                                                                        EXPECT_EQ(host, "lab.local");
                                                                        answer = service;
                                                                        answers.Change([](int& count) { ++count; });
                                                                    });
        EXPECT_TRUE(connection.IsConnected());
        EXPECT_TRUE(answers.WaitFor(attempt)) << "one result for each resolve";
        connection.Disconnect();
    }
    EXPECT_EQ(answer.txt, txt);
    return answer;
}

TEST_ON_AVAHI_HOST(PublishedServicesAreBrowsedAndResolved)
{
    const LogCapture log("4");
    AvahiHost host;
    Backend publisher; // created before the daemon starts
    Backend browser;
    ASSERT_TRUE(publisher.impl && browser.impl);
    host.StartDaemon();
    ASSERT_TRUE(publisher.connected.WaitFor(1) && browser.connected.WaitFor(1)) << log.Text();

    const std::string accented = "Kitchen. \xC3\xA9";
    Seen clocks(browser, kType);
    Seen datagrams(browser, kDatagram);
    {
        Published kitchen(publisher, MakeService(accented));
        Service update = MakeService("Hall", kDatagram);
        update.txt.clear();
        Published hall(publisher, update);
        ASSERT_TRUE(clocks.names.WaitFor({accented}) && datagrams.names.WaitFor({"Hall"})) << log.Text();

        const Service service = Resolve(browser, MakeService(accented), {{"GUID", "a=b"}, {"KEY", ""}});
        EXPECT_GT(service.interface, 0);
        EXPECT_EQ(service.name + "." + service.type + "." + service.domain, accented + "." + kType + ".local");
        EXPECT_EQ(service.address.ToString(), "127.0.0.1:4711");
        EXPECT_EQ(service.address.family(), Network::IpAddress::Family::STREAM);
        EXPECT_EQ(Resolve(browser, MakeService("Hall", kDatagram), {}).address.family(),
                  Network::IpAddress::Family::DATAGRAM);

        update = MakeService(accented);
        update.txt = {{"KEY", "new"}};
        EXPECT_TRUE(publisher.impl->UpdateService(update));
        Resolve(browser, update, update.txt);
    }
    EXPECT_TRUE(clocks.names.WaitFor({})) << "withdrawn";
    EXPECT_FALSE(publisher.impl->UpdateService(MakeService("Hall", kDatagram))) << "withdrawn";
    EXPECT_EQ(publisher.restarts.Get() + browser.restarts.Get(), 0);
}

TEST_ON_AVAHI_HOST(CollidingServicesAreRenamed)
{
    const LogCapture log("4");
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    ASSERT_TRUE(publisher.connected.WaitFor(1)) << log.Text();
    Published first(publisher, MakeService("Bath", kDatagram));
    Service other = MakeService("Bath", kDatagram);
    other.address = Network::IpAddress(4712); // an identical service would not collide
    Published second(publisher, other);
    ASSERT_TRUE(first.name.WaitFor("Bath")) << log.Text();
    ASSERT_TRUE(second.name.WaitFor("Bath #2")) << "renamed before the commit\n" << log.Text();

    // Another host claims the name until the service is renamed.
    bool isRenamed = false;
    for (int attempt = 0; attempt < 50 && !isRenamed; ++attempt)
    {
        host.ClaimInstance("Bath");
        isRenamed = first.name.WaitFor("Bath #3", 100ms);
    }
    EXPECT_TRUE(isRenamed) << log.Text();
    EXPECT_TRUE(log.Contains("Service Bath: collision"));
    EXPECT_TRUE(publisher.impl->UpdateService(MakeService("Bath #3", kDatagram)));
    other.name = "Bath #2";
    other.txt.clear();
    EXPECT_TRUE(publisher.impl->UpdateService(other));
}

TEST_ON_AVAHI_HOST(InvalidNamesAreRefused)
{
    const LogCapture log("4");
    AvahiHost host;
    host.StartDaemon();
    Backend backend;
    ASSERT_TRUE(backend.connected.WaitFor(1)) << log.Text();
    for (const char* const refused : {"", "no text \xFF"})
    {
        EXPECT_FALSE(backend.impl->PublishService(MakeService(refused), {}).IsConnected());
        EXPECT_FALSE(backend.impl->UpdateService(MakeService(refused)));
        EXPECT_FALSE(backend.impl->Browse(refused, {}, {}).IsConnected());
    }
    EXPECT_FALSE(backend.impl->Resolve(MakeService("no text \xFF"), {}).IsConnected());
    EXPECT_TRUE(log.Contains("avahi_service_browser_new: ")) << log.Text();
    EXPECT_EQ(backend.restarts.Get(), 0);
}

TEST_ON_AVAHI_HOST(InstancesEndWithPendingCallbacks)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    ASSERT_TRUE(publisher.connected.WaitFor(1));
    Published kitchen(publisher, MakeService("Kitchen"));

    for (int round = 0; round < 20; ++round)
    {
        // An instance is released with and without a Stop(), while a browser and a resolver have pending callbacks.
        auto impl = AvahiImpl::Create({}, {});
        const std::weak_ptr<AvahiImpl> watch = impl;
        CallbackConnection browse = impl->Browse(kType, {}, {});
        CallbackConnection resolve = impl->Resolve(MakeService("Kitchen"), {});
        if (round % 2 == 0)
        {
            impl->Stop();
        }
        impl.reset();
        browse = {};
        resolve.Disconnect();
        resolve = {};
        EXPECT_TRUE(watch.expired());
    }
}

TEST_ON_AVAHI_HOST(InstancesEndInTheirOwnCallback)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    ASSERT_TRUE(publisher.connected.WaitFor(1));
    Published kitchen(publisher, MakeService("Kitchen"));
    for (int round = 0; round < 20; ++round)
    {
        // A callback on the poll thread releases the last reference to the instance.
        auto owned = std::make_shared<std::pair<std::shared_ptr<AvahiImpl>, std::vector<CallbackConnection>>>();
        Watched<bool> isDone{false};
        Watched<bool> isOurs{false};
        owned->first = AvahiImpl::Create({}, {});
        const auto end = [owned, &isDone, &isOurs, isLast = round == 19](const ServiceId&)
        {
            if (isOurs.WaitFor(true) && !isDone.Get())
            {
                for (const CallbackConnection& connection : owned->second)
                {
                    connection.Disconnect();
                }
                owned->first->Stop();
                *owned = {};
                isDone.Set(true);
                isLast ? throw std::runtime_error("broken") : void();
            }
        };
        AvahiImpl& impl = *owned->first;
        owned->second = {impl.Browse(kType, end, {}), impl.Resolve(MakeService("Kitchen"), {})};
        owned.reset();
        isOurs.Set(true);
        EXPECT_TRUE(isDone.WaitFor(true)) << log.Text();
    }
    EXPECT_TRUE(log.WaitFor("a callback has thrown: broken"));
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 1U) << log.Text();
}

/// Publishes services "0", "1", …, 30 for each backend, because the daemon of the test limits the objects of a client.
void PublishNumbers(std::list<Backend>& publishers, std::list<Published>& services, int count)
{
    for (int i = 0; i < count; ++i)
    {
        if (i % 30 == 0)
        {
            ASSERT_TRUE(publishers.emplace_back().connected.WaitFor(1));
        }
        services.emplace_back(publishers.back(), MakeService(std::to_string(i)));
    }
}

/// The daemon enforces the limit: it allows this client one browser and kMaxRunning resolvers.
TEST_ON_AVAHI_HOST(ResolvesBeyondTheLimitWait)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon(1 + ResolveQueue::kMaxRunning);
    std::list<Backend> publishers;
    std::list<Published> services;
    PublishNumbers(publishers, services, 120);
    Backend browser;
    ASSERT_TRUE(browser.connected.WaitFor(1));
    Watched<std::map<std::string, std::string>> answers; // host by name
    const auto resolve = [&](const std::string& name)
    {
        return browser.impl->Resolve(MakeService(name), [&answers](const std::string& from, const Service& service)
                                     { answers.Change([&](auto& all) { all[service.name] = from; }); });
    };
    const auto countOf = [](const std::string& from)
    {
        return [from](const std::map<std::string, std::string>& all)
        { return std::count_if(all.begin(), all.end(), [&](const auto& each) { return each.second == from; }); };
    };
    std::list<CallbackConnection> resolves; // on the poll thread
    ScopedConnection browse =
        browser.impl->Browse(kType, [&](const ServiceId& id) { resolves.push_back(resolve(id.name)); }, {});
    EXPECT_TRUE(answers.WaitUntil([&](const auto& all) { return countOf("lab.local")(all) == 120; })) << log.Text();
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U) << log.Text();

    // Resolves without a response occupy all kMaxRunning slots of the ResolveQueue until they are cancelled or
    // avahi-daemon reports a failure.
    std::vector<CallbackConnection> silent;
    for (std::size_t i = 0; i < ResolveQueue::kMaxRunning; ++i)
    {
        silent.push_back(resolve("Absent " + std::to_string(i)));
    }
    EXPECT_FALSE(browser.impl->Browse(kDatagram, {}, {}).IsConnected()) << "the daemon has allowed another object";
    EXPECT_TRUE(log.Contains("avahi_service_browser_new: Too many objects")) << log.Text();
    answers.Set({});
    const CallbackConnection waiting = resolve("7");
    const CallbackConnection never = resolve("8");
    never.Disconnect();
    EXPECT_FALSE(answers.WaitUntil([](const auto& all) { return !all.empty(); }, 300ms));
    silent[3].Disconnect();
    EXPECT_TRUE(answers.WaitFor({{"7", "lab.local"}}, 3s)) << log.Text();
    EXPECT_TRUE(
        answers.WaitUntil([&](const auto& all) { return countOf(kNotSeen)(all) == ResolveQueue::kMaxRunning - 1; }))
        << log.Text();
    EXPECT_EQ(answers.Get().size(), ResolveQueue::kMaxRunning) << "a cancelled resolve has a result";
}

TEST_ON_AVAHI_HOST(FullQueueEndsWithoutCallbacks)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend first;
    ASSERT_TRUE(first.connected.WaitFor(1));
    for (const bool isStop : {true, false})
    {
        Watched<int> calls{0};
        Watched<int> restarts{0};
        auto impl = AvahiImpl::Create({}, [&] { restarts.Change([](int& count) { ++count; }); });
        const std::weak_ptr<AvahiImpl> watch = impl;
        std::list<CallbackConnection> connections;
        for (std::size_t i = 0; i < 2 * ResolveQueue::kMaxRunning; ++i)
        {
            connections.push_back(impl->ResolveAgain(MakeService("Absent"), [&](const std::string&, const Service&)
                                                     { calls.Change([](int& count) { ++count; }); }));
            EXPECT_TRUE(connections.back().IsConnected());
        }
        if (isStop)
        {
            impl->Stop();
        }
        else
        {
            host.KillDaemon();
            EXPECT_TRUE(restarts.WaitFor(1));
        }
        connections.clear();
        impl.reset();
        EXPECT_TRUE(watch.expired());
        EXPECT_EQ(calls.Get(), 0);
        EXPECT_FALSE(log.Contains("avahi_service_resolver")) << log.Text();
    }
}

TEST_ON_AVAHI_HOST(TooFewAllowedObjectsAreLoggedOnce)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon(4);
    Backend poor;
    ASSERT_TRUE(poor.connected.WaitFor(1));
    std::vector<CallbackConnection> silent;
    for (int i = 0; i < 8; ++i)
    {
        silent.push_back(poor.impl->Resolve(MakeService("Absent"), {}));
        EXPECT_EQ(silent.back().IsConnected(), i < 4);
    }
    EXPECT_EQ(log.Count(DPrint::LEVEL_WARNING), 1U) << log.Text();
    EXPECT_TRUE(log.Contains("objects-per-client-max")) << log.Text();
}

/// Publishes kMany + 1 services of each type: first those of kType, then those of kDatagram.
void PublishMany(Backend& publisher, std::list<Published>& services)
{
    for (std::size_t i = 0; i <= BrowseRepeat::kMany; ++i)
    {
        services.emplace_front(publisher, MakeService(std::to_string(i)));
        services.emplace_back(publisher, MakeService(std::to_string(i), kDatagram));
    }
    for (Published& service : services)
    {
        ASSERT_TRUE(service.name.WaitUntil([](const std::string& name) { return !name.empty(); }));
    }
}

TEST_ON_AVAHI_HOST(BrowseOfManyServicesIsRepeatedInternally)
{
    LogCapture log("3,mDNS=6");
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    Backend browser;
    ASSERT_TRUE(publisher.connected.WaitFor(1) && browser.connected.WaitFor(1));
    std::list<Published> services;
    PublishMany(publisher, services);
    std::vector<std::string> expected;
    for (std::size_t i = 0; i <= BrowseRepeat::kMany; ++i)
    {
        expected.push_back("+" + std::to_string(i));
    }

    Watched<std::vector<std::string>> reported;
    const auto report = [&reported](const std::string& how)
    { return [&, how](const ServiceId& id) { reported.Change([&](auto& all) { all.push_back(how + id.name); }); }; };
    {
        services.pop_back(); // removed from the daemon's cache 1 s later, if there is no browser
        const auto begin = std::chrono::steady_clock::now();
        const ScopedConnection browse = browser.impl->Browse(kDatagram, report("+"), report("-"));
        ASSERT_TRUE(log.WaitFor("many _kova-test._udp answer")) << log.Text();
        host.AnnounceInstance("late");
        EXPECT_TRUE(host.WaitForQuery("_kova-test"));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(BrowseRepeat::kBrowseMs));
        ASSERT_TRUE(reported.WaitUntil([&](const auto& all) { return all.size() == expected.size() + 2; }))
            << log.Text();
        std::vector<std::string> all = reported.Get();
        std::ranges::sort(expected);
        std::sort(all.begin(), all.end() - 2);
        expected.insert(expected.end(), {"-" + std::to_string(BrowseRepeat::kMany), "+late"});
        EXPECT_EQ(all, expected) << "each once, removals before additions";

        EXPECT_TRUE(log.WaitFor("All for now"));
        log.Clear();
        const ScopedConnection next = browser.impl->Browse(kDatagram, {}, {});
        EXPECT_FALSE(log.WaitFor("answer at once", 700ms)) << "a type that is browsed already needs no repeat";
    }
}

TEST_ON_AVAHI_HOST(BrowseThatEndsIsNotRepeated)
{
    LogCapture log("3,mDNS=6");
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    Backend browser;
    ASSERT_TRUE(publisher.connected.WaitFor(1) && browser.connected.WaitFor(1));
    std::list<Published> services;
    PublishMany(publisher, services);

    const auto descriptors = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = descriptors();
    {
        const ScopedConnection browse = browser.impl->Browse(kType, {}, {});
        ASSERT_TRUE(log.WaitFor("many _kova-clock._tcp answer")) << log.Text();
        EXPECT_GT(descriptors(), before);
    }
    EXPECT_EQ(descriptors(), before);
    log.Clear();
    EXPECT_FALSE(log.WaitFor("CACHE EXHAUSTED", 700ms));
    const ScopedConnection browse = browser.impl->Browse(kType, {}, {});
    ASSERT_TRUE(log.WaitFor("many _kova-clock._tcp answer")) << log.Text();
    host.KillDaemon();
    EXPECT_FALSE(log.WaitFor("avahi_service_browser", 700ms)) << log.Text();
    EXPECT_EQ(browser.restarts.Get(), 1);
}

TEST_ON_AVAHI_HOST(EndOfDaemonAndBusIsReportedOnce)
{
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend old;
    ASSERT_TRUE(old.connected.WaitFor(1));
    const Service kitchen = MakeService("Kitchen");
    Published before(old, kitchen);
    ASSERT_TRUE(before.name.WaitFor("Kitchen"));
    host.KillDaemon();
    ASSERT_TRUE(old.restarts.WaitFor(1));
    EXPECT_FALSE(old.impl->UpdateService(kitchen));
    EXPECT_FALSE(old.impl->Browse(kType, {}, {}).IsConnected());

    Backend next;
    ASSERT_TRUE(next.impl);
    host.StartDaemon();
    ASSERT_TRUE(next.connected.WaitFor(1)) << log.Text();
    Published again(next, kitchen);
    EXPECT_TRUE(again.name.WaitFor("Kitchen")) << "the old registration is gone";
    EXPECT_EQ(next.restarts.Get(), 0);
    EXPECT_EQ(old.restarts.Get(), 1);

    // The end of D-Bus is reported too. No instance can be created without D-Bus.
    host.KillBus();
    EXPECT_TRUE(next.restarts.WaitFor(1));
    EXPECT_EQ(AvahiImpl::Create({}, {}), nullptr);
    EXPECT_TRUE(log.Contains("avahi_client_new: ")) << log.Text();
}

} // namespace
