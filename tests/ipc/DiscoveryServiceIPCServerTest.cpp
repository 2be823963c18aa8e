#include "ipc/DiscoveryServiceIPCServer.h"
#include "ipc/MdnsIPCClientHandler.h"
#include "tests/fakes/FakeDiscovery.h"
#include "tests/ipc/support/SocketClient.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TempDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <malloc.h>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

Sonarix::Product Product(const std::string& name, const std::string& type = "_kova-lanyard._tcp",
                         SXCommon::ProductState state = SXCommon::ONLINE)
{
    Sonarix::Product product;
    product.mutable_serviceid()->set_type(type);
    product.set_state(state);
    product.mutable_productinfo()->set_friendlyname(name);
    product.mutable_productinfo()->set_country("CH"); // not sent to local clients
    return product;
}

SonarixPb::Service Service(const std::string& name, const std::string& type, const std::string& value = "v")
{
    SonarixPb::Service service;
    service.mutable_id()->set_name(name);
    service.mutable_id()->set_type(type);
    SonarixPb::ServiceRecords* const record = service.add_txt();
    record->set_key("k");
    record->set_value(value);
    return service;
}

SonarixPb::ServiceId Type(const std::string& type)
{
    SonarixPb::ServiceId id;
    id.set_type(type);
    return id;
}

/// The server on real sockets, with fake discovery protocols. The test reads the fakes only after a client has received
/// a response: all its earlier requests have been handled by then.
class DiscoveryServiceIPCServerTest : public testing::Test
{
protected:
    DiscoveryServiceIPCServerTest()
    {
        ::setenv("SONARIX_RUN_DIR", m_directory.Path().c_str(), 1);
        ::setenv("SONARIX_MFG_DATA", "/nonexistent/mfg.json", 1);
        m_mdns->answerAtOnce.emplace();
        m_controller->mdns = m_mdns;
        m_controller->ssdp = m_ssdp;
    }
    ~DiscoveryServiceIPCServerTest() override
    {
        m_server->Shutdown();
        ::unsetenv("SONARIX_RUN_DIR");
    }

    void SetUp() override
    {
        m_server = std::make_shared<DiscoveryServiceIPCServer>(m_controller);
        m_server->Initialize();
    }
    SocketClient Mdns() const
    {
        return SocketClient(m_directory.Path() + "/SonarixMdnsService");
    }
    SocketClient Ssdp() const
    {
        return SocketClient(m_directory.Path() + "/SonarixSsdpService");
    }
    static void Add(SocketClient& client, const SonarixPb::Service& service, unsigned int tid = 1)
    {
        client.Request(3, tid, service);
        client.ReadAs<SonarixPb::DiscoveryServiceVoid>("RESPONSE 3 " + std::to_string(tid));
    }
    static std::string Error(SocketClient& client, const std::string& head)
    {
        return client.ReadAs<SonarixPb::DeviceDiscoveryError>(head).ShortDebugString();
    }
    static std::string Notified(SocketClient& client)
    {
        return client.ReadAs<SonarixPb::DeviceDiscovery>("NOTIFICATION 1 0").ShortDebugString();
    }
    /// Returns after all earlier requests of `client` have been handled.
    static SonarixPb::DiscoveredDeviceList Barrier(SocketClient& client)
    {
        client.Request(2, 1, Type("_barrier._tcp"));
        return client.ReadAs<SonarixPb::DiscoveredDeviceList>();
    }
    static SonarixPb::DiscoveredDeviceList ListSsdp(SocketClient& client)
    {
        client.Request(2, 1, SonarixPb::DiscoveredDeviceList());
        return client.ReadAs<SonarixPb::DiscoveredDeviceList>();
    }
    /// The calls to mDNS since the last call of this function, without those of Barrier().
    std::vector<std::string> Calls()
    {
        FakeCalls calls;
        calls.swap(*m_mdns->calls);
        std::erase(calls, "mdns GetProductList _barrier._tcp");
        return calls;
    }

    const LogCapture m_log{"4"};
    const TempDirectory m_directory;
    const std::shared_ptr<FakeMdnsDiscoveryProtocol> m_mdns = std::make_shared<FakeMdnsDiscoveryProtocol>();
    const std::shared_ptr<FakeSsdpDiscoveryProtocol> m_ssdp = std::make_shared<FakeSsdpDiscoveryProtocol>();
    const std::shared_ptr<FakeController> m_controller = std::make_shared<FakeController>();
    std::shared_ptr<DiscoveryServiceIPCServer> m_server;
};

} // namespace

TEST_F(DiscoveryServiceIPCServerTest, ListResponseHasTheDevicesAndTheRequestsTid)
{
    *m_mdns->answerAtOnce->add_products() = Product("one");
    *m_mdns->answerAtOnce->add_products() = Product("two");
    SocketClient mdns = Mdns();
    mdns.Request(2, 0xffffffff, Type("_kova-clock._tcp"));
    EXPECT_EQ(mdns.ReadAs<SonarixPb::DiscoveredDeviceList>("RESPONSE 2 4294967295").ShortDebugString(),
              R"(device { friendlyname: "one" } device { friendlyname: "two" })");
    EXPECT_THAT(*m_mdns->calls, ElementsAre("mdns GetProductList _kova-clock._tcp"));

    SocketClient ssdp = Ssdp();
    EXPECT_EQ(ListSsdp(ssdp).device_size(), 0) << "an empty table is not an error";
    *m_ssdp->list.add_products() = Product("three");
    EXPECT_EQ(ListSsdp(ssdp).ShortDebugString(), R"(device { friendlyname: "three" })");

    ssdp.Request(2, 3, Type("_kova-clock._tcp"));
    EXPECT_EQ(SocketClient::HeadOf(ssdp.Read()), "REJECT 2 3") << "wrong payload type";
    ssdp.Request(3, 3, Service("a", "_a._tcp"));
    EXPECT_EQ(ListSsdp(ssdp).device_size(), 1) << "SSDP has no request 3";
}

TEST_F(DiscoveryServiceIPCServerTest, ListRequestsBeyondTheRunningLimitAreQueued)
{
    m_mdns->answerAtOnce.reset();
    SocketClient client = Mdns();
    const auto settle = [](SocketClient& asked) { Add(asked, Service("a", "_a._tcp")); };
    constexpr unsigned int kCount = 100;
    for (unsigned int tid = 0; tid < kCount; ++tid)
    {
        client.Request(2, tid, Type("_a._tcp"));
    }
    for (unsigned int tid = 0; tid < kCount; ++tid)
    {
        settle(client); // is answered before the queued lists
        EXPECT_LE(m_mdns->WaitingLists(), MdnsIPCClientHandler::kMaxRunningLists);
        ASSERT_TRUE(m_mdns->AnswerList({}));
        EXPECT_EQ(SocketClient::HeadOf(client.Read()), "RESPONSE 2 " + std::to_string(tid));
    }

    SocketClient other = Mdns();
    settle(other);
    for (unsigned int tid = 0; tid < MdnsIPCClientHandler::kMaxQueuedLists + 5; ++tid)
    {
        client.Request(2, tid, Type("_a._tcp"));
    }
    EXPECT_TRUE(client.AwaitEnd());
    settle(other);
    while (m_mdns->AnswerList({})) // responses to the disconnected client are dropped
    {
        settle(other);
    }
}

TEST_F(DiscoveryServiceIPCServerTest, RecordsAreStoredByTypeAndAddedAfterARestart)
{
    SocketClient client = Mdns();
    Add(client, Service("a", "_a._tcp"), 11);
    Add(client, Service("b", "_b._tcp"));
    Add(client, Service("a2", "_a._tcp", "new"));
    client.Request(6, 14, Service("b", "_b._tcp", "updated")); // a successful update has no response
    client.Request(6, 15, Service("c", "_c._tcp", "never added"));
    Barrier(client);
    EXPECT_THAT(Calls(), ElementsAre("mdns AddService a _a._tcp v", "mdns AddService b _b._tcp v",
                                     "mdns AddService a2 _a._tcp new", "mdns UpdateServiceTxtRecords b _b._tcp updated",
                                     "mdns UpdateServiceTxtRecords c _c._tcp never added"));
    m_mdns->Restart();
    Barrier(client);
    EXPECT_THAT(Calls(), ElementsAre("mdns AddService a2 _a._tcp new", "mdns AddService b _b._tcp updated",
                                     "mdns AddService c _c._tcp never added"));

    SonarixPb::DeviceInfo info;
    info.set_friendlyname("announced");
    client.Request(5, 16, info);
    client.Request(4, 17, Service("whatever", "_a._tcp")); // neither has a response
    Barrier(client);
    EXPECT_THAT(Calls(),
                ElementsAre("mdns BroadcastInitialDeviceAnnouncement", "mdns RemoveService whatever _a._tcp v"));
    m_mdns->Restart();
    Barrier(client);
    EXPECT_THAT(Calls(), ElementsAre("mdns BroadcastInitialDeviceAnnouncement", "mdns AddService b _b._tcp updated",
                                     "mdns AddService c _c._tcp never added"));
    EXPECT_EQ(m_mdns->announcements.back().friendlyname(), "announced");

    // Each client has its own records. A disconnect does not remove them from the network.
    SocketClient second = Mdns();
    Add(second, Service("b", "_b._tcp", "second"));
    client.Close();
    EXPECT_TRUE(m_log.WaitFor("Removing Client. Client List new size: 1 "));
    EXPECT_THAT(Calls(), ElementsAre("mdns AddService b _b._tcp second"));
    m_mdns->Restart();
    Barrier(second);
    EXPECT_THAT(Calls(), ElementsAre("mdns AddService b _b._tcp second"));
}

TEST_F(DiscoveryServiceIPCServerTest, FailuresAreAnsweredWithAnError)
{
    m_mdns->isAccepting = false;
    SocketClient client = Mdns();
    client.Request(3, 4, Service("a", "_a._tcp"));
    const std::string failedAdd = R"(code: 0 subcode: 0 message: "AddService request Failed!")";
    EXPECT_EQ(Error(client, "RESPONSE 3 4"), failedAdd);
    client.Request(6, 5, Service("a", "_a._tcp"));
    EXPECT_EQ(Error(client, "RESPONSE 6 5"), R"(code: 0 subcode: 0 message: "Update Service Failed!")");
    Calls();
    m_mdns->Restart();
    Barrier(client);
    EXPECT_THAT(Calls(), ElementsAre("mdns AddService a _a._tcp v")) << "a failed add is repeated";

    // Without discovery protocols, list and add requests are answered with errors.
    m_controller->mdns = nullptr;
    m_controller->ssdp = nullptr;
    SocketClient orphan = Mdns();
    orphan.Request(2, 6, Type("_a._tcp"));
    EXPECT_EQ(Error(orphan, "RESPONSE 2 6"),
              R"(code: 0 subcode: 0 message: "Get DeviceList not SET!" guid: "guid.is.not.set.perhaps.x86")");
    orphan.Request(4, 7, Service("a", "_a._tcp"));
    orphan.Request(6, 7, Service("a", "_a._tcp"));
    orphan.Request(5, 7, SonarixPb::DeviceInfo());
    orphan.Request(3, 8, Service("a", "_a._tcp"));
    EXPECT_EQ(Error(orphan, "RESPONSE 3 8"), failedAdd);
    SocketClient ssdp = Ssdp();
    ssdp.Request(2, 9, SonarixPb::DiscoveredDeviceList());
    EXPECT_EQ(Error(ssdp, "RESPONSE 2 9"),
              R"(code: 0 subcode: 0 message: "Ssdp Protocol NULL" guid: "guid.is.not.set.perhaps.x86")");
}

TEST_F(DiscoveryServiceIPCServerTest, NotificationsGoToSubscribersOfTheType)
{
    SocketClient adder = Mdns();
    SocketClient announcer = Mdns();
    SocketClient idle = Mdns();
    SocketClient ssdp = Ssdp();
    Add(adder, Service("a", "_a._tcp"));
    adder.Request(4, 1, Service("a", "_a._tcp")); // a removal does not end the subscription
    announcer.Request(5, 1, SonarixPb::DeviceInfo());
    Barrier(adder);
    Barrier(announcer);
    Barrier(idle);
    ListSsdp(ssdp);

    m_mdns->Report(Product("a", "_a._tcp", SXCommon::OFFLINE));
    m_mdns->Report(Product("lanyard"));
    m_mdns->Report(Product("other", "_b._tcp"));
    m_ssdp->Report(Product("ssdp", ""));
    auto device = std::make_shared<SonarixPb::DeviceInfo>();
    device->set_friendlyname("injected");
    m_server->SendSonarixNotification(SonarixPb::INVALID, device);

    EXPECT_EQ(Notified(adder), R"(state: OFFLINE device { friendlyname: "a" })");
    EXPECT_EQ(Notified(announcer), R"(state: ONLINE device { friendlyname: "lanyard" })");
    const std::string injected = R"(state: INVALID device { friendlyname: "injected" })";
    for (SocketClient* const client : {&adder, &announcer, &idle})
    {
        EXPECT_EQ(Notified(*client), injected);
    }
    const std::vector<std::string> notified{Notified(ssdp),
                                            Notified(ssdp)}; // in either order: the report is posted to the task
    EXPECT_THAT(notified, testing::UnorderedElementsAre(R"(state: ONLINE device { friendlyname: "ssdp" })", injected));
}

TEST_F(DiscoveryServiceIPCServerTest, LogLinesNameOperationAndClient)
{
    SocketClient first = Mdns();
    SocketClient second = Mdns();
    SocketClient ssdp = Ssdp();
    Add(first, Service("a", "_a._tcp"));
    Barrier(second);
    ListSsdp(ssdp);
    second.Close();
    EXPECT_TRUE(m_log.WaitFor("Removing Client. Client List new size: 2 "));
    const std::string listener = "DiscoveryServiceIPCServerListener";
    const std::string lines[] = {
        "4 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::DiscoveryServiceIPCServer\n",
        "4 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::Initialize\n",
        "3 " + listener + "Mdns: Listen for Socket Connection on |" + m_directory.Path() + "/SonarixMdnsService|\n",
        "3 " + listener + "Ssdp: Handle New Socket Connection\n",
        "3 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::CreateMdnsClientHandler - " + listener + "Mdns_0\n",
        "3 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::CreateMdnsClientHandler - " + listener + "Mdns_1\n",
        "3 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::CreateSsdpClientHandler - " + listener + "Ssdp_0\n",
        "4 DiscoveryServiceIPCServer: DiscoveryServiceIPCServer::HandleNewClient\n",
        "3 " + listener + "Mdns_0: HandleAddServiceRequest: Adding Service _a._tcp to DeviceUpdate List.\n",
        "3 " + listener + "Mdns_1: HandleDiscoveredDeviceListRequest: Got request for serviceType: _barrier._tcp\n",
        "4 " + listener + "Mdns_1: HandleDisconnect\n",
        "3 " + listener + "Ssdp_0: RegisterForDisconnect called!\n",
        "4 " + listener + "Ssdp_0: SsdpIPCClientHandler::Initialize\n\n",
    };
    const std::string text = "\n" + m_log.Text();
    for (const std::string& line : lines)
    {
        EXPECT_THAT(text, testing::HasSubstr('\n' + line));
    }
}

TEST_F(DiscoveryServiceIPCServerTest, ShutdownDisconnectsAllClientsAndFreesThem)
{
    SocketClient mdns = Mdns();
    SocketClient ssdp = Ssdp();
    Barrier(mdns);
    ListSsdp(ssdp);
    const std::weak_ptr<DiscoveryServiceIPCServer> gone = m_server;
    m_server->Shutdown();
    m_server.reset();
    EXPECT_TRUE(gone.expired());
    EXPECT_TRUE(mdns.AwaitEnd());
    EXPECT_TRUE(ssdp.AwaitEnd());
    EXPECT_TRUE(std::filesystem::is_empty(m_directory.Path()));
    m_mdns->Report(Product("late"));
    m_mdns->Restart();
    m_ssdp->Report(Product("late"));
    EXPECT_THAT(Calls(), IsEmpty());
    EXPECT_EQ(m_controller.use_count(), 1) << "all handlers are destroyed";

    SetUp(); // the fixture shuts it down; also shows that the paths are free
}

TEST_F(DiscoveryServiceIPCServerTest, ClientsConnectAndDisconnectDuringReports)
{
    std::atomic<bool> isDone = false;
    std::thread reporting(
        [&]
        {
            const auto device = std::make_shared<SonarixPb::DeviceInfo>();
            while (!isDone)
            {
                m_mdns->Report(Product("a", "_a._tcp"));
                m_server->SendSonarixNotification(SonarixPb::ONLINE, device);
                m_ssdp->Report(Product("s"));
            }
        });
    std::atomic<int> responses = 0;
    std::vector<std::jthread> threads;
    for (int number = 0; number < 4; ++number)
    {
        threads.emplace_back(
            [&, number]
            {
                for (int round = 0; round < 50; ++round)
                {
                    SocketClient client = number % 2 == 0 ? Mdns() : Ssdp();
                    client.Request(number % 2 == 0 ? 3U : 2U, 1, Service("a", "_a._tcp"));
                    if (round % 2 == 0)
                    {
                        responses += client.Read().has_value();
                    }
                }
            });
    }
    threads.clear(); // joins them
    EXPECT_EQ(responses, 100);
    SocketClient last = Mdns();
    EXPECT_TRUE(last.Read());
    m_server->Shutdown();
    EXPECT_TRUE(last.AwaitEnd());
    isDone = true;
    reporting.join();
    m_server.reset();
    SetUp();
}

TEST_F(DiscoveryServiceIPCServerTest, FiveHundredClientsAreServedWithin8KiBEach)
{
    DPrint::SetLevels("1");
    std::list<SocketClient> warm;
    for (int count = 0; count < 10; ++count)
    {
        Barrier(warm.emplace_back(Mdns()));
    }
    warm.clear();
    SocketClient other = Mdns();
    Barrier(other);

    constexpr std::size_t kCount = 500;
    const std::size_t before = ::mallinfo2().uordblks;
    std::list<SocketClient> clients;
    for (std::size_t count = 0; count < kCount; ++count)
    {
        clients.push_back(count % 2 == 0 ? Mdns() : Ssdp());
    }
    SonarixPb::Service huge = Service(std::string(65536, 'n'), "_a._tcp", std::string(100'000, 't'));
    Add(other, huge); // IPC does not limit the size of a TXT record; mDNS does
    EXPECT_THAT(Calls(), testing::Contains(testing::EndsWith(std::string(100'000, 't'))));
    std::size_t number = 0;
    for (SocketClient& client : clients)
    {
        EXPECT_EQ((number++ % 2 == 0 ? Barrier(client) : ListSsdp(client)).device_size(), 0);
    }
    other.Request(4, 1, huge);
    Barrier(other);
    const std::size_t each = (::mallinfo2().uordblks - before) / kCount;
    EXPECT_LT(each, 8192U) << "bytes per client, both ends";
    m_server->SendSonarixNotification(SonarixPb::ONLINE, std::make_shared<SonarixPb::DeviceInfo>());
    for (SocketClient& client : clients)
    {
        EXPECT_EQ(client.ReadAs<SonarixPb::DeviceDiscovery>().state(), SonarixPb::ONLINE);
    }
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_ERROR) + m_log.Count(DPrint::LEVEL_WARNING), 0U) << m_log.Text();
}
