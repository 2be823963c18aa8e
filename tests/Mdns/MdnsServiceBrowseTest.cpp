#include "schemas/Sonarix.pb.h"
#include "tests/Mdns/MdnsServiceFixture.h"
#include <ProtoToMarkup.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <set>

using namespace SonarixService;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace
{

/// Converts strings of the form "KEY=value".
std::map<std::string, std::string> Txt(const std::vector<std::string>& records)
{
    std::map<std::string, std::string> txt;
    for (const std::string& record : records)
    {
        const std::size_t end = record.find('=');
        txt[record.substr(0, end)] = record.substr(end + 1);
    }
    return txt;
}

class MdnsServiceBrowseTest : public MdnsServiceFixture
{
protected:
    /// Returns the products that a subscriber gets, as "STATE name guid".
    std::shared_ptr<std::vector<std::string>>
    Subscribe(MdnsServiceIF::DiscoverableDeviceType type = MdnsServiceIF::RENDERER,
              const MdnsServiceIF::Filter_t& filter = {MdnsServiceIF::FILTER_ALL, ""})
    {
        auto products = std::make_shared<std::vector<std::string>>();
        m_service->RegisterForProductUpdates(
            filter, type,
            [this, products](const Sonarix::Product& product)
            {
                m_last = product;
                products->push_back(SXCommon::ProductState_Name(product.state()) + " " +
                                    product.productinfo().friendlyname() + " " + product.productinfo().guid());
            },
            [this](const CallbackConnection& connection, const bool&) { m_connections.push_back(connection); });
        Settle();
        return products;
    }
    Sonarix::ProductList List(const std::string& type)
    {
        std::vector<Sonarix::ProductList> lists;
        m_service->GetProductList(type, [&](const Sonarix::ProductList& list) { lists.push_back(list); });
        EXPECT_THAT(lists, IsEmpty()) << "answered on the caller's task";
        Settle();
        return lists.at(0);
    }
    /// Announces services whose resolves fail.
    void AnnounceSilent(const std::vector<std::string>& names)
    {
        m_mdns.SetAnswersResolves(false);
        for (const std::string& name : names)
        {
            Announce(name, kRenderer);
            m_mdns.FallSilent(name, kRenderer);
        }
        m_mdns.SetAnswersResolves(true);
        m_mdns.AnswerResolves();
        Settle();
        m_mdns.ClearCalls();
    }
    /// Returns the pauses before each of the next `count` resolves of a name, from now on.
    const std::vector<std::chrono::milliseconds>& PausesBeforeResolves(const std::string& name, std::size_t count)
    {
        m_pauses.clear();
        std::int64_t last = m_simulation.NowMs();
        while (m_pauses.size() < count && m_simulation.RunUntil([&] { return IsResolved(name); }, 5min))
        {
            m_pauses.emplace_back(m_simulation.NowMs() - last);
            last = m_simulation.NowMs();
            m_mdns.ClearCalls();
        }
        return m_pauses;
    }
    bool IsResolved(const std::string& name) const
    {
        const std::vector<std::string>& calls = m_mdns.Calls();
        return std::any_of(calls.begin(), calls.end(),
                           [&name](const std::string& call)
                           { return call == "resolve " + name || call == "resolve again " + name; });
    }
    static testing::Matcher<std::chrono::milliseconds> Around(std::chrono::milliseconds pause)
    {
        return testing::AllOf(testing::Ge(pause * 4 / 5), testing::Le(pause * 6 / 5));
    }
    void Withdraw(const std::string& name, const std::string& type)
    {
        m_mdns.Withdraw(name, type);
        Settle();
    }
    void ReportAgain(const std::string& name)
    {
        m_mdns.ReportAgain(name, kRenderer);
        Settle();
    }

    Sonarix::Product m_last;
    std::vector<std::chrono::milliseconds> m_pauses;
};

TEST_F(MdnsServiceBrowseTest, ResolvedServiceIsAProductUntilItsRemoval)
{
    Start();
    EXPECT_THAT(m_mdns.Calls(),
                ElementsAre("browse _kova-lanyard._tcp", "browse _kova-clock._tcp", "browse _kova-accessory._tcp"));
    const auto products = Subscribe();
    Announce("Kitchen", kRenderer,
             Txt({"GUID=g-1", "MANUFACTURER=Kova", "ECOSYS=ORB2", "PTYPE=T", "PNAME=N", "PCOLOR=C", "SWVERSION=1.2",
                  "MAC=00:11", "DEVICEIP=192.168.1.1", R"(GroupingVersion={"major_version":1,"minor_version":2})",
                  "CLOCKDOMAIN=d", "LEADERELECTED=true", "BATTERY=TRUE", "CONNECTIONTYPE=WIFI"}));
    EXPECT_THAT(*products, ElementsAre("ONLINE Kitchen g-1"));
    EXPECT_EQ(
        ProtoToMarkup::ToJson(m_last, true, false, false),
        R"({"protocols":["MDNS"],"serviceid":{"type":"_kova-lanyard._tcp"},"state":"ONLINE","productinfo":{)"
        R"("macaddress":"00:11","ipaddress":"10.0.0.9","guid":"g-1","friendlyname":"Kitchen","manufacturer":"Kova",)"
        R"("modelname":"N","ecosystem":"ORB2","producttype":"T","productcolor":"C","softwareversion":"1.2",)"
        R"("multiroom":{"Grouping_Version":{"major_version":1,"minor_version":2}},)"
        R"("clockinfo":{"connection":"WIFI","clockdomain":"d","leaderelected":true,"hasbattery":false}}})");

    // A late subscriber gets the known product, and a list holds the same.
    EXPECT_THAT(*Subscribe(), ElementsAre("ONLINE Kitchen g-1"));
    ASSERT_THAT(List(kRenderer).products(), SizeIs(1));
    EXPECT_EQ(List(kRenderer).products(0).SerializeAsString(), m_last.SerializeAsString());

    ReportAgain("Kitchen"); // as for a second interface: resolved and reported again
    EXPECT_THAT(*products, ElementsAre("ONLINE Kitchen g-1", "ONLINE Kitchen g-1"));
    m_connections.back().Disconnect(); // the late subscriber leaves
    Withdraw("Kitchen", kRenderer);
    EXPECT_THAT(*products, SizeIs(3));
    EXPECT_EQ(products->back(), "OFFLINE Kitchen g-1") << "the removal carries the last records";
    EXPECT_THAT(List(kRenderer).products(), IsEmpty());
}

TEST_F(MdnsServiceBrowseTest, LateResolveResultsAreIgnored)
{
    Start();
    const auto products = Subscribe();
    m_mdns.SetAnswersResolves(false);
    Announce("Kitchen", kRenderer, {{"GUID", "g-1"}});
    ReportAgain("Kitchen"); // cancels the running resolve
    EXPECT_EQ(m_mdns.PendingResolves(), 2U);
    m_mdns.AnswerResolves();
    Settle();
    EXPECT_THAT(*products, SizeIs(1));

    ReportAgain("Kitchen");
    m_mdns.ReportGone("Kitchen", kRenderer);
    m_mdns.AnswerResolves(); // queued when the removal runs
    Settle();
    EXPECT_THAT(*products, ElementsAre("ONLINE Kitchen g-1", "OFFLINE Kitchen g-1"));
    EXPECT_THAT(List(kRenderer).products(), IsEmpty());

    // A service that is removed before it was resolved gives no product.
    Announce("Bath", kRenderer);
    Withdraw("Bath", kRenderer);
    m_mdns.AnswerResolves();
    Settle();
    EXPECT_THAT(*products, SizeIs(2));
    EXPECT_TRUE(m_log.Contains("No callbacks for removed Service"));

    // A failure that arrives after a new report has started another resolve is ignored.
    Announce("Hall", kRenderer, {{"GUID", "g-3"}});
    m_mdns.FallSilent("Hall", kRenderer);
    m_mdns.ReportAgain("Hall", kRenderer);
    m_mdns.AnswerResolves();
    Settle();
    EXPECT_THAT(*products, SizeIs(2));
    m_mdns.Announce(FakeMdns::MakeService("Hall", kRenderer, {{"GUID", "g-3"}}));
    m_mdns.AnswerResolves();
    Settle();
    EXPECT_THAT(*products, SizeIs(3));
    EXPECT_EQ(products->back(), "ONLINE Hall g-3");
}

TEST_F(MdnsServiceBrowseTest, SubscribersGetTheProductsOfTheirFilter)
{
    Start();
    const auto byName = Subscribe(MdnsServiceIF::RENDERER, {MdnsServiceIF::FILTER_NAME, "itch"});
    const auto byMac = Subscribe(MdnsServiceIF::RENDERER, {MdnsServiceIF::FILTER_MAC, "00:11"});
    const auto byUnknown = Subscribe(MdnsServiceIF::RENDERER, {7, "Kitchen"});
    const auto all = Subscribe();
    const auto servers = Subscribe(MdnsServiceIF::SERVER);
    const auto clocks = Subscribe(MdnsServiceIF::CLOCK);
    const auto accessories = Subscribe(MdnsServiceIF::ACCESSORY);
    Announce("Kitchen", kRenderer, {{"GUID", "g-1"}, {"MAC", "00:11:22"}});
    Announce("Bath", kRenderer, {{"GUID", "g-2"}, {"MAC", "00:11"}});
    Announce("Hall", kClock, {{"GUID", "g-3"}});
    Announce("Accessory", kAccessory, {{"GUID", "g-4"}});
    EXPECT_THAT(*byName, ElementsAre("ONLINE Kitchen g-1"));
    EXPECT_THAT(*byMac, ElementsAre("ONLINE Bath g-2"));
    EXPECT_THAT(*byUnknown, IsEmpty());
    EXPECT_THAT(*all, ElementsAre("ONLINE Kitchen g-1", "ONLINE Bath g-2"));
    EXPECT_THAT(*servers, IsEmpty());
    EXPECT_THAT(*clocks, ElementsAre("ONLINE Hall g-3"));
    EXPECT_THAT(*accessories, ElementsAre("ONLINE Accessory g-4"));

    // A failed resolve has no TXT records: a MAC filter does not match it, and the product has no guid.
    m_mdns.FallSilent("Bath", kRenderer);
    ReportAgain("Bath");
    EXPECT_THAT(*byMac, SizeIs(1));
    EXPECT_EQ(all->back(), "OFFLINE Bath ");
    EXPECT_THAT(List(kRenderer).products(), SizeIs(2)) << "the table keeps the last resolved service";

    // The same name with two types is one entry.
    Announce("Kitchen", kClock, {{"GUID", "g-1"}});
    EXPECT_THAT(List(kRenderer).products(), SizeIs(1)) << "the type resolved last owns the entry";
    EXPECT_THAT(List(kClock).products(), SizeIs(2));
    Withdraw("Kitchen", kRenderer);
    EXPECT_THAT(List(kClock).products(), SizeIs(1)) << "the removal of either erases it";
}

TEST_F(MdnsServiceBrowseTest, ClocksAreResolvedEveryFiveMinutes)
{
    Start();
    m_service->AddService(FakeMdns::MakeService("Own", kClock, {{"GUID", "own"}}));
    Settle();
    m_service->BroadcastInitialDeviceAnnouncement({});
    const auto products = Subscribe(MdnsServiceIF::CLOCK);
    Announce("Peer", kClock, {{"GUID", "g-1"}, {"LEADERELECTED", "false"}});
    EXPECT_THAT(*products, ElementsAre("ONLINE Own own", "ONLINE Peer g-1"));

    // Each discovery restarts the period of five minutes.
    m_simulation.RunFor(299s);
    Announce("Other", kClock, {{"GUID", "g-2"}});
    m_simulation.RunFor(299s);
    EXPECT_THAT(*products, SizeIs(3));
    m_mdns.Announce(FakeMdns::MakeService("Peer", kClock, {{"GUID", "g-1"}, {"LEADERELECTED", "true"}}));
    m_mdns.FallSilent("Other", kClock);
    m_simulation.RunFor(1s);
    EXPECT_THAT(*products, ElementsAre("ONLINE Own own", "ONLINE Peer g-1", "ONLINE Other g-2", "OFFLINE Other ",
                                       "ONLINE Peer g-1"))
        << "every clock except the own one";
    EXPECT_TRUE(m_last.productinfo().clockinfo().leaderelected());

    // A clock service whose resolve failed is resolved again before the next period ends, and at its end.
    m_mdns.Announce(FakeMdns::MakeService("Other", kClock, {{"GUID", "g-2"}}));
    m_simulation.RunFor(6s);
    EXPECT_THAT(*products, SizeIs(6));
    EXPECT_EQ(products->back(), "ONLINE Other g-2");
    m_simulation.RunFor(293s);
    EXPECT_THAT(*products, SizeIs(6));
    m_simulation.RunFor(1s);
    EXPECT_THAT(*products, SizeIs(8));
}

TEST_F(MdnsServiceBrowseTest, ClockResolvesEndWithTheLastClock)
{
    Start();
    Announce("Peer", kClock);
    Announce("Other", kClock);
    Withdraw("Peer", kClock);
    Withdraw("Other", kClock);
    m_mdns.ClearCalls();
    m_simulation.RunFor(1h);
    EXPECT_THAT(m_mdns.Calls(), IsEmpty());
    Announce("Peer", kClock, {{"GUID", "g-1"}});
    m_simulation.RunFor(300s);
    EXPECT_THAT(m_mdns.Calls(), ElementsAre("resolve Peer", "resolve Peer"));
}

TEST_F(MdnsServiceBrowseTest, FailedResolveIsRepeatedUntilItSucceeds)
{
    Start();
    const auto products = Subscribe();
    AnnounceSilent({"Kitchen"});
    EXPECT_THAT(*products, ElementsAre("OFFLINE Kitchen "));
    EXPECT_THAT(PausesBeforeResolves("Kitchen", 8), ElementsAre(Around(5s), Around(10s), Around(20s), Around(40s),
                                                                Around(60s), Around(60s), Around(60s), Around(60s)));
    EXPECT_THAT(std::set(m_pauses.begin() + 4, m_pauses.end()), SizeIs(testing::Gt(1))) << "no jitter";
    EXPECT_THAT(*products, SizeIs(1)) << "OFFLINE is sent once";

    ReportAgain("Kitchen"); // as for another interface: resolved at once, then with short pauses
    EXPECT_THAT(PausesBeforeResolves("Kitchen", 3), ElementsAre(0ms, Around(5s), Around(10s)));
    EXPECT_THAT(*products, SizeIs(1));
    m_mdns.Announce(FakeMdns::MakeService("Kitchen", kRenderer, {{"GUID", "g-1"}}));
    m_simulation.RunFor(25s);
    EXPECT_THAT(*products, ElementsAre("OFFLINE Kitchen ", "ONLINE Kitchen g-1"));
    m_mdns.ClearCalls();
    const std::uint64_t events = m_simulation.Events();
    m_simulation.RunFor(1h);
    EXPECT_EQ(m_simulation.Events(), events) << "a wake-up while everything is resolved";

    // After a success the pauses start again with the shortest.
    m_mdns.FallSilent("Kitchen", kRenderer);
    ReportAgain("Kitchen");
    EXPECT_THAT(PausesBeforeResolves("Kitchen", 3), ElementsAre(0ms, Around(5s), Around(10s)));
    EXPECT_THAT(*products, ElementsAre("OFFLINE Kitchen ", "ONLINE Kitchen g-1", "OFFLINE Kitchen "));
}

TEST_F(MdnsServiceBrowseTest, RetriesEndWithRemovalBackendAndService)
{
    Start();
    AnnounceSilent({"Kitchen", "Bath"});
    Withdraw("Kitchen", kRenderer);
    m_mdns.ClearCalls();
    m_simulation.RunFor(25s);
    EXPECT_THAT(m_mdns.Calls(), ElementsAre("resolve again Bath", "resolve again Bath"));
    m_mdns.KillDaemon();
    m_mdns.ClearCalls();
    m_simulation.RunFor(1h);
    EXPECT_THAT(m_mdns.Calls(), testing::Not(testing::Contains(testing::HasSubstr("Bath"))));
    m_mdns.StartDaemon();
    Settle();
    m_service->StopService();
    Settle();
    m_mdns.ClearCalls();
    m_simulation.RunFor(1h);
    EXPECT_THAT(m_mdns.Calls(), IsEmpty());
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_ERROR), 0U) << m_log.Text();
}

TEST_F(MdnsServiceBrowseTest, StopCancelsResolvesBeforeTheirHandles)
{
    Start();
    const auto products = Subscribe();
    m_mdns.SetAnswersResolves(false);
    Announce("Kitchen", kRenderer);
    m_mdns.ClearCalls();
    m_service->StopService();
    Settle();
    m_mdns.AnswerResolves();
    Settle();
    EXPECT_THAT(m_mdns.Calls(), testing::Contains("cancel resolves").Times(3));
    EXPECT_THAT(*products, IsEmpty());
}

TEST_F(MdnsServiceBrowseTest, ResolveThatFailsToStartIsRepeated)
{
    Start();
    const auto products = Subscribe();
    m_mdns.SetRefusesResolves(true);
    Announce("Refused", kRenderer, {{"GUID", "g-2"}});
    m_mdns.SetRefusesResolves(false);
    EXPECT_THAT(*products, IsEmpty()) << "a refused resolve says nothing about the product";
    m_mdns.ClearCalls();
    m_simulation.RunFor(6s);
    EXPECT_THAT(m_mdns.Calls(), ElementsAre("resolve again Refused"));
    EXPECT_THAT(*products, ElementsAre("ONLINE Refused g-2"));
}

TEST_F(MdnsServiceBrowseTest, WarnsOnceWhenTheDaemonsCacheIsNearlyFull)
{
    Start();
    auto announceUpTo = [this, n = std::size_t{0}](std::size_t count) mutable
    {
        for (; n < count; ++n)
        {
            m_mdns.Announce(FakeMdns::MakeService(std::to_string(n), n % 2 == 0 ? kRenderer : kClock));
        }
        for (; n > count; --n)
        {
            m_mdns.Withdraw(std::to_string(n - 1), (n - 1) % 2 == 0 ? kRenderer : kClock);
        }
        Settle();
    };
    announceUpTo(MdnsService::kManyServices - 1);
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 0U) << m_log.Text();
    announceUpTo(MdnsService::kManyServices + 100);
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1U) << "the types count together";
    EXPECT_TRUE(m_log.Contains("cache-entries-max"));
    announceUpTo(MdnsService::kManyNoMore);
    announceUpTo(MdnsService::kManyServices);
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1U) << "not below kManyNoMore yet";
    announceUpTo(MdnsService::kManyNoMore - 1);
    announceUpTo(MdnsService::kManyServices);
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 2U);
}

TEST_F(MdnsServiceBrowseTest, HostileTxtRecordsAffectOnlyTheirOwnFields)
{
    Start();
    const auto products = Subscribe();
    const std::string binary("\x00\xFF\x80\xC0\xAF", 5);
    Announce("Bad \xFF name", kRenderer,
             Txt({"GUID=g-1", "=nothing", "PNAME=" + binary, "ECOSYS=", binary + "=x",
                  "PCOLOR=" + std::string(255, 'x'), "SWVERSION=\xED\xA0\x80", "AudioPayloadVersion=1.2",
                  R"(GroupingVersion={"major_version":99999999999})", R"(NowPlayingVersion=[{"major_version":1}])",
                  R"(ClockSyncProtocolVersion={"major_version":3,"else":[[[1]]]})",
                  "PlaybackRequestVersion=" + std::string(255, '[')}));
    EXPECT_THAT(*products, ElementsAre("ONLINE Bad \xEF\xBF\xBD name g-1"));
    const Sonarix::ProductInfo& info = m_last.productinfo();
    EXPECT_FALSE(info.has_modelname());
    EXPECT_FALSE(info.has_softwareversion());
    EXPECT_EQ(info.productcolor().size(), 255U);
    EXPECT_TRUE(info.has_ecosystem());
    EXPECT_EQ(info.multiroom().clocksync_protocol_version().major_version(), 3);
    EXPECT_EQ(info.multiroom().ByteSizeLong(), 4U) << info.multiroom().ShortDebugString();

    Announce("Good", kRenderer, {{"GUID", "g-2"}});
    EXPECT_NO_THROW(ProtoToMarkup::ToJson(List(kRenderer), true, false, false));
    ReportAgain("Bad \xFF name"); // unchanged records cause no second warning
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_ERROR), 0U) << m_log.Text();
    EXPECT_EQ(m_log.Count(DPrint::LEVEL_WARNING), 1U) << m_log.Text();
    EXPECT_TRUE(m_log.Contains("PNAME SWVERSION AudioPayloadVersion NowPlayingVersion PlaybackRequestVersion "
                               "GroupingVersion"))
        << m_log.Text();
}

} // namespace
