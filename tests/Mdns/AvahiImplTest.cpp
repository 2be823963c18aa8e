#include "AvahiImpl.h"

#include "AvahiHost.h"
#include "MdnsDiscoveryProtocol.h"
#include "MdnsServiceFixture.h"
#include "Sonarix.pb.h"
#include "Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <set>

using namespace MDNS;
using namespace std::chrono_literals;
using testing::Contains;
using testing::Field;
using testing::HasSubstr;

namespace
{

const char* const kType = "_kova-clock._tcp";
const char* const kDatagram = "_kova-test._udp";

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

    ~Backend()
    {
        if (impl)
        {
            impl->Stop();
        }
    }
};

/// A published service and the name that it was registered under last.
struct Published
{
    Watched<std::string> name;
    ScopedConnection connection;

    Published(Backend& backend, const Service& service)
        : connection(backend.impl->PublishService(service, [this](const Service& s) { name.Set(s.name); }))
    {
    }
};

/// The names that a browser sees now.
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
    EXPECT_TRUE(answer.WaitUntil([&](const Service& service) { return service.name == id.name && service.txt == txt; }))
        << testing::PrintToString(answer.Get().txt);
    connection.Disconnect();
    return answer.Get();
}

TEST(AvahiImplTest, WhatIsPublishedIsBrowsedAndResolvedUnderTheNameThatItGot)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    const LogCapture log("4");
    AvahiHost host;
    Backend publisher; // there before the daemon: it waits
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
        Published first(publisher, MakeService("Bath", kDatagram));
        Service other = MakeService("Bath", kDatagram);
        other.address = Network::IpAddress(4712); // the same instance twice would be no collision
        Published second(publisher, other);
        ASSERT_TRUE(clocks.names.WaitFor({accented}) && datagrams.names.WaitFor({"Hall", "Bath", "Bath #2"}))
            << log.Text();
        ASSERT_TRUE(second.name.WaitFor("Bath #2")) << "renamed before the commit\n" << log.Text();

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

        // Taken by another host, which insists.
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
        Resolve(browser, update, update.txt);
    }
    EXPECT_TRUE(clocks.names.WaitFor({})) << "withdrawn";
    EXPECT_FALSE(publisher.impl->UpdateService(MakeService("Hall", kDatagram))) << "a freed group is forgotten";
    for (const char* const refused : {"", "no text \xFF"})
    {
        EXPECT_FALSE(publisher.impl->PublishService(MakeService(refused), {}).IsConnected());
        EXPECT_FALSE(publisher.impl->UpdateService(MakeService(refused)));
        EXPECT_FALSE(browser.impl->Browse(refused, {}, {}).IsConnected());
    }
    EXPECT_FALSE(browser.impl->Resolve(MakeService("no text \xFF"), {}).IsConnected());
    EXPECT_TRUE(log.Contains("avahi_service_browser_new: ")) << log.Text();
    EXPECT_EQ(publisher.restarts.Get() + browser.restarts.Get(), 0);
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
    ASSERT_TRUE(publisher.connected.WaitFor(1));
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
        auto owned = std::make_shared<std::pair<std::shared_ptr<AvahiImpl>, std::vector<CallbackConnection>>>();
        Watched<bool> isDone{false};
        Watched<bool> isOurs{false};
        owned->first = AvahiImpl::Create({}, {});
        const auto end = [owned, &isDone, &isOurs](const ServiceId&)
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
            }
        };
        AvahiImpl& impl = *owned->first;
        owned->second = {impl.Browse(kType, end, {}), impl.Resolve(MakeService("Kitchen"), {})};
        owned.reset();
        isOurs.Set(true);
        EXPECT_TRUE(isDone.WaitFor(true)) << log.Text();
    }
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U) << log.Text();
}

/// The whole mDNS logic on the real backends beside instances of the test's own, while the daemon comes and goes.
TEST(AvahiImplTest, NothingIsLostWhenTheServiceOrTheDaemonRestarts)
{
    if (!AvahiHost::Enter())
    {
        return;
    }
    LogCapture log;
    AvahiHost host;
    host.StartDaemon();
    Backend old;
    ASSERT_TRUE(old.connected.WaitFor(1));
    const Service neighbour = MakeService("Kitchen", "_kova-lanyard._tcp");
    Published kitchen(old, neighbour);
    Published bath(old, MakeService("Bath", "_kova-lanyard._tcp"));
    ASSERT_TRUE(kitchen.name.WaitFor("Kitchen") && bath.name.WaitFor("Bath"));

    RememberingFactory factory;
    auto protocol = SonarixService::MdnsDiscoveryProtocol::Create();
    Watched<std::set<std::string>> online;
    protocol->RegisterProductStateCallback(
        [&online](const Sonarix::Product& product)
        {
            if (product.state() == SXCommon::ONLINE)
            {
                online.Change([&](auto& known) { known.insert(product.productinfo().friendlyname()); });
            }
        });
    for (int round = 0; round < 10; ++round)
    {
        EXPECT_TRUE(online.WaitFor({"Bath", "Kitchen"})) << "restart " << round << "\n" << log.Text();
        protocol->Stop();
        online.Set({});
        protocol->Start();
    }
    protocol->NetworkWentUp();
    protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Own"));
    EXPECT_TRUE(online.WaitFor({"Bath", "Kitchen", "Own"})) << log.Text();

    log.Clear();
    online.Set({});
    host.KillDaemon();
    ASSERT_TRUE(old.restarts.WaitFor(1));
    EXPECT_FALSE(old.impl->UpdateService(neighbour));
    EXPECT_FALSE(old.impl->Browse(kType, {}, {}).IsConnected());
    Backend next;
    ASSERT_TRUE(next.impl);
    host.StartDaemon();
    ASSERT_TRUE(next.connected.WaitFor(1)) << log.Text();
    Published again(next, neighbour);
    EXPECT_TRUE(again.name.WaitFor("Kitchen")) << "nothing of the dead one is left";
    EXPECT_TRUE(online.WaitFor({"Kitchen", "Own"})) << "announced and found again by itself\n" << log.Text();
    EXPECT_EQ(next.restarts.Get(), 0);
    EXPECT_EQ(old.restarts.Get(), 1);
    const auto told = [](const char* what) { return Field(&LogCapture::Line::m_text, HasSubstr(what)); };
    EXPECT_THAT(log.Lines(), Contains(told("ReconnectClient")).Times(3)) << "each is replaced once, and then sleeps";
    EXPECT_THAT(log.Lines(), Contains(told("ReconnectPublisher")).Times(1));

    // The bus itself: reported as well, but no instance can be made without it.
    host.KillBus();
    EXPECT_TRUE(next.restarts.WaitFor(1));
    EXPECT_EQ(AvahiImpl::Create({}, {}), nullptr);
    EXPECT_TRUE(log.Contains("avahi_client_new: ")) << log.Text();

    protocol->Stop();
    Watched<bool> hasStopped;
    IL::BreakThread([&hasStopped] { hasStopped.Set(true); }, factory.m_task);
    EXPECT_TRUE(hasStopped.WaitFor(true));
    IL::StopTask(factory.m_task);
}

} // namespace
