// The network status that results from links.
#include "schemas/NetManager.pb.h"
#include "tools/network-status/StatusBuilder.h"

#include <gtest/gtest.h>

using NetManager::Protobuf::NetworkStatus;

namespace
{

Link Wired(const std::string& name, bool hasCarrier, const std::string& address = "")
{
    Link link;
    link.name = name;
    link.type = LinkType::WIRED;
    link.hasCarrier = hasCarrier;
    link.address = address;
    return link;
}

/// "WIRED_ETH up 10.0.0.1 eth0". Like a reader, uses the first interface of the primary's type.
std::string Primary(const NetworkStatus& status)
{
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

TEST(NetworkStatus, PrimaryIsFirstWorkingWiredLinkAndStays)
{
    StatusBuilder builder("");
    EXPECT_EQ(Primary(builder.Build({})), "WIRED_ETH down");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", true)})), "WIRED_ETH down eth0");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", false, "10.0.0.1")})), "WIRED_ETH down eth0");
    EXPECT_EQ(Primary(builder.Build({Wired("eth0", true, "10.0.0.1")})), "WIRED_ETH up 10.0.0.1 eth0");

    Link wifi = Wired("wlan0", true, "10.1.0.1");
    wifi.type = LinkType::WIRELESS;
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
