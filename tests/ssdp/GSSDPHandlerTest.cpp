#include "ssdp/GSSDPHandlerIF.h"

#include "ssdp/GlibLog.h"
#include "tests/ssdp/TestLan.h"
#include "tests/support/LogCapture.h"
#include "tests/support/Watched.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

using namespace SonarixService;
using testing::ElementsAre;

namespace
{

const std::string kTarget = "urn:schemas-upnp-org:device:MediaRenderer:1";
const char* const kAlive = "ssdp:alive";
const char* const kByebye = "ssdp:byebye";

std::string Usn(const std::string& guid)
{
    return "uuid:" + guid + "::" + kTarget;
}

std::string Description(const std::string& address)
{
    return "http://" + address + ":49152/description.xml";
}

using Event = std::tuple<GSSDPHandlerIF::ResourceStatus, std::string, std::string>;
using Events = std::vector<Event>;

Event Available(const std::string& guid, const std::string& address)
{
    return {GSSDPHandlerIF::RESOURCE_AVAILABLE, Usn(guid), Description(address)};
}

Event Unavailable(const std::string& guid)
{
    return {GSSDPHandlerIF::RESOURCE_UNAVAILABLE, Usn(guid), ""};
}

/// The real handler, and all that it has published.
struct Unit
{
    explicit Unit(const char* interface = "eth0")
        : handler(GSSDPHandlerIF::Create(interface))
    {
        handler->RegisterForSearchStatus([this](GSSDPHandlerIF::SearchStatus status)
                                         { statuses.Change([status](auto& list) { list.push_back(status); }); });
        handler->RegisterForResourceStatus(
            [this](GSSDPHandlerIF::ResourceStatus status, const std::string& usn, const std::string& location)
            { events.Change([&](Events& list) { list.emplace_back(status, usn, location); }); });
    }

    bool Sees(const Events& expected)
    {
        return events.WaitUntil(
            [&expected](const Events& seen)
            {
                return std::all_of(expected.begin(), expected.end(),
                                   [&seen](const Event& event)
                                   { return std::find(seen.begin(), seen.end(), event) != seen.end(); });
            });
    }
    bool Completes(std::size_t searches)
    {
        return statuses.WaitUntil(
            [searches](const auto& list)
            {
                return std::count(list.begin(), list.end(), GSSDPHandlerIF::SEARCH_COMPLETE) ==
                       static_cast<std::ptrdiff_t>(searches);
            });
    }

    Watched<std::vector<GSSDPHandlerIF::SearchStatus>> statuses;
    Watched<Events> events;
    std::shared_ptr<GSSDPHandlerIF> handler; ///< destroyed first
};

TEST(GSSDPHandlerTest, SearchReportsKnownDevicesAgain)
{
    const LogCapture log("7");
    TestLan lan;
    lan.AddDevice("10.77.0.2", TestLan::Answer(kTarget, Usn("kitchen"), Description("10.77.0.2")));
    lan.AddDevice("10.77.0.3", TestLan::Answer(kTarget, Usn("hall"), Description("10.77.0.3")));
    lan.AddDevice("10.77.0.4",
                  TestLan::Answer("upnp:rootdevice", "uuid:tv::upnp:rootdevice", Description("10.77.0.4")));
    Unit unit;
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 2)) << log.Text(); // the search lasts at least one second
    EXPECT_FALSE(unit.handler->StartSearch(kTarget, 0)) << "a search with a time-out is not replaced";
    EXPECT_TRUE(log.Contains("StartSearch - Search already in progress"));
    ASSERT_TRUE(unit.Sees({Available("kitchen", "10.77.0.2"), Available("hall", "10.77.0.3")})) << log.Text();
    ASSERT_TRUE(unit.Completes(1));

    // Between searches, only the announcer's byebye counts, and a new announcement revokes it.
    unit.events.Set({});
    lan.Multicast("10.77.0.9", TestLan::Notify(kByebye, kTarget, Usn("kitchen"), ""));
    lan.Multicast("10.77.0.3", TestLan::Notify(kByebye, kTarget, Usn("hall"), ""));
    lan.Multicast("10.77.0.3", TestLan::Notify(kAlive, kTarget, Usn("hall"), Description("10.77.0.3")));
    ASSERT_TRUE(unit.Sees({Available("hall", "10.77.0.3")})) << log.Text();
    EXPECT_THAT(unit.events.Get(), ElementsAre(Unavailable("hall"), Available("hall", "10.77.0.3")));

    // A search without a time-out never completes, and a later one takes over.
    for (const int timeoutSec : {0, -1, 1})
    {
        unit.events.Set({});
        ASSERT_TRUE(unit.handler->StartSearch(kTarget, timeoutSec));
        ASSERT_TRUE(unit.Sees({Unavailable("kitchen"), Unavailable("hall"), Available("kitchen", "10.77.0.2"),
                               Available("hall", "10.77.0.3")}))
            << log.Text();
    }
    ASSERT_TRUE(unit.Completes(2));
    using Handler = GSSDPHandlerIF;
    EXPECT_THAT(unit.statuses.Get(),
                ElementsAre(Handler::SEARCH_IN_PROGRESS, Handler::SEARCH_COMPLETE, Handler::SEARCH_IN_PROGRESS,
                            Handler::SEARCH_IN_PROGRESS, Handler::SEARCH_IN_PROGRESS, Handler::SEARCH_COMPLETE));
    EXPECT_TRUE(
        log.Contains("GSSDPMainLoopRestartBrowser - Restarting browser on eth0 (10.77.0.1) with filter: " + kTarget));
    unit.handler.reset();
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 0U) << log.Text();
}

TEST(GSSDPHandlerTest, DatagramsThatAbortTheBrowserAreFiltered)
{
    const LogCapture log;
    TestLan lan;
    lan.AddDevice("10.77.0.2", TestLan::Answer(kTarget, Usn("first"), Description("10.77.0.2")));
    Unit unit;
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 0));
    ASSERT_TRUE(unit.Sees({Available("first", "10.77.0.2")})) << log.Text(); // the search has begun
    for (const char* const usn : {"nocolon", "uuid"})
    {
        const std::string bootIds = "BOOTID.UPNP.ORG: 1\r\nNEXTBOOTID.UPNP.ORG: 2\r\n";
        for (const char* const nts : {kAlive, kByebye, "ssdp:update", "ssdp:alivenot"})
        {
            lan.Multicast("10.77.0.2", TestLan::Notify(nts, kTarget, usn, Description("10.77.0.2"), bootIds));
        }
        lan.Multicast("10.77.0.2", TestLan::Answer("x" + kTarget + "2", usn, Description("10.77.0.2")));
        lan.Multicast("10.77.0.2", TestLan::Notify(kAlive, kTarget + "\xE2\x82", Usn("cut"), Description("10.77.0.2")));
    }
    lan.Multicast("192.168.9.9", TestLan::Notify(kAlive, kTarget, Usn("stranger"), Description("192.168.9.9")));
    lan.Multicast("10.77.0.2", TestLan::Notify(kAlive, kTarget, Usn("loopback"), Description("127.0.0.1")));
    lan.Multicast("10.77.0.2", TestLan::Notify(kAlive, kTarget, Usn("last"), Description("10.77.0.2")));
    ASSERT_TRUE(unit.Sees({Available("last", "10.77.0.2")})) << log.Text();
    EXPECT_THAT(unit.events.Get(), ElementsAre(Available("first", "10.77.0.2"), Available("last", "10.77.0.2")));
    EXPECT_TRUE(log.Contains("192.168.9.9 is ignored, the sender is not on the interface's subnets")) << log.Text();

    // Each search reads the interface's addresses again.
    TestLan::Ip("address add 192.168.9.1/24 dev eth0 label eth0:1");
    unit.events.Set({});
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 0));
    ASSERT_TRUE(unit.Sees({Available("first", "10.77.0.2")})) << log.Text();
    lan.Multicast("192.168.9.9", TestLan::Notify(kAlive, kTarget, Usn("stranger"), Description("192.168.9.9")));
    EXPECT_TRUE(unit.Sees({Available("stranger", "192.168.9.9")})) << log.Text();
}

TEST(GSSDPHandlerTest, SearchWorksAfterALinkDown)
{
    const LogCapture log;
    TestLan lan;
    lan.AddDevice("10.77.0.2", TestLan::Answer(kTarget, Usn("kitchen"), Description("10.77.0.2")));
    Unit unit;
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 1));
    ASSERT_TRUE(unit.Sees({Available("kitchen", "10.77.0.2")}) && unit.Completes(1)) << log.Text();

    TestLan::Ip("link set eth0 down");
    unit.events.Set({});
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 1));
    ASSERT_TRUE(unit.Sees({Unavailable("kitchen")}) && unit.Completes(2));
    EXPECT_TRUE(log.WaitFor("gssdp-client: Error sending SSDP packet")) << log.Text();

    TestLan::Ip("link set eth0 up");
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 1));
    EXPECT_TRUE(unit.Sees({Available("kitchen", "10.77.0.2")})) << log.Text();
}

TEST(GSSDPHandlerTest, InterfaceWithoutAnAddressRefusesEverySearch)
{
    const LogCapture log("4");
    TestLan lan;
    TestLan::Ip("address flush dev eth0 scope global"); // an IPv6 link-local address stays
    for (const char* const interface : {"nope0", "eth0"})
    {
        Unit unit(interface);
        EXPECT_TRUE(log.Contains("GSSDPMainLoop: Error creating the GSSDP handler client: ")) << log.Text();
        EXPECT_FALSE(unit.handler->StartSearch(kTarget, 1));
        EXPECT_TRUE(log.Contains("StartSearch - Not ready"));
        unit.handler.reset();
        EXPECT_THAT(unit.statuses.Get(), ElementsAre());
    }
    EXPECT_EQ(log.Count(DPrint::LEVEL_ERROR), 2U) << log.Text();
}

TEST(GSSDPHandlerTest, WarningsOfGlibAreLimited)
{
    const LogCapture log;
    TestLan lan;
    lan.AddDevice("10.77.0.9", TestLan::Answer(kTarget, Usn("first"), Description("10.77.0.9")));
    Unit unit;
    ASSERT_TRUE(unit.handler->StartSearch(kTarget, 0));
    ASSERT_TRUE(unit.Sees({Available("first", "10.77.0.9")}));
    for (int i = 0; i < 40; ++i)
    {
        const std::string address = "10.77.0." + std::to_string(2 + i % 4);
        lan.Multicast(address, TestLan::Notify(kAlive, kTarget, Usn(std::to_string(i)), Description(address),
                                               "CACHE-CONTROL: never\r\n"));
    }
    ASSERT_TRUE(unit.Sees({Available("39", "10.77.0.5")})) << log.Text();
    EXPECT_TRUE(log.Contains("Invalid 'Cache-Control' header")) << log.Text();
    EXPECT_LE(log.Count(DPrint::LEVEL_WARNING), static_cast<std::size_t>(GlibLog::kMaxLines)) << log.Text();
}

} // namespace
