#include "SsdpDiscoveryProtocol.h"

#include "AsyncTaskRunner.h"
#include "FakeGSSDPHandler.h"
#include "HttpServer.h"
#include "LogCapture.h"
#include "Sonarix.pb.h"
#include "Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
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

/// The protocol object, and what it reported. It stays when the test goes: its end waits for that of its task, which
/// nobody stops before the process ends.
struct Unit
{
    Unit()
    {
        protocol->RegisterProductStateCallback(
            [this](const Sonarix::Product& product)
            {
                reports.Change(
                    [&product](std::vector<std::string>& all)
                    {
                        all.push_back(product.productinfo().guid() + " " + product.productinfo().friendlyname() + " " +
                                      SXCommon::ProductState_Name(product.state()));
                    });
            });
    }
    ~Unit()
    {
        static auto& s_all = *new std::vector<std::shared_ptr<SsdpDiscoveryProtocol>>;
        protocol->Stop();
        s_all.push_back(protocol);
    }
    std::vector<std::string> Listed() const
    {
        Sonarix::ProductList list;
        list.add_products(); // goes
        protocol->GetProductList(list);
        std::vector<std::string> names;
        for (const Sonarix::Product& product : list.products())
        {
            names.push_back(product.productinfo().friendlyname());
        }
        return names;
    }
    bool Reports(const std::vector<std::string>& expected) const
    {
        return reports.WaitUntil([&expected](const auto& all) { return all == expected; }, 20s);
    }

    Watched<std::vector<std::string>> reports;
    std::shared_ptr<SsdpDiscoveryProtocol> protocol = std::make_shared<SsdpDiscoveryProtocol>();
};

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
    Unit unit;
    EXPECT_THAT(unit.Listed(), IsEmpty());
    unit.protocol->Start("eth7");
    EXPECT_EQ(handler.iface, "eth7");
    EXPECT_THAT(handler.searches, ElementsAre("urn:schemas-upnp-org:device:MediaRenderer:1 10"));
    sighted("a", "Kitchen");
    ASSERT_TRUE(unit.Reports({"a Kitchen ONLINE"})) << log.Text();
    sighted("b", "Hall");
    ASSERT_TRUE(unit.Reports({"a Kitchen ONLINE", "b Hall ONLINE"})) << log.Text();
    EXPECT_THAT(unit.Listed(), ElementsAre("Kitchen", "Hall"));
    sighted("c", "busy");
    ASSERT_TRUE(log.WaitFor("Attempt:1 retrying GET in ")) << log.Text();
    sighted("d", "hangs");
    ASSERT_TRUE(server.Requests().WaitUntil([](const auto& all) { return all.size() == 4; }));

    const auto begin = std::chrono::steady_clock::now();
    unit.reports.Set({});
    unit.protocol->Start("eth7"); // the old table ends first
    EXPECT_THAT(unit.reports.Get(), ElementsAre("a Kitchen OFFLINE", "b Hall OFFLINE", "  OFFLINE", "  OFFLINE"));
    EXPECT_THAT(unit.Listed(), IsEmpty());
    EXPECT_EQ(handler.searches.size(), 2U);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 4s) << "no transfer is waited for";
    unit.reports.Set({});
    sighted("a", "Kitchen"); // this host has fetches of the old table under way: they do not count any more
    ASSERT_TRUE(unit.Reports({"a Kitchen ONLINE"})) << log.Text();
    unit.protocol->Stop();
    unit.protocol->Stop();
    EXPECT_TRUE(unit.Reports({"a Kitchen ONLINE", "a Kitchen OFFLINE"}));
    sighted("e", "late");
    mayGo.Set(true);
    for (int i = 0; i < 1000 && Threads_Http::CountAsyncTasks() != 0; ++i)
    {
        std::this_thread::sleep_for(10ms); // nobody tells of a thread's end
    }
    EXPECT_EQ(Threads_Http::CountAsyncTasks(), 0U);
    EXPECT_TRUE(unit.Reports({"a Kitchen ONLINE", "a Kitchen OFFLINE"}));
    EXPECT_EQ(server.Requests().Get().size(), 5U);
}

} // namespace
