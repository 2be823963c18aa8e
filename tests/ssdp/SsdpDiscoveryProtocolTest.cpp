#include "ssdp/SsdpDiscoveryProtocol.h"

#include "http/AsyncTaskRunner.h"
#include "runtime/CallbackConnection.h"
#include "schemas/Sonarix.pb.h"
#include "tests/fakes/FakeGSSDPHandler.h"
#include "tests/support/HttpServer.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace SonarixService;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using Handler = GSSDPHandlerIF;

namespace
{

/// The protocol on a fake handler and a real HTTP server. The server answers "/hangs" after `mayAnswer`, "/busy" with a
/// 503 that asks for a retry after an hour, and all other targets with a description. The simulation tests cover the
/// times of the searches.
struct SsdpDiscoveryProtocolTest : testing::Test
{
    void Announce(const std::string& guid, const std::string& target) const
    {
        handler.resource.Send(Handler::RESOURCE_AVAILABLE, "uuid:" + guid, server.Url("/" + target), {});
    }
    /// Announces a device and two whose fetches do not end.
    void AnnounceThree()
    {
        Announce("a", "Kitchen");
        ASSERT_TRUE(Reported({"a Kitchen ONLINE"})) << log.Text();
        Announce("c", "busy");
        ASSERT_TRUE(log.WaitFor("Attempt:1 retrying GET in ")) << log.Text();
        Announce("d", "hangs");
        ASSERT_TRUE(server.Requests().WaitUntil([](const auto& all) { return all.size() == 3; }));
        reports.Set({});
    }
    /// Creates a protocol object. The list keeps the objects reachable for the leak check.
    static SsdpDiscoveryProtocol* NewProtocol()
    {
        static auto& all = *new std::vector<SsdpDiscoveryProtocol*>;
        return all.emplace_back(new SsdpDiscoveryProtocol);
    }
    bool Reported(const std::vector<std::string>& expected) const
    {
        return reports.WaitFor(expected, 20s);
    }
    std::vector<std::string> Listed() const
    {
        Sonarix::ProductList list;
        list.add_products(); // GetProductList() removes it
        protocol.GetProductList(list);
        std::vector<std::string> names;
        for (const Sonarix::Product& product : list.products())
        {
            names.push_back(product.productinfo().friendlyname());
        }
        return names;
    }

    LogCapture log{"4"};
    Watched<bool> mayAnswer{false};
    HttpServer server{
        [this](HttpServer::Exchange& exchange)
        {
            const std::string name = exchange.Asked().m_target.substr(1);
            if (name == "hangs")
            {
                mayAnswer.WaitFor(true);
            }
            const std::string body = "<friendlyName>" + name + "</friendlyName>";
            exchange.Send(name == "busy" ? HttpServer::Answer(503, {"Retry-After: 3600"})
                                         : HttpServer::Answer(200, {}, "<root><device>" + body + "</device></root>"));
        }};
    FakeGSSDPHandler handler;
    Watched<std::vector<std::string>> reports;
    /// Never destroyed: its destructor joins its task, which stops only at the end of the process.
    SsdpDiscoveryProtocol& protocol = *NewProtocol();
    const ScopedConnection connection = protocol.RegisterProductStateCallback(
        [this](const Sonarix::Product& product)
        {
            const Sonarix::ProductInfo& info = product.productinfo();
            const std::string text = info.guid() + " " + info.friendlyname() + " ";
            reports.Change([&](auto& all) { all.push_back(text + SXCommon::ProductState_Name(product.state())); });
        });
};

TEST_F(SsdpDiscoveryProtocolTest, RestartReportsDevicesOfflineAndWaitsForNoTransfer)
{
    EXPECT_THAT(Listed(), IsEmpty());
    protocol.Start("eth7");
    EXPECT_EQ(handler.iface, "eth7");
    EXPECT_THAT(handler.searches, ElementsAre("urn:schemas-upnp-org:device:MediaRenderer:1 10"));
    AnnounceThree();
    EXPECT_THAT(Listed(), testing::Contains("Kitchen"));

    const auto begin = std::chrono::steady_clock::now();
    protocol.Start("eth7");
    EXPECT_THAT(reports.Get(), ElementsAre("a Kitchen OFFLINE", "  OFFLINE", "  OFFLINE"));
    EXPECT_THAT(Listed(), IsEmpty());
    EXPECT_EQ(handler.searches.size(), 2U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s);
    reports.Set({});
    Announce("a", "Kitchen"); // the limit of fetches for one host does not count those of the old table
    ASSERT_TRUE(Reported({"a Kitchen ONLINE"})) << log.Text();
    mayAnswer.Set(true);
    protocol.Stop();
}

TEST_F(SsdpDiscoveryProtocolTest, StopDropsRunningFetches)
{
    protocol.Start("eth7");
    AnnounceThree();
    protocol.Stop();
    protocol.Stop();
    EXPECT_THAT(*handler.calls, ElementsAre("gssdp on eth7", "gssdp gone"));
    const std::vector<std::string> offline = {"a Kitchen OFFLINE", "  OFFLINE", "  OFFLINE"};
    EXPECT_TRUE(Reported(offline));
    Announce("e", "late");
    mayAnswer.Set(true);
    for (int i = 0; i < 1000 && Threads_Http::CountAsyncTasks() != 0; ++i)
    {
        std::this_thread::sleep_for(10ms); // the end of a thread causes no event
    }
    EXPECT_EQ(Threads_Http::CountAsyncTasks(), 0U);
    EXPECT_EQ(reports.Get(), offline);
    EXPECT_EQ(server.Requests().Get().size(), 3U);
}

} // namespace
