#include "ssdp/AnnouncementFilter.h"

#include "ssdp/Location.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using namespace SonarixService;
using Filter = AnnouncementFilter;
using Kind = SsdpMessage::Kind;

namespace
{

const std::string kTarget = "urn:schemas-upnp-org:device:MediaRenderer:1";
const char* const kOwn = "10.77.0.1";
const char* const kProduct = "10.77.0.2";
const char* const kOther = "10.77.0.3";

std::string Host(std::uint32_t number)
{
    return "10.77." + std::to_string(number / 200) + "." + std::to_string(2 + number % 200);
}

/// An announcement; a test changes some of its headers.
struct Packet
{
    Kind kind = Kind::NOTIFY;
    std::optional<std::string> target = kTarget;
    std::optional<std::string> nts = "ssdp:alive";
    std::optional<std::string> usn = {};
    std::optional<std::string> location = {};
    std::optional<std::string> further = {};
};

/// A filter for 10.77.0.1/16 and 192.168.1.1/24. The device also has 172.16.0.1, on another interface.
struct AnnouncementFilterTest : testing::Test
{
    AnnouncementFilterTest()
    {
        Restart();
    }

    void Restart(const std::string& target = kTarget)
    {
        filter.Restart(target, {{{*ParseIPv4(kOwn), 0xFFFF0000}, {*ParseIPv4("192.168.1.1"), 0xFFFFFF00}},
                                {*ParseIPv4(kOwn), *ParseIPv4("192.168.1.1"), *ParseIPv4("172.16.0.1")}});
    }

    bool Admit(const Packet& packet, const std::string& from)
    {
        return filter.Admit({packet.kind, packet.target, packet.nts, packet.usn, packet.location, packet.further}, from,
                            now);
    }
    bool Alive(const std::string& from, const std::string& usn, const std::string& location)
    {
        return Admit({.usn = usn, .location = location}, from);
    }
    bool Alive(const std::string& from, const std::string& guid)
    {
        return Alive(from, "uuid:" + guid + "::" + kTarget, "http://" + from + "/");
    }
    bool Byebye(const std::string& from, const std::string& guid)
    {
        return Admit({.nts = "ssdp:byebye", .usn = "uuid:" + guid + "::" + kTarget}, from);
    }

    LogCapture log;
    AnnouncementFilter filter;
    std::int64_t now = 1'000'000;
};

struct LocationTest : AnnouncementFilterTest
{
    void Expect(bool passes, const char* from, const std::vector<const char*>& locations)
    {
        for (const char* const location : locations)
        {
            now += 1000;
            Restart();
            EXPECT_EQ(Alive(from, "uuid:a::" + kTarget, location), passes) << from << " " << location;
            const std::string list = "<http://10.77.0.2/>, <" + std::string(location) + ">";
            EXPECT_EQ(Admit({.usn = "uuid:b::x", .further = list}, from), passes) << from << " AL " << list;
        }
    }
};

TEST_F(LocationTest, LocationMustBeInASubnetOfTheInterface)
{
    // A bridge announces other hosts of the subnet.
    Expect(true, kProduct,
           {"http://10.77.0.2:8080/description.xml", "https://10.77.0.2", "http://192.168.1.7/x",
            "http://10.77.200.9:1/x?a=b#c@d:e"});
    Expect(true, "192.168.1.7", {"http://10.77.0.2/x"});
    Expect(false, kProduct,
           {"http://10.77.200.9?a=b", "http://192.168.2.7/x", "http://8.8.8.8/x", "http://172.16.0.9/x"});
    Expect(false, kProduct, {"http://10.77.0.0/x", "http://10.77.255.255/x"}); // network and broadcast addresses
}

TEST_F(LocationTest, LocationMustNotLeadToThisDeviceOrHideItsHost)
{
    Expect(true, kOwn, {"http://10.77.0.1:8084/x"});
    Expect(false, kOwn, {"http://127.0.0.1:8084/x"});
    Expect(false, kProduct,
           {"http://127.0.0.1:8084/x",
            "http://10.77.0.1:8084/x",
            "http://192.168.1.1/x",
            "http://renderer.local/x",
            "http://10.77.0.2.evil/x",
            "http://10.77.0.1@10.77.0.2/x",
            "http://10.77.0.2:80@10.77.0.1/x",
            "http://10.77.0.2\\@10.77.0.1/x",
            "http://10.77.0.2:0/x",
            "http://10.77.0.2:65536/x",
            "http://10.77.0.2:/x",
            "http://010.077.0.2/x",
            "http://0x0a4d0002/x",
            "http://[::1]/x",
            "http:///x",
            "ftp://10.77.0.2/x",
            "file:///etc/passwd",
            "http://10.77.0.2/a b",
            "http://10.77.0.2/\n",
            ""});
}

TEST_F(AnnouncementFilterTest, LengthAndNumberOfLocationsAreLimited)
{
    const std::string start = "http://10.77.0.2/";
    EXPECT_TRUE(Alive(kProduct, "uuid:a::x", start + std::string(kMaxLocationBytes - start.size(), 'x')));
    EXPECT_FALSE(Alive(kProduct, "uuid:a::x", start + std::string(kMaxLocationBytes - start.size() + 1, 'x')));
    EXPECT_FALSE(Admit({.usn = "uuid:a::x"}, kProduct)) << "no location at all";
    const std::string many = "<http://10.77.0.2/><http://10.77.0.2/><http://10.77.0.2/><http://10.77.0.2/>";
    EXPECT_TRUE(Admit({.usn = "uuid:a::x", .further = many}, kProduct));
    EXPECT_FALSE(Admit({.usn = "uuid:a::x", .further = many + "<http://10.77.0.2/>"}, kProduct));
}

TEST_F(AnnouncementFilterTest, UsnAndSenderMustBeValid)
{
    const std::string longest(Filter::kMaxGuidBytes, 'g');
    for (const std::string& usn : {"uuid:a::" + kTarget, std::string("uuid:b"), "uuid:" + longest + "::x",
                                   "uuid:c:" + std::string(Filter::kMaxUsnBytes - 7, 'x')})
    {
        Restart(); // only one guid per search may have a USN without a suffix
        EXPECT_TRUE(Alive(kProduct, usn, "http://10.77.0.2/")) << usn;
    }
    for (const std::string& usn :
         {std::string(""), std::string("nocolon"), std::string("uuid"), std::string("uuid:"), std::string("uuid::a"),
          std::string("urn:uuid:a::b"), std::string("uuid:a\n::b"), std::string("uuid:\xC3\xA9::b"),
          "uuid:" + longest + "g::x", "uuid:c:" + std::string(Filter::kMaxUsnBytes - 6, 'x')})
    {
        EXPECT_FALSE(Alive(kProduct, usn, "http://10.77.0.2/")) << usn;
        for (const char* const nts : {"ssdp:byebye", "ssdp:update", "ssdp:byebyenot"})
        {
            EXPECT_FALSE(Admit({.nts = nts, .usn = usn}, kProduct)) << nts << " " << usn;
        }
        EXPECT_FALSE(Admit({Kind::RESPONSE, "x" + kTarget + "7", {}, usn, "http://10.77.0.2/"}, kProduct)) << usn;
        now += 1000;
    }
    EXPECT_EQ(filter.Refused(Filter::BAD_USN), 10U * 5U);
    for (const char* const sender : {"10.78.0.2", "192.168.2.2", "172.16.0.1", "127.0.0.1", "fe80::1", "", "10.77.0.0"})
    {
        EXPECT_FALSE(Alive(sender, "uuid:a::b", "http://10.77.0.2/")) << sender;
    }
    EXPECT_EQ(filter.Refused(Filter::OFF_LINK), 7U);

    // Messages that the browser ignores pass from any sender.
    const Packet search{.kind = Kind::SEARCH, .usn = "nocolon"};
    for (const Packet& packet :
         {search, Packet{.target = {}, .usn = "nocolon"}, Packet{.target = "upnp:rootdevice", .usn = "nocolon"},
          Packet{.target = "", .usn = "nocolon"}, Packet{.nts = "upnp:other", .usn = "nocolon"}})
    {
        EXPECT_TRUE(Admit(packet, "8.8.8.8"));
    }
    EXPECT_FALSE(Admit({.target = "tv\xE2\x82", .nts = "upnp:other", .usn = "uuid:a::b"}, kProduct)) << "no UTF-8";
    EXPECT_FALSE(Admit({.target = std::string(Filter::kMaxTargetBytes + 1, 'x'), .usn = "uuid:a::b"}, kProduct));
    EXPECT_EQ(filter.Refused(Filter::BAD_TARGET), 2U);

    Restart("ssdp:all");
    EXPECT_FALSE(Admit({.target = "upnp:rootdevice", .usn = "nocolon"}, kProduct));
    filter = {};
    EXPECT_FALSE(Admit(search, kProduct)) << "no search yet";
}

TEST_F(AnnouncementFilterTest, FirstAnnouncerOwnsAProductUntilItsByebye)
{
    EXPECT_FALSE(Byebye(kProduct, "a")) << "not announced";
    EXPECT_TRUE(Alive(kProduct, "a"));
    EXPECT_FALSE(Alive(kOther, "a"));
    EXPECT_FALSE(Byebye(kOther, "a"));
    EXPECT_FALSE(Admit({.nts = "ssdp:byebye", .usn = "uuid:a::something:9"}, kOther)) << "the same product";
    EXPECT_EQ(filter.Refused(Filter::OTHER_OWNER), 3U);
    EXPECT_TRUE(Alive(kProduct, "a"));
    EXPECT_TRUE(Byebye(kProduct, "a"));
    EXPECT_FALSE(Byebye(kOther, "a"));
    EXPECT_TRUE(Admit({.nts = "ssdp:byebye", .usn = "uuid:a::something:9"}, kProduct))
        << "a byebye for another USN of the product";
    EXPECT_TRUE(Alive(kOther, "a")) << "with a new address";
    EXPECT_FALSE(Byebye(kProduct, "a"));
    EXPECT_TRUE(Byebye(kOther, "a"));

    EXPECT_TRUE(Alive(kProduct, "b"));
    Restart();
    EXPECT_TRUE(Alive(kOther, "b")) << "each search clears the tables";
    EXPECT_EQ(filter.Refused(Filter::NOT_ANNOUNCED), 1U);

    // The browser treats all USNs without a suffix as one.
    const auto bare = [this](const char* nts, const std::string& from, const char* usn)
    { return Admit({.nts = nts, .usn = usn, .location = "http://" + from + "/"}, from); };
    EXPECT_TRUE(bare("ssdp:alive", kProduct, "uuid:c"));
    EXPECT_FALSE(bare("ssdp:alive", kOther, "uuid:d"));
    EXPECT_TRUE(Alive(kOther, "e"));
    EXPECT_FALSE(bare("ssdp:byebye", kOther, "uuid:e"));
    EXPECT_TRUE(bare("ssdp:byebye", kProduct, "uuid:c"));
}

TEST_F(AnnouncementFilterTest, SendersAndUsnsAndChangesAreLimited)
{
    for (int i = 0; i < 2 * Filter::kMaxMessagesPerSecond; ++i)
    {
        EXPECT_EQ(Alive(kProduct, "a"), i < Filter::kMaxMessagesPerSecond) << i;
    }
    EXPECT_TRUE(Alive(kOther, "b")) << "other senders are not affected";
    now += 1000;
    EXPECT_TRUE(Alive(kProduct, "a"));

    // A byebye does not make room for another USN, because the browser's lists grow with each new one.
    for (int i = 1; i < 2 * Filter::kMaxUsnsOfSender; ++i)
    {
        EXPECT_EQ(Alive(kProduct, "a" + std::to_string(i)), i < Filter::kMaxUsnsOfSender) << i;
        EXPECT_TRUE(i >= Filter::kMaxUsnsOfSender || Byebye(kProduct, "a" + std::to_string(i)));
    }
    EXPECT_TRUE(Alive(kOther, "a1")) << "from another address after its byebye";
    now += 1000;
    EXPECT_TRUE(Alive(kProduct, "z")) << "the other address has taken over a USN";

    Restart();
    for (std::uint32_t i = 0; i < Filter::kMaxUsns + 100; ++i)
    {
        EXPECT_EQ(Alive(Host(i), "u" + std::to_string(i)), i < Filter::kMaxUsns) << i;
    }
    EXPECT_EQ(filter.Refused(Filter::TOO_MANY_SENDERS), 100U);
    EXPECT_FALSE(Alive(Host(0), "more"));
    EXPECT_EQ(filter.Refused(Filter::TOO_MANY_USNS), 16U + 1U);
    EXPECT_TRUE(Alive(Host(0), "u0"));
    Restart();
    EXPECT_TRUE(Alive(Host(2000), "late"));

    // Each new LOCATION, and each return after a byebye, may cost a fetch.
    for (const bool moves : {true, false})
    {
        now += 1000;
        Restart();
        for (int i = 0; i < 2 * Filter::kMaxChangesOfProduct; ++i)
        {
            const std::string location = "http://10.77.0.2/" + std::to_string(moves ? i : 0);
            EXPECT_EQ(Alive(kProduct, "uuid:a::x", location), i <= Filter::kMaxChangesOfProduct) << moves << i;
            EXPECT_TRUE(moves || Byebye(kProduct, "a"));
        }
    }
    EXPECT_EQ(filter.Refused(Filter::CHANGES_TOO_OFTEN), 2U * (Filter::kMaxChangesOfProduct - 1));
}

TEST_F(AnnouncementFilterTest, ReasonIsLoggedOnceAMinuteForEachSender)
{
    const auto lines = [this] { return log.Count(DPrint::LEVEL_WARNING); };
    for (int second = 0; second < 59; ++second, now += 1000)
    {
        Alive(kProduct, "nocolon\n<1>forged", "http://10.77.0.2/");
        Alive(kProduct, "uuid:a::b", "http://8.8.8.8/" + std::string(1900, 'x'));
        Alive(kOther, "uuid:a::b", "http://8.8.8.8/");
        Byebye(kOther, "unknown");
        Restart(); // has no effect on the log
    }
    EXPECT_EQ(lines(), 3U) << log.Text();
    EXPECT_TRUE(log.Contains("10.77.0.2 is ignored, the LOCATION is missing or must not be fetched (1 times so far): "
                             "USN='uuid:a::b', LOCATION='http://8.8.8.8/xxx"));
    now += 1000;
    Alive(kOther, "uuid:a::b", "http://8.8.8.8/");
    EXPECT_EQ(lines(), 4U);
    EXPECT_TRUE(log.Contains("(119 times so far)")) << log.Text();

    // Many forged senders do not flood the log.
    for (int round = 0; round < 2; ++round)
    {
        log.Clear();
        now += RefusalLog::kLogIntervalMs;
        for (std::uint32_t i = 0; i < 1000; ++i)
        {
            Alive(Host(i), "nocolon", "");
        }
        EXPECT_EQ(lines(), RefusalLog::kMaxLoggedSenders);
    }
}

} // namespace
