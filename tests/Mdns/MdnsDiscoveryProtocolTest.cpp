#include "MdnsDiscoveryProtocol.h"

#include "AsyncCallback.h"
#include "FakeMdns.h"
#include "LogCapture.h"
#include "MdnsService.h"
#include "MdnsServiceFactory.h"
#include "MdnsServiceIF.h"
#include "RealTask.h"
#include "Simulation.h"
#include "Sonarix.pb.h"
#include "SonarixPb.pb.h"
#include "Task.h"
#include "Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

SonarixPb::Service MakeMessage(const std::string& name, const std::string& type = "_a._tcp", int port = 1)
{
    SonarixPb::Service message;
    message.mutable_id()->set_interface(-1);
    message.mutable_id()->set_protocol(SonarixPb::INET6);
    message.mutable_id()->set_name(name);
    message.mutable_id()->set_type(type);
    message.mutable_id()->set_domain("local");
    message.set_address(port);
    SonarixPb::ServiceRecords& record = *message.add_txt();
    record.set_key("K");
    record.set_value("V");
    return message;
}

SonarixPb::DeviceInfo MakeDevice(const std::string& name)
{
    SonarixPb::DeviceInfo info;
    info.set_friendlyname(name);
    info.set_devicetype("RENDERER");
    return info;
}

/// Writes down what the protocol object asks of the mDNS logic, and knows its task. Any thread.
class RecordingServices final : public MdnsServiceFactory::detail::MdnsServiceFactoryIF
{
public:
    RecordingServices()
    {
        MdnsServiceFactory::SetOverride(this);
    }
    ~RecordingServices() override
    {
        MdnsServiceFactory::SetOverride(nullptr);
    }
    std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone) override
    {
        EXPECT_TRUE(useBackend);
        EXPECT_FALSE(forceNone);
        m_task = task;
        Note("create");
        return std::make_shared<Service>(this);
    }

    void Note(const std::string& call)
    {
        const std::lock_guard lock(m_mutex);
        m_calls.push_back(call);
    }
    std::vector<std::string> Take()
    {
        const std::lock_guard lock(m_mutex);
        return std::exchange(m_calls, {});
    }

    NotifyTargetTaskIF* m_task = nullptr;
    MDNS::Service m_last;

private:
    class Service final : public MdnsServiceIF
    {
    public:
        explicit Service(RecordingServices* owner)
            : m_owner(owner)
        {
        }
        void StartService() override {}
        void StopService() override
        {
            m_owner->Note("stop");
        }
        void GetProductList(const std::string& serviceType, Callback<const Sonarix::ProductList>) override
        {
            m_owner->Note("list " + serviceType);
        }
        void BroadcastInitialDeviceAnnouncement(const SonarixPb::DeviceInfo& info) override
        {
            m_owner->Note("device " + info.friendlyname());
        }
        void BroadcastInitialAccessoryAnnouncement(const SonarixPb::DeviceInfo& info) override
        {
            m_owner->Note("accessory " + info.friendlyname());
        }
        void AddService(const MDNS::Service& s) override
        {
            m_owner->Note("add " + s.name);
            m_owner->m_last = s;
        }
        void RemoveService(const MDNS::Service& s) override
        {
            m_owner->Note("remove " + s.name);
        }
        void UpdateServiceTxtRecords(const MDNS::Service& s, Callback<bool> cb) override
        {
            m_owner->Note("update " + s.name);
            cb(true);
        }
        void RegisterForProductUpdates(const Filter_t& filter, DiscoverableDeviceType type, Callback<Sonarix::Product>,
                                       Callback<CallbackConnection, bool>) override
        {
            EXPECT_EQ(filter.kind, FILTER_ALL);
            m_owner->Note("register " + std::to_string(type));
        }

    private:
        RecordingServices* const m_owner;
    };

    std::mutex m_mutex;
    std::vector<std::string> m_calls;
};

/// The protocol object on the simulated engine, over a recorded mDNS logic. It waits for the end of its task when it
/// goes, so that the test ends the task first.
class MdnsDiscoveryProtocolTest : public testing::Test
{
protected:
    MdnsDiscoveryProtocolTest()
    {
        m_services.Take();
    }
    ~MdnsDiscoveryProtocolTest() override
    {
        IL::StopTask(m_services.m_task);
        m_protocol.reset();
    }
    std::optional<bool> Update(const SonarixPb::Service& service)
    {
        std::optional<bool> answer;
        m_protocol->UpdateServiceTxtRecords(service, [&answer](const bool& result) { answer = result; });
        return answer;
    }

    LogCapture m_log;
    IL::Simulation m_simulation{1};
    RecordingServices m_services;
    std::shared_ptr<MdnsDiscoveryProtocolIF> m_protocol = MdnsDiscoveryProtocol::Create();
};

TEST_F(MdnsDiscoveryProtocolTest, WhatIsParkedIsReplayedInItsOrder)
{
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("C")));
    EXPECT_EQ(Update(MakeMessage("B")), false) << "parked as an add, and answered at once";
    m_protocol->RemoveService(MakeMessage("Z"));
    m_protocol->RemoveService(MakeMessage("Y"));
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Y"))) << "the removal stays, the add follows it";
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("Gone")));
    m_protocol->RemoveService(MakeMessage("Gone")); // the two cancel out
    m_protocol->BroadcastInitialAccessoryAnnouncement(MakeDevice("Acc"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Old"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("New"));
    EXPECT_THAT(m_services.Take(), IsEmpty());

    m_protocol->NetworkWentUp();
    EXPECT_THAT(m_services.Take(),
                ElementsAre("device New", "accessory Acc", "remove Y", "remove Z", "add B", "add C", "add Y"));
    m_protocol->NetworkWentDown();
    m_protocol->NetworkWentUp();
    EXPECT_THAT(m_services.Take(), IsEmpty()) << "once only";
}

TEST_F(MdnsDiscoveryProtocolTest, WithTheNetworkUpEverythingIsPassedOn)
{
    m_protocol->NetworkWentUp();
    EXPECT_TRUE(m_protocol->AddService(MakeMessage("A", "_a._tcp", 0x7FFF0000 + 8090)));
    EXPECT_EQ(m_services.m_last.address, Network::IpAddress(8090)) << "the low 16 bits are the port";
    EXPECT_EQ(m_services.m_last.protocol, MDNS::Protocol::INET6);
    EXPECT_THAT(m_services.m_last.txt, ElementsAre(testing::Pair("K", "V")));
    EXPECT_EQ(Update(MakeMessage("A")), true);
    m_protocol->RemoveService(MakeMessage("A"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    m_protocol->BroadcastInitialAccessoryAnnouncement(MakeDevice("Acc"));
    m_protocol->GetProductList("_a._tcp", {});
    EXPECT_THAT(m_services.Take(),
                ElementsAre("add A", "update A", "remove A", "device D", "accessory Acc", "list _a._tcp"));
}

TEST_F(MdnsDiscoveryProtocolTest, StoppedItAnswersAtOnceAndKeepsWhatIsParked)
{
    m_protocol->RemoveService(MakeMessage("Parked"));
    m_protocol->Stop();
    m_protocol->Stop();
    int lists = 0;
    m_protocol->GetProductList("_a._tcp",
                               [&lists](const Sonarix::ProductList& list) { lists += list.products_size() + 1; });
    EXPECT_EQ(lists, 1) << "empty, before the return";

    m_protocol->NetworkWentUp(); // a fault of the caller: nothing is lost by it
    EXPECT_FALSE(m_protocol->AddService(MakeMessage("A")));
    EXPECT_TRUE(m_log.Contains("Failed to AddService , MdnsService not started yet "));
    EXPECT_EQ(Update(MakeMessage("A")), false);
    m_protocol->RemoveService(MakeMessage("A"));
    m_protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
    EXPECT_THAT(m_services.Take(), ElementsAre("stop"));

    int restarts = 0;
    m_protocol->RegisterForServiceRestartNotification(
        [&]
        {
            ++restarts;
            EXPECT_TRUE(m_protocol->AddService(MakeMessage("Back"))) << "handed in again from within the notification";
        });
    m_protocol->Start();
    m_protocol->Start();
    EXPECT_EQ(restarts, 1);
    m_protocol->NetworkWentUp();
    EXPECT_THAT(m_services.Take(), ElementsAre("create", "register 0", "register 2", "add Back", "remove Parked"));
}

/// Makes the real mDNS logic, and knows its task, which a test ends before the protocol object that waits for it.
class RealServices final : public MdnsServiceFactory::detail::MdnsServiceFactoryIF
{
public:
    RealServices()
    {
        MdnsServiceFactory::SetOverride(this);
    }
    ~RealServices() override
    {
        MdnsServiceFactory::SetOverride(nullptr);
    }
    std::shared_ptr<MdnsServiceIF> Create(NotifyTargetTaskIF* task, bool useBackend, bool forceNone) override
    {
        m_task = task;
        const auto service = std::make_shared<MdnsService>(task, useBackend, forceNone);
        service->StartService();
        return service;
    }

    NotifyTargetTaskIF* m_task = nullptr;
};

TEST(MdnsDiscoveryProtocolRoadTest, RenderersAndClocksBecomeProductsAcrossRestarts)
{
    const LogCapture log;
    IL::Simulation simulation(1);
    FakeMdns mdns;
    RealServices services;
    std::shared_ptr<MdnsDiscoveryProtocolIF> protocol = MdnsDiscoveryProtocol::Create();
    std::vector<std::string> heard;
    protocol->RegisterProductStateCallback(
        [&heard](const Sonarix::Product& product) {
            heard.push_back(SXCommon::ProductState_Name(product.state()) + " " + product.productinfo().friendlyname());
        });
    mdns.Announce(FakeMdns::MakeService("Kitchen", "_kova-lanyard._tcp"));
    mdns.Announce(FakeMdns::MakeService("Hall", "_kova-clock._tcp"));
    mdns.Announce(FakeMdns::MakeService("Accessory", "_kova-accessory._tcp"));
    simulation.RunUntilIdle();
    EXPECT_THAT(heard, ElementsAre("ONLINE Kitchen", "ONLINE Hall")) << "accessories are browsed only";

    heard.clear();
    protocol->NetworkWentUp();
    protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("Own"));
    simulation.RunUntilIdle();
    protocol->NetworkWentDown();
    simulation.RunUntilIdle();
    EXPECT_THAT(heard, ElementsAre("ONLINE Own")) << "what is published stays, browsing goes on";

    heard.clear();
    protocol->Stop();
    simulation.RunUntilIdle();
    mdns.Announce(FakeMdns::MakeService("Bath", "_kova-lanyard._tcp"));
    protocol->Start();
    simulation.RunUntilIdle();
    EXPECT_THAT(heard, testing::UnorderedElementsAre("ONLINE Bath", "ONLINE Kitchen", "ONLINE Hall"));

    mdns.Withdraw("Kitchen", "_kova-lanyard._tcp"); // on its way when the end comes
    protocol->Stop();
    simulation.RunUntilIdle();
    IL::StopTask(services.m_task);
    protocol.reset();
}

TEST(MdnsDiscoveryProtocolThreadsTest, ManyTasksAtOnceAndAnEndWithCallsInFlight)
{
    const LogCapture log;
    RecordingServices services;
    auto protocol = std::make_shared<MdnsDiscoveryProtocol>();
    std::atomic<int> restarts = 0;
    protocol->RegisterForServiceRestartNotification([&restarts] { ++restarts; });
    {
        const RealTask controller("Controller");
        const RealTask clients("Clients");
        const RealTask lists("Lists");
        for (int round = 0; round < 200; ++round)
        {
            IL::BreakThread(
                [&protocol]
                {
                    protocol->NetworkWentDown();
                    protocol->Stop();
                    protocol->Start();
                    protocol->NetworkWentUp();
                },
                controller.Get());
            IL::BreakThread(
                [&protocol, round]
                {
                    protocol->AddService(MakeMessage("A" + std::to_string(round)));
                    protocol->RemoveService(MakeMessage("A" + std::to_string(round)));
                    protocol->BroadcastInitialDeviceAnnouncement(MakeDevice("D"));
                },
                clients.Get());
            IL::BreakThread([&protocol] { protocol->GetProductList("_a._tcp", {}); }, lists.Get());
        }
        controller.Drain();
        clients.Drain();
        lists.Drain();
    }
    EXPECT_EQ(restarts, 200);
    const std::vector<std::string> calls = services.Take();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "create"), 201);

    IL::StopTask(services.m_task);
    protocol.reset();
}

} // namespace
