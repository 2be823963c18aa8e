#include "AvahiImpl.h"

#include "AvahiHost.h"
#include "LogCapture.h"
#include "MdnsServiceFactory.h"
#include "MdnsServiceIF.h"
#include "RealTask.h"
#include "Sonarix.pb.h"
#include "SonarixPb.pb.h"
#include "Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace MDNS;
using namespace std::chrono_literals;

namespace
{

const char* const kType = "_kova-clock._tcp";

Service MakeService(const std::string& name, const std::string& type = kType)
{
    return {{-1, Protocol::INET, name, type, "local"}, Network::IpAddress(4711), {{"KEY", ""}, {"GUID", "a=b"}}};
}

/// An instance with counts of what it reports. Its callbacks run on the poll thread.
struct Backend
{
    Watched<int> connected{0};
    Watched<int> restarts{0};
    std::shared_ptr<AvahiImpl> impl = AvahiImpl::Create([this] { connected.Change([](int& count) { ++count; }); },
                                                        [this] { restarts.Change([](int& count) { ++count; }); });

    bool WaitUntilConnected()
    {
        return connected.WaitUntil([](int count) { return count > 0; });
    }
    ~Backend()
    {
        if (impl)
        {
            impl->Stop();
        }
    }
};

/// A published service and the names that it was registered under.
struct Published
{
    Watched<std::vector<std::string>> names;
    CallbackConnection connection;

    Published(Backend& backend, const Service& service)
        : connection(backend.impl->PublishService(
              service, [this](const Service& registered)
              { names.Change([&registered](std::vector<std::string>& known) { known.push_back(registered.name); }); }))
    {
    }
    ~Published()
    {
        connection.Disconnect();
    }
    bool WaitFor(const std::string& name, std::chrono::milliseconds limit = 10s)
    {
        return names.WaitUntil([&name](const auto& known) { return !known.empty() && known.back() == name; }, limit);
    }
};

/// What a browser sees now, by name; the id is that of the last report.
struct Seen
{
    Watched<std::map<std::string, ServiceId>> ids;
    CallbackConnection connection;

    Seen(Backend& backend, const std::string& type)
        : connection(backend.impl->Browse(
              type,
              [this](const ServiceId& id) { ids.Change([&id](auto& known) { known.insert_or_assign(id.name, id); }); },
              [this](const ServiceId& id) { ids.Change([&id](auto& known) { known.erase(id.name); }); }))
    {
    }
    ~Seen()
    {
        connection.Disconnect();
    }
    bool WaitFor(const std::set<std::string>& names)
    {
        return ids.WaitUntil(
            [&names](const auto& known)
            {
                std::set<std::string> current;
                for (const auto& [name, id] : known)
                {
                    current.insert(name);
                }
                return current == names;
            });
    }
};

/// The host's answer to a resolve, as soon as it has such records.
Service Resolve(Backend& backend, const ServiceId& id, const std::map<std::string, std::string>& txt)
{
    Watched<Service> answer;
    const CallbackConnection connection =
        backend.impl->Resolve(id,
                              [&answer](const std::string& host, const Service& service)
                              {
                                  EXPECT_EQ(host, "lab.local");
                                  answer.Set(service);
                              });
    EXPECT_TRUE(connection.IsConnected());
    EXPECT_TRUE(answer.WaitUntil([&txt](const Service& service) { return service.txt == txt; }))
        << testing::PrintToString(answer.Get().txt);
    connection.Disconnect();
    return answer.Get();
}

TEST(AvahiImplTest, WhatIsPublishedIsBrowsedAndResolved)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    const LogCapture log;
    AvahiHost host;
    Backend publisher; // there before the daemon: it waits
    Backend browser;
    ASSERT_TRUE(publisher.impl && browser.impl);
    host.StartDaemon();
    ASSERT_TRUE(publisher.WaitUntilConnected() && browser.WaitUntilConnected()) << log.Text();

    Seen clocks(browser, kType);
    Seen datagrams(browser, "_kova-test._udp");
    {
        Published kitchen(publisher, MakeService("Kitchen. \xC3\xA9"));
        Published hall(publisher, MakeService("Hall", "_kova-test._udp"));
        ASSERT_TRUE(clocks.WaitFor({"Kitchen. \xC3\xA9"}) && datagrams.WaitFor({"Hall"})) << log.Text();
        const ServiceId id = clocks.ids.Get()["Kitchen. \xC3\xA9"];
        EXPECT_EQ(id.type, kType);
        EXPECT_EQ(id.domain, "local");
        EXPECT_GT(id.interface, 0);

        const std::map<std::string, std::string> txt{{"GUID", "a=b"}, {"KEY", ""}};
        const Service service = Resolve(browser, id, txt);
        EXPECT_EQ(static_cast<const ServiceId&>(service), id);
        EXPECT_EQ(service.address.ToString(), "127.0.0.1:4711");
        EXPECT_EQ(service.address.family(), Network::IpAddress::Family::STREAM);
        EXPECT_EQ(Resolve(browser, datagrams.ids.Get()["Hall"], txt).address.family(),
                  Network::IpAddress::Family::DATAGRAM);

        Service update = MakeService("Kitchen. \xC3\xA9");
        update.txt = {{"KEY", "new"}};
        EXPECT_TRUE(publisher.impl->UpdateService(update));
        Resolve(browser, id, update.txt);
        update.name = "Unknown";
        EXPECT_FALSE(publisher.impl->UpdateService(update));
    }
    EXPECT_TRUE(clocks.WaitFor({}) && datagrams.WaitFor({})) << "withdrawn";
    EXPECT_FALSE(publisher.impl->UpdateService(MakeService("Hall", "_kova-test._udp"))) << "a freed group is forgotten";
    EXPECT_FALSE(publisher.impl->PublishService(MakeService(""), {}).IsConnected());
    EXPECT_FALSE(browser.impl->Browse("no type", {}, {}).IsConnected());
    EXPECT_TRUE(log.Contains("avahi_service_browser_new: ")) << log.Text();
    EXPECT_EQ(publisher.restarts.Get() + browser.restarts.Get(), 0);
}

TEST(AvahiImplTest, ATakenNameGivesWayBeforeAndAfterTheCommit)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    const LogCapture log("4");
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    Backend browser;
    ASSERT_TRUE(publisher.WaitUntilConnected() && browser.WaitUntilConnected());
    Seen seen(browser, kType);

    Published first(publisher, MakeService("Kitchen"));
    Service other = MakeService("Kitchen");
    other.address = Network::IpAddress(4712); // the same instance twice would be no collision
    Published second(publisher, other);
    ASSERT_TRUE(second.WaitFor("Kitchen #2")) << "taken on this host: renamed before the commit\n" << log.Text();

    // Taken by another host, which insists.
    bool isRenamed = false;
    for (int attempt = 0; attempt < 50 && !isRenamed; ++attempt)
    {
        host.ClaimInstance("Kitchen", kType);
        isRenamed = first.WaitFor("Kitchen #3", 100ms);
    }
    EXPECT_TRUE(isRenamed) << log.Text();
    EXPECT_TRUE(log.Contains("Service Kitchen: collision"));
    EXPECT_TRUE(publisher.impl->UpdateService(MakeService("Kitchen #3")));
    other.name = "Kitchen #2";
    EXPECT_TRUE(publisher.impl->UpdateService(other));
}

TEST(AvahiImplTest, ADaemonThatDiesIsReportedOnceAndANewInstanceWaits)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend old;
    ASSERT_TRUE(old.WaitUntilConnected());
    Seen seen(old, kType);
    Published kitchen(old, MakeService("Kitchen"));

    host.KillDaemon();
    ASSERT_TRUE(old.restarts.WaitFor(1));
    EXPECT_FALSE(old.impl->UpdateService(MakeService("Kitchen")));
    EXPECT_FALSE(old.impl->Browse(kType, {}, {}).IsConnected());
    Backend next;
    ASSERT_TRUE(next.impl);
    host.StartDaemon();
    ASSERT_TRUE(next.WaitUntilConnected()) << log.Text();
    EXPECT_EQ(next.restarts.Get(), 0);
    EXPECT_EQ(old.restarts.Get(), 1);
    Published again(next, MakeService("Kitchen"));
    EXPECT_TRUE(again.WaitFor("Kitchen")) << "nothing of the dead one is left";

    // The bus itself: reported as well, but no instance can be made without it.
    host.KillBus();
    EXPECT_TRUE(next.restarts.WaitFor(1));
    EXPECT_EQ(AvahiImpl::Create({}, {}), nullptr);
    EXPECT_TRUE(log.Contains("avahi_client_new: ")) << log.Text();
}

TEST(AvahiImplTest, InstancesEndFromAnyThreadWithCallsInFlight)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    const LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend publisher;
    ASSERT_TRUE(publisher.WaitUntilConnected());
    Published kitchen(publisher, MakeService("Kitchen"));

    for (int round = 0; round < 20; ++round)
    {
        // Dropped at once, stopped or not, with a browser and a resolver that are about to call.
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
    for (int round = 0; round < 20; ++round)
    {
        // Ended from within a callback on the poll thread, which has the last reference.
        struct Everything
        {
            std::shared_ptr<AvahiImpl> impl;
            CallbackConnection browse;
            CallbackConnection resolve;
        };
        auto owned = std::make_shared<Everything>();
        Watched<bool> isDone{false};
        Watched<bool> isOurs{false};
        owned->impl = AvahiImpl::Create({}, {});
        const auto end = [owned, &isDone, &isOurs](const ServiceId&)
        {
            if (isOurs.WaitFor(true) && !isDone.Get())
            {
                owned->browse.Disconnect();
                owned->resolve.Disconnect();
                owned->impl->Stop();
                *owned = {};
                isDone.Set(true);
            }
        };
        AvahiImpl& impl = *owned->impl;
        const CallbackConnection browse = impl.Browse(kType, end, {});
        owned->resolve = impl.Resolve(MakeService("Kitchen"), {});
        owned->browse = browse;
        owned.reset();
        isOurs.Set(true);
        EXPECT_TRUE(isDone.WaitFor(true)) << log.Text();
    }
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U) << log.Text();
}

/// The whole mDNS logic on the real backends: what the rest of the service sees of a daemon that comes and goes.
TEST(AvahiImplTest, TheServiceLosesNothingWhenItOrTheDaemonRestarts)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    using SonarixService::MdnsServiceIF;
    LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    const RealTask task("MdnsTask");
    Watched<std::multiset<std::string>> online;
    const auto hears = [&online](const std::set<std::string>& names)
    {
        return online.WaitUntil([&names](const auto& known)
                                { return std::includes(known.begin(), known.end(), names.begin(), names.end()); });
    };
    CallbackConnection subscription;
    const auto start = [&]
    {
        online.Set({});
        auto service = SonarixService::MdnsServiceFactory::Create(task.Get(), true, false);
        service->RegisterForProductUpdates(
            {MdnsServiceIF::FILTER_ALL, ""}, MdnsServiceIF::RENDERER,
            [&online](const Sonarix::Product& product)
            {
                if (product.state() == SXCommon::ONLINE)
                {
                    online.Change([&](auto& known) { known.insert(product.productinfo().friendlyname()); });
                }
            },
            [&subscription](const CallbackConnection& connection, const bool&) { subscription = connection; });
        return service;
    };
    const auto stop = [&](const std::shared_ptr<MdnsServiceIF>& service)
    {
        service->StopService();
        subscription.Disconnect();
        task.Drain();
    };

    Backend neighbours;
    ASSERT_TRUE(neighbours.WaitUntilConnected());
    Published kitchen(neighbours, MakeService("Kitchen", "_kova-lanyard._tcp"));
    Published bath(neighbours, MakeService("Bath", "_kova-lanyard._tcp"));
    ASSERT_TRUE(kitchen.WaitFor("Kitchen") && bath.WaitFor("Bath"));

    for (int round = 0; round < 10; ++round)
    {
        const auto service = start();
        EXPECT_TRUE(hears({"Bath", "Kitchen"})) << "restart " << round << "\n" << log.Text();
        stop(service);
    }

    const auto service = start();
    SonarixPb::DeviceInfo info;
    info.set_friendlyname("Own");
    info.set_devicetype("RENDERER");
    service->BroadcastInitialDeviceAnnouncement(info);
    EXPECT_TRUE(hears({"Bath", "Kitchen", "Own"})) << log.Text();

    // The daemon away: each of the four backends fails and is replaced once, and then sleeps.
    log.WaitFor("established");
    task.Drain();
    const auto count = [&log](const std::string& part)
    {
        const auto lines = log.Lines();
        return std::count_if(lines.begin(), lines.end(),
                             [&part](const LogCapture::Line& line)
                             { return line.m_text.find(part) != std::string::npos; });
    };
    log.Clear();
    online.Set({});
    host.KillDaemon();
    ASSERT_TRUE(neighbours.restarts.WaitFor(1));
    EXPECT_TRUE(log.WaitFor("ReconnectPublisher"));
    EXPECT_FALSE(log.WaitFor("a line that never comes", 500ms));
    task.Drain();
    EXPECT_EQ(count("Connecting..."), 4) << log.Text();
    EXPECT_EQ(count("ReconnectClient"), 3);
    EXPECT_EQ(count("ReconnectPublisher"), 1);

    host.StartDaemon();
    EXPECT_TRUE(hears({"Own"})) << "announced and found again by itself\n" << log.Text();
    stop(service);
}

} // namespace
