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

// When it searches, and where, the simulated lives hold.
TEST(SsdpDiscoveryProtocol, AStopLeavesNothingBehindAndTheNextStartBeginsAfresh)
{
    const LogCapture log("4");
    Watched<bool> mayGo{false};
    HttpServer server(
        [&mayGo](HttpServer::Exchange& exchange)
        {
            const std::string name = exchange.Asked().m_target.substr(1);
            if (name == "hangs")
            {
                mayGo.WaitFor(true);
            }
            const std::string body = "<root><device><friendlyName>" + name + "</friendlyName></device></root>";
            exchange.Send(name == "busy" ? HttpServer::Answer(503, {"Retry-After: 3600"})
                                         : HttpServer::Answer(200, {}, body));
        });
    FakeGSSDPHandler handler;
    const auto sighted = [&](const std::string& guid, const std::string& name)
    { handler.resource.Send(Handler::RESOURCE_AVAILABLE, "uuid:" + guid, server.Url("/" + name), {}); };
    Watched<std::vector<std::string>> reports;
    const auto reported = [&reports](const std::vector<std::string>& expected)
    { return reports.WaitFor(expected, 20s); };
    // Kept: its end waits for that of its task, which nobody stops before the process ends.
    static SsdpDiscoveryProtocol& s_protocol = *new SsdpDiscoveryProtocol;
    const ScopedConnection connection = s_protocol.RegisterProductStateCallback(
        [&reports](const Sonarix::Product& product)
        {
            const Sonarix::ProductInfo& info = product.productinfo();
            const std::string text = info.guid() + " " + info.friendlyname() + " ";
            reports.Change([&](auto& all) { all.push_back(text + SXCommon::ProductState_Name(product.state())); });
        });
    const auto listed = []
    {
        Sonarix::ProductList list;
        list.add_products(); // goes
        s_protocol.GetProductList(list);
        std::vector<std::string> names;
        for (const Sonarix::Product& product : list.products())
        {
            names.push_back(product.productinfo().friendlyname());
        }
        return names;
    };
    EXPECT_THAT(listed(), IsEmpty());
    s_protocol.Start("eth7");
    EXPECT_EQ(handler.iface, "eth7");
    EXPECT_THAT(handler.searches, ElementsAre("urn:schemas-upnp-org:device:MediaRenderer:1 10"));
    sighted("a", "Kitchen");
    ASSERT_TRUE(reported({"a Kitchen ONLINE"})) << log.Text();
    sighted("b", "Hall");
    ASSERT_TRUE(reported({"a Kitchen ONLINE", "b Hall ONLINE"})) << log.Text();
    EXPECT_THAT(listed(), ElementsAre("Kitchen", "Hall"));
    sighted("c", "busy");
    ASSERT_TRUE(log.WaitFor("Attempt:1 retrying GET in ")) << log.Text();
    sighted("d", "hangs");
    ASSERT_TRUE(server.Requests().WaitUntil([](const auto& all) { return all.size() == 4; }));

    const auto begin = std::chrono::steady_clock::now();
    reports.Set({});
    s_protocol.Start("eth7"); // the old table ends first
    EXPECT_THAT(reports.Get(), ElementsAre("a Kitchen OFFLINE", "b Hall OFFLINE", "  OFFLINE", "  OFFLINE"));
    EXPECT_THAT(listed(), IsEmpty());
    EXPECT_EQ(handler.searches.size(), 2U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "no transfer is waited for";
    reports.Set({});
    sighted("a", "Kitchen"); // this host has fetches of the old table under way: they do not count any more
    ASSERT_TRUE(reported({"a Kitchen ONLINE"})) << log.Text();
    s_protocol.Stop();
    s_protocol.Stop();
    EXPECT_TRUE(reported({"a Kitchen ONLINE", "a Kitchen OFFLINE"}));
    sighted("e", "late");
    mayGo.Set(true);
    for (int i = 0; i < 1000 && Threads_Http::CountAsyncTasks() != 0; ++i)
    {
        std::this_thread::sleep_for(10ms); // nobody tells of a thread's end
    }
    EXPECT_EQ(Threads_Http::CountAsyncTasks(), 0U);
    EXPECT_TRUE(reported({"a Kitchen ONLINE", "a Kitchen OFFLINE"}));
    EXPECT_EQ(server.Requests().Get().size(), 5U);
}

} // namespace
