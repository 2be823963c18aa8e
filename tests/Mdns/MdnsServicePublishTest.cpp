#include "tests/Mdns/MdnsServiceFixture.h"

#include <gmock/gmock.h>
#include <google/protobuf/text_format.h>

#include <optional>

using namespace SonarixService;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace
{

class MdnsServicePublishTest : public MdnsServiceFixture
{
protected:
    std::vector<std::string> TakePublishCalls()
    {
        Settle();
        return ::TakePublishCalls(m_mdns);
    }
    std::optional<bool> Update(const MDNS::Service& service)
    {
        std::optional<bool> answer;
        m_service->UpdateServiceTxtRecords(service, [&answer](const bool& result) { answer = result; });
        Settle();
        return answer;
    }
};

TEST_F(MdnsServicePublishTest, AnnouncementHoldsAllTxtRecords)
{
    Start();
    SonarixPb::DeviceInfo info = MakeDevice("Kitchen");
    google::protobuf::TextFormat::Parser().MergeFromString(
        R"(manufacturer: "Kova" ecosystem: "ORB2" producttype: "T" modelname: "N" productcolor: "C")"
        R"(softwareversion: "1.2" multiroom_versions { Grouping_Version { major_version: 2 })"
        R"(ZoneControl_Version { major_version: 9 } })",
        &info);
    m_service->BroadcastInitialDeviceAnnouncement(info);
    Settle();
    const MDNS::Service* const published = m_mdns.Find("Kitchen", kRenderer);
    ASSERT_NE(published, nullptr);
    EXPECT_EQ(published->address, Network::IpAddress(8090));
    EXPECT_THAT(published->txt,
                ElementsAre(Pair("AudioControlProtocolVersion", "{}"), Pair("AudioPayloadVersion", "{}"),
                            Pair("ClockSyncProtocolVersion", "{}"), Pair("ECOSYS", "ORB2"), Pair("GUID", "g-own"),
                            Pair("GroupingVersion", R"({"major_version":2})"), Pair("MANUFACTURER", "Kova"),
                            Pair("NowPlayingVersion", "{}"), Pair("PCOLOR", "C"), Pair("PNAME", "N"),
                            Pair("PTYPE", "T"), Pair("PlaybackRequestVersion", "{}"), Pair("SWVERSION", "1.2")));

    // An accessory announcement replaces the main record.
    m_mdns.ClearCalls();
    m_service->BroadcastInitialAccessoryAnnouncement(MakeDevice("Bath"));
    EXPECT_THAT(TakePublishCalls(),
                ElementsAre("withdraw Kitchen _kova-lanyard._tcp", "publish Accessory _kova-accessory._tcp"));
    EXPECT_THAT(m_mdns.Find("Accessory", kAccessory)->txt, ElementsAre(Pair("GUID", "g-own")));

    // A device that is not a renderer has an empty type, which the backend rejects.
    info.set_devicetype("SERVER");
    m_service->BroadcastInitialDeviceAnnouncement(info);
    EXPECT_THAT(TakePublishCalls(), ElementsAre("withdraw Accessory _kova-accessory._tcp", "publish Kitchen "));
}

TEST_F(MdnsServicePublishTest, ServicesArePublishedAfterTheAnnouncement)
{
    m_mdns.KillDaemon();
    Start();
    m_service->AddService(FakeMdns::MakeService("Z", "_z._tcp"));
    EXPECT_EQ(Update(FakeMdns::MakeService("Own", kClock)), true) << "stored until the daemon runs";
    m_mdns.StartDaemon();
    EXPECT_THAT(TakePublishCalls(), IsEmpty()) << "no main record yet";

    m_service->BroadcastInitialDeviceAnnouncement(MakeDevice("Kitchen"));
    EXPECT_THAT(TakePublishCalls(), ElementsAre("publish Kitchen _kova-lanyard._tcp"))
        << "the others wait for the next running state";
    m_service->AddService(FakeMdns::MakeService("A", "_a._tcp"));
    EXPECT_THAT(TakePublishCalls(), ElementsAre("publish A _a._tcp")) << "published at once while the daemon runs";

    m_mdns.KillDaemon();
    m_mdns.StartDaemon();
    EXPECT_THAT(TakePublishCalls(), ElementsAre("withdraw Kitchen _kova-lanyard._tcp", "withdraw A _a._tcp",
                                                "publish Kitchen _kova-lanyard._tcp", "publish A _a._tcp",
                                                "publish Own _kova-clock._tcp", "publish Z _z._tcp"))
        << "the main record first, then by type";

    // After a host name collision, everything is published again.
    m_mdns.EnterRunningAgain();
    EXPECT_THAT(TakePublishCalls(),
                ElementsAre("withdraw Kitchen _kova-lanyard._tcp", "publish Kitchen _kova-lanyard._tcp",
                            "withdraw A _a._tcp", "publish A _a._tcp", "withdraw Own _kova-clock._tcp",
                            "publish Own _kova-clock._tcp", "withdraw Z _z._tcp", "publish Z _z._tcp"));
    EXPECT_EQ(m_mdns.PublishersMade(), 2);
}

TEST_F(MdnsServicePublishTest, OneServicePerTypeIsPublished)
{
    Start();
    m_service->AddService(FakeMdns::MakeService("First", "_a._tcp"));
    EXPECT_EQ(Update(FakeMdns::MakeService("New", "_b._tcp")), true);
    m_service->AddService(FakeMdns::MakeService("Second", "_a._tcp"));
    EXPECT_THAT(TakePublishCalls(), ElementsAre("publish First _a._tcp", "publish New _b._tcp",
                                                "withdraw First _a._tcp", "publish Second _a._tcp"));
    EXPECT_EQ(Update(FakeMdns::MakeService("Other", "_b._tcp")), false) << "the result of the backend";
    EXPECT_THAT(TakePublishCalls(), ElementsAre("update Other _b._tcp"));
    m_service->RemoveService(FakeMdns::MakeService("Second", "_c._tcp"));
    m_service->RemoveService(FakeMdns::MakeService("Whatever", "_a._tcp"));
    m_service->RemoveService(FakeMdns::MakeService("Whatever", "_a._tcp"));
    EXPECT_THAT(TakePublishCalls(), ElementsAre("withdraw Second _a._tcp"));
}

TEST_F(MdnsServicePublishTest, NameChangedByACollisionIsKept)
{
    Announce("Kitchen", kRenderer);
    Announce("Own", "_a._tcp");
    Start();
    m_service->BroadcastInitialDeviceAnnouncement(MakeDevice("Kitchen"));
    m_service->AddService(FakeMdns::MakeService("Own", "_a._tcp", {{"K", "1"}}));
    Settle();
    EXPECT_NE(m_mdns.Find("Kitchen #2", kRenderer), nullptr);
    EXPECT_EQ(Update(FakeMdns::MakeService("Own #2", "_a._tcp", {{"K", "2"}})), true);
    EXPECT_EQ(m_mdns.Find("Own #2", "_a._tcp")->txt.at("K"), "2");

    // An update does not change the stored service: after a daemon restart the TXT records are those of the add.
    m_mdns.ClearCalls();
    m_mdns.KillDaemon();
    m_mdns.StartDaemon();
    EXPECT_THAT(TakePublishCalls(), ElementsAre("withdraw Kitchen #2 _kova-lanyard._tcp", "withdraw Own #2 _a._tcp",
                                                "publish Kitchen #2 _kova-lanyard._tcp", "publish Own #2 _a._tcp"));
    EXPECT_EQ(m_mdns.Find("Own #2", "_a._tcp")->txt.at("K"), "1");
}

TEST_F(MdnsServicePublishTest, StopWithdrawsEverythingForGood)
{
    Start();
    m_service->BroadcastInitialDeviceAnnouncement(MakeDevice("Kitchen"));
    m_service->AddService(FakeMdns::MakeService("Own", kClock));
    Settle();
    m_mdns.EnterRunningAgain(); // its callbacks are queued before the stop
    m_service->StopService();
    m_mdns.EnterRunningAgain();
    m_mdns.KillDaemon(); // every backend calls its restart callback
    Settle();
    EXPECT_EQ(m_mdns.Find("Kitchen", kRenderer), nullptr);
    EXPECT_EQ(m_mdns.Find("Own", kClock), nullptr);
    EXPECT_TRUE(m_log.Contains("Publisher was destroyed already."));
    EXPECT_EQ(m_mdns.BrowsersMade(), 3);
    EXPECT_EQ(m_mdns.PublishersMade(), 1);
}

} // namespace
