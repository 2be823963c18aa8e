#include "ssdp/AnnouncementGate.h"

#include "ssdp/Location.h"

#include "tests/support/LogCapture.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

using namespace SonarixService;
using Gate = AnnouncementGate;
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

/// An announcement as it comes, but for what a test says otherwise.
struct Packet
{
    Kind kind = Kind::NOTIFY;
    std::optional<std::string> target = kTarget;
    std::optional<std::string> nts = "ssdp:alive";
    std::optional<std::string> usn = {};
    std::optional<std::string> location = {};
    std::optional<std::string> further = {};
};

/// A gate on 10.77.0.1/16 and 192.168.1.1/24; the unit is 172.16.0.1 as well, on another interface.
struct GateTest : testing::Test
{
    GateTest()
    {
        Restart();
    }

    void Restart(const std::string& target = kTarget)
    {
        gate.Restart(target, {{{*ParseIPv4(kOwn), 0xFFFF0000}, {*ParseIPv4("192.168.1.1"), 0xFFFFFF00}},
                              {*ParseIPv4(kOwn), *ParseIPv4("192.168.1.1"), *ParseIPv4("172.16.0.1")}});
    }

    bool Admit(const Packet& packet, const std::string& from)
    {
        return gate.Admit({packet.kind, packet.target, packet.nts, packet.usn, packet.location, packet.further}, from,
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
    AnnouncementGate gate;
    std::int64_t now = 1'000'000;
};

TEST_F(GateTest, OnlyALocationThatIsFetchedFromTheSendersOwnLinkPasses)
{
    const struct
    {
        const char* from;
        const char* location;
        bool passes;
    } rows[] = {
        {kProduct, "http://10.77.0.2:8080/description.xml", true},
        {kProduct, "https://10.77.0.2", true},
        {kProduct, "http://10.77.200.9?a=b", false},
        {kProduct, "http://10.77.200.9:1/x?a=b#c@d:e", true}, // another one on the link: a bridge speaks for it
        {kProduct, "http://192.168.1.7/x", true},
        {"192.168.1.7", "http://10.77.0.2/x", true},
        {kProduct, "http://192.168.2.7/x", false},
        {kProduct, "http://8.8.8.8/x", false},
        {kProduct, "http://172.16.0.9/x", false},
        {kProduct, "http://10.77.0.0/x", false}, // the subnet's own address, and its broadcast
        {kProduct, "http://10.77.255.255/x", false},
        {kProduct, "http://127.0.0.1:8084/x", false},
        {kOwn, "http://127.0.0.1:8084/x", false},
        {kProduct, "http://10.77.0.1:8084/x", false}, // this unit, by another's word
        {kProduct, "http://192.168.1.1/x", false},
        {kOwn, "http://10.77.0.1:8084/x", true},
        {kProduct, "http://renderer.local/x", false},
        {kProduct, "http://10.77.0.2.evil/x", false},
        {kProduct, "http://10.77.0.1@10.77.0.2/x", false},
        {kProduct, "http://10.77.0.2:80@10.77.0.1/x", false},
        {kProduct, "http://10.77.0.2\\@10.77.0.1/x", false},
        {kProduct, "http://10.77.0.2:0/x", false},
        {kProduct, "http://10.77.0.2:65536/x", false},
        {kProduct, "http://10.77.0.2:/x", false},
        {kProduct, "http://010.077.0.2/x", false},
        {kProduct, "http://0x0a4d0002/x", false},
        {kProduct, "http://[::1]/x", false},
        {kProduct, "http:///x", false},
        {kProduct, "ftp://10.77.0.2/x", false},
        {kProduct, "file:///etc/passwd", false},
        {kProduct, "http://10.77.0.2/a b", false},
        {kProduct, "http://10.77.0.2/\n", false},
        {kProduct, "", false},
    };
    for (const auto& [from, location, passes] : rows)
    {
        now += 1000;
        Restart();
        EXPECT_EQ(Alive(from, "uuid:a::" + kTarget, location), passes) << from << " " << location;
        const std::string list = "<http://10.77.0.2/>, <" + std::string(location) + ">";
        EXPECT_EQ(Admit({.usn = "uuid:b::x", .further = list}, from), passes) << from << " AL " << list;
    }

    now += 1000;
    Restart();
    const std::string start = "http://10.77.0.2/";
    EXPECT_TRUE(Alive(kProduct, "uuid:a::x", start + std::string(kMaxLocationBytes - start.size(), 'x')));
    EXPECT_FALSE(Alive(kProduct, "uuid:a::x", start + std::string(kMaxLocationBytes - start.size() + 1, 'x')));
    EXPECT_FALSE(Admit({.usn = "uuid:a::x"}, kProduct)) << "no location at all";
    const std::string many = "<http://10.77.0.2/><http://10.77.0.2/><http://10.77.0.2/><http://10.77.0.2/>";
    EXPECT_TRUE(Admit({.usn = "uuid:a::x", .further = many}, kProduct));
    EXPECT_FALSE(Admit({.usn = "uuid:a::x", .further = many + "<http://10.77.0.2/>"}, kProduct));
}

TEST_F(GateTest, WhatTheBrowserWouldActOnNeedsAUsnAndASenderOnTheLink)
{
    const std::string longest(Gate::kMaxGuidBytes, 'g');
    for (const std::string& usn : {"uuid:a::" + kTarget, std::string("uuid:b"), "uuid:" + longest + "::x",
                                   "uuid:c:" + std::string(Gate::kMaxUsnBytes - 7, 'x')})
    {
        Restart(); // the bare form once a search
        EXPECT_TRUE(Alive(kProduct, usn, "http://10.77.0.2/")) << usn;
    }
    for (const std::string& usn :
         {std::string(""), std::string("nocolon"), std::string("uuid"), std::string("uuid:"), std::string("uuid::a"),
          std::string("urn:uuid:a::b"), std::string("uuid:a\n::b"), std::string("uuid:\xC3\xA9::b"),
          "uuid:" + longest + "g::x", "uuid:c:" + std::string(Gate::kMaxUsnBytes - 6, 'x')})
    {
        EXPECT_FALSE(Alive(kProduct, usn, "http://10.77.0.2/")) << usn;
        for (const char* const nts : {"ssdp:byebye", "ssdp:update", "ssdp:byebyenot"})
        {
            EXPECT_FALSE(Admit({.nts = nts, .usn = usn}, kProduct)) << nts << " " << usn;
        }
        EXPECT_FALSE(Admit({Kind::ANSWER, "x" + kTarget + "7", {}, usn, "http://10.77.0.2/"}, kProduct)) << usn;
        now += 1000;
    }
    EXPECT_EQ(gate.Refused(Gate::BAD_USN), 10U * 5U);
    for (const char* const sender : {"10.78.0.2", "192.168.2.2", "172.16.0.1", "127.0.0.1", "fe80::1", "", "10.77.0.0"})
    {
        EXPECT_FALSE(Alive(sender, "uuid:a::b", "http://10.77.0.2/")) << sender;
    }
    EXPECT_EQ(gate.Refused(Gate::OFF_LINK), 7U);

    // What the browser passes over goes by, whoever it comes from.
    const Packet search{.kind = Kind::SEARCH, .usn = "nocolon"};
    for (const Packet& packet :
         {search, Packet{.target = {}, .usn = "nocolon"}, Packet{.target = "upnp:rootdevice", .usn = "nocolon"},
          Packet{.target = "", .usn = "nocolon"}, Packet{.nts = "upnp:other", .usn = "nocolon"}})
    {
        EXPECT_TRUE(Admit(packet, "8.8.8.8"));
    }
    EXPECT_FALSE(Admit({.target = "tv\xE2\x82", .nts = "upnp:other", .usn = "uuid:a::b"}, kProduct)) << "no UTF-8";
    EXPECT_FALSE(Admit({.target = std::string(Gate::kMaxTargetBytes + 1, 'x'), .usn = "uuid:a::b"}, kProduct));
    EXPECT_EQ(gate.Refused(Gate::BAD_TARGET), 2U);

    for (const char* const target : {"ssdp:all", "urn:some.where:device:x:1"}) // in the second, "." is any character
    {
        Restart(target);
        EXPECT_FALSE(Admit({.target = "upnp:rootdevice", .usn = "nocolon"}, kProduct)) << target;
    }
    gate = {};
    EXPECT_FALSE(Admit(search, kProduct)) << "no search yet";
}

TEST_F(GateTest, AProductIsHeldByTheFirstThatAnnouncesItUntilItsGoodbye)
{
    EXPECT_FALSE(Byebye(kProduct, "a")) << "not announced";
    EXPECT_TRUE(Alive(kProduct, "a"));
    EXPECT_FALSE(Alive(kOther, "a"));
    EXPECT_FALSE(Byebye(kOther, "a"));
    EXPECT_FALSE(Admit({.nts = "ssdp:byebye", .usn = "uuid:a::something:9"}, kOther)) << "the same product";
    EXPECT_EQ(gate.Refused(Gate::HELD_BY_ANOTHER), 3U);
    EXPECT_TRUE(Alive(kProduct, "a"));
    EXPECT_TRUE(Byebye(kProduct, "a"));
    EXPECT_FALSE(Byebye(kOther, "a"));
    EXPECT_TRUE(Admit({.nts = "ssdp:byebye", .usn = "uuid:a::something:9"}, kProduct)) << "one for each of its USNs";
    EXPECT_TRUE(Alive(kOther, "a")) << "with a new address";
    EXPECT_FALSE(Byebye(kProduct, "a"));
    EXPECT_TRUE(Byebye(kOther, "a"));

    EXPECT_TRUE(Alive(kProduct, "b"));
    Restart();
    EXPECT_TRUE(Alive(kOther, "b")) << "each search begins anew";
    EXPECT_EQ(gate.Refused(Gate::NOT_ANNOUNCED), 1U);

    // The browser takes all USNs without a suffix for one, once it has had a target with a version.
    const auto bare = [this](const char* nts, const std::string& from, const char* usn)
    { return Admit({.nts = nts, .usn = usn, .location = "http://" + from + "/"}, from); };
    EXPECT_TRUE(bare("ssdp:alive", kProduct, "uuid:c"));
    EXPECT_FALSE(bare("ssdp:alive", kOther, "uuid:d"));
    EXPECT_TRUE(Alive(kOther, "e"));
    EXPECT_FALSE(bare("ssdp:byebye", kOther, "uuid:e"));
    EXPECT_TRUE(bare("ssdp:byebye", kProduct, "uuid:c"));
    gate = {};
    Restart("ssdp:all");
    EXPECT_TRUE(bare("ssdp:alive", kProduct, "uuid:c"));
    EXPECT_TRUE(bare("ssdp:alive", kOther, "uuid:d"));
}

TEST_F(GateTest, OneSenderIsBoundedByRateAndByUsnsAndAllOfThemTogether)
{
    for (int i = 0; i < 2 * Gate::kMaxMessagesPerSecond; ++i)
    {
        EXPECT_EQ(Alive(kProduct, "a"), i < Gate::kMaxMessagesPerSecond) << i;
    }
    EXPECT_TRUE(Alive(kOther, "b")) << "the others are heard";
    now += 1000;
    EXPECT_TRUE(Alive(kProduct, "a"));

    // A goodbye gives no room for another USN, or the browser's lists grow with each pair.
    for (int i = 1; i < 2 * Gate::kMaxUsnsOfSender; ++i)
    {
        EXPECT_EQ(Alive(kProduct, "a" + std::to_string(i)), i < Gate::kMaxUsnsOfSender) << i;
        EXPECT_TRUE(i >= Gate::kMaxUsnsOfSender || Byebye(kProduct, "a" + std::to_string(i)));
    }
    EXPECT_TRUE(Alive(kOther, "a1")) << "one that has left comes back elsewhere";
    now += 1000;
    EXPECT_TRUE(Alive(kProduct, "z")) << "which makes room";

    Restart();
    for (std::uint32_t i = 0; i < Gate::kMaxUsns + 100; ++i)
    {
        EXPECT_EQ(Alive(Host(i), "u" + std::to_string(i)), i < Gate::kMaxUsns) << i;
    }
    EXPECT_EQ(gate.Refused(Gate::TOO_MANY_SENDERS), 100U);
    EXPECT_FALSE(Alive(Host(0), "more"));
    EXPECT_EQ(gate.Refused(Gate::TOO_MANY_USNS), 16U + 1U);
    EXPECT_TRUE(Alive(Host(0), "u0"));
    Restart();
    EXPECT_TRUE(Alive(Host(2000), "late"));

    // Each new LOCATION, and each return after a goodbye, would cost a fetch.
    for (const bool moves : {true, false})
    {
        now += 1000;
        Restart();
        for (int i = 0; i < 2 * Gate::kMaxChangesOfProduct; ++i)
        {
            const std::string location = "http://10.77.0.2/" + std::to_string(moves ? i : 0);
            EXPECT_EQ(Alive(kProduct, "uuid:a::x", location), i <= Gate::kMaxChangesOfProduct) << moves << i;
            EXPECT_TRUE(moves || Byebye(kProduct, "a"));
        }
    }
    EXPECT_EQ(gate.Refused(Gate::CHANGES_TOO_OFTEN), 2U * (Gate::kMaxChangesOfProduct - 1));
}

TEST_F(GateTest, AReasonIsLoggedOnceAMinuteForEachSender)
{
    const auto lines = [this] { return log.Count(DPrint::LEVEL_WARNING); };
    for (int second = 0; second < 59; ++second, now += 1000)
    {
        Alive(kProduct, "nocolon\n<1>forged", "http://10.77.0.2/");
        Alive(kProduct, "uuid:a::b", "http://8.8.8.8/" + std::string(1900, 'x'));
        Alive(kOther, "uuid:a::b", "http://8.8.8.8/");
        Byebye(kOther, "unknown");
        Restart(); // the searches go on meanwhile
    }
    EXPECT_EQ(lines(), 3U) << log.Text();
    EXPECT_TRUE(log.Contains("10.77.0.2 is not heard, the LOCATION is missing or must not be fetched (1 times so far): "
                             "USN='uuid:a::b', LOCATION='http://8.8.8.8/xxx"));
    now += 1000;
    Alive(kOther, "uuid:a::b", "http://8.8.8.8/");
    EXPECT_EQ(lines(), 4U);
    EXPECT_TRUE(log.Contains("(119 times so far)")) << log.Text();

    // Forged senders do not fill the log.
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
