// What is said of the links, and that a new gateway hears it too.
#include "FakeGateway.h"
#include "NetManager.pb.h"
#include "Publisher.h"
#include "StatusBuilder.h"
#include "Task.h"
#include "WifiBands.h"

#include <gtest/gtest.h>

using NetManager::Protobuf::NetworkStatus;
using nlohmann::json;

namespace
{

Link MakeLink(const std::string& name, LinkType type, bool hasCarrier, const std::string& address)
{
    Link link;
    link.name = name;
    link.mac = "0011223344AA";
    link.type = type;
    link.hasCarrier = hasCarrier;
    link.address = address;
    link.netmask = address.empty() ? "" : "255.255.255.0";
    link.broadcast = address.empty() ? "" : "10.0.0.255";
    return link;
}

Link Wired(const std::string& name, bool hasCarrier, const std::string& address = "")
{
    return MakeLink(name, LinkType::WIRED, hasCarrier, address);
}

/// "WIRED_ETH up 10.0.0.1 eth0", in terms of what a reader takes: the first interface of the primary's type.
std::string Primary(const NetworkStatus& status)
{
    EXPECT_TRUE(status.has_primary());
    EXPECT_TRUE(status.has_isprimaryup());
    std::string text = NetManager::Protobuf::NetworkType_Name(status.primary());
    text += status.isprimaryup() ? " up" : " down";
    text += status.has_primaryipaddress() ? " " + status.primaryipaddress() : "";
    for (const auto& interface : status.interfaces())
    {
        if (interface.type() == status.primary())
        {
            return text + " " + interface.name();
        }
    }
    return text;
}

} // namespace

TEST(NetworkStatus, PrimaryIsUpWithCarrierAndAddressOnly)
{
    StatusBuilder builder("");
    EXPECT_EQ(Primary(builder.Build({})), "WIRED_ETH down");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", false)})), "WIRED_ETH down eth0");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", true)})), "WIRED_ETH down eth0");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", false, "10.0.0.1")})), "WIRED_ETH down eth0");
    const NetworkStatus up = builder.Build({Wired("eth0", true, "10.0.0.1")});
    EXPECT_EQ(Primary(up), "WIRED_ETH up 10.0.0.1 eth0");
    EXPECT_EQ(up.interfaces(0).ShortDebugString(),
              R"(macAddress: "0011223344AA" state: UP type: WIRED_ETH name: "eth0" )"
              R"(ipInfo { ipAddress: "10.0.0.1" broadcastAddress: "10.0.0.255" subnetMask: "255.255.255.0" })");
}

TEST(NetworkStatus, PrimaryIsTheFirstWiredOneWithCarrierAndStaysWhileItWorks)
{
    StatusBuilder builder("");
    const Link wifi = MakeLink("wlan0", LinkType::WIRELESS, true, "10.1.0.1");
    EXPECT_EQ(Primary(builder.Build({wifi, Wired("eth0", false), Wired("eth1", true, "10.0.0.2")})),
              "WIRED_ETH up 10.0.0.2 eth1")
        << "and comes first of its type";
    EXPECT_EQ(Primary(builder.Build({wifi, Wired("eth0", true, "10.0.0.1"), Wired("eth1", true, "10.0.0.2")})),
              "WIRED_ETH up 10.0.0.2 eth1");
    EXPECT_EQ(Primary(builder.Build({wifi, Wired("eth0", true, "10.0.0.1"), Wired("eth1", false, "10.0.0.2")})),
              "WIRED_ETH up 10.0.0.1 eth0");
    EXPECT_EQ(Primary(builder.Build({wifi, Wired("eth0", false), Wired("eth1", false)})), "WIRELESS up 10.1.0.1 wlan0");

    StatusBuilder wanted("eth1");
    EXPECT_EQ(Primary(wanted.Build({Wired("eth0", true, "10.0.0.1"), Wired("eth1", false)})), "WIRED_ETH down eth1");
    EXPECT_FALSE(wanted.Build({Wired("eth0", true, "10.0.0.1")}).isprimaryup()) << "not the other one in its place";
}

TEST(NetworkStatus, WifiBandsByTheirUsualNames)
{
    EXPECT_EQ(ParseWifiBands("6,2.4")->ShortDebugString(),
              "stationBands: WIFI_RADIO_BAND_6GHZ stationBands: WIFI_RADIO_BAND_2_4GHZ");
    EXPECT_EQ(ParseWifiBands("")->stationbands_size(), 0);
    EXPECT_FALSE(ParseWifiBands("5GHz"));
    EXPECT_FALSE(ParseWifiBands("5,,6"));
}

TEST(NetworkStatus, ToldAtEachChangeAndToEachNewGateway)
{
    auto gateway = std::make_unique<FakeGateway>();
    const std::uint16_t port = gateway->Port();
    NotifyTargetTaskIF* const task = IL::CreateTask("NetworkStatusTest", "");
    StatusBuilder builder("");
    const NetworkStatus down = builder.Build({Wired("eth0", true)});
    const NetworkStatus up = builder.Build({Wired("eth0", true, "10.0.0.1")});
    Publisher publisher(task, down, *ParseWifiBands("5"));
    publisher.Start("localhost", port);

    const auto expectAll = [&gateway](bool isUp)
    {
        std::set<std::string> served;
        std::map<std::string, json> told;
        for (int count = 0; count < 2; ++count)
        {
            const json params = gateway->Take("serve")["params"];
            served.insert(params.value("verb", "") + params.value("path", "") + params["scope"].dump());
        }
        for (int count = 0; count < 2; ++count)
        {
            const json params = gateway->Take("notify")["params"];
            told[params.value("path", "")] = params["body"];
        }
        EXPECT_EQ(served, (std::set<std::string>{"get/network/status1", "get/network/wifi/stationUsage1"}));
        EXPECT_EQ(told["/network/status"]["isPrimaryUp"], isUp);
        EXPECT_EQ(told["/network/wifi/stationUsage"], json({{"stationBands", {"WIFI_RADIO_BAND_5GHZ"}}}));
    };
    expectAll(false);
    publisher.Update(down); // no news
    publisher.Update(up);
    EXPECT_EQ(gateway->Take("notify")["params"]["body"]["primaryIpAddress"], "10.0.0.1");
    gateway->Request(5, "get", "/network/status", nullptr);
    EXPECT_EQ(gateway->TakeAnswer()["result"]["primary"], "WIRED_ETH");

    gateway.reset();
    gateway = std::make_unique<FakeGateway>(port);
    expectAll(true);
    IL::StopTask(task);
    IL::JoinTask(task);
}
