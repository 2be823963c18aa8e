#include "tools/network-status/LinkReader.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>
#include <filesystem>
#include <ifaddrs.h>
#include <linux/if.h>
#include <memory>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <string>
#include <system_error>

namespace
{

std::string Numeric(const sockaddr* address)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    if (address == nullptr || address->sa_family != AF_INET ||
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(address)->sin_addr, text.data(), text.size()) ==
            nullptr)
    {
        return {};
    }
    return text.data();
}

/// Reads the link type from sysfs. If /sys belongs to another network namespace, the name decides.
LinkType TypeOf(const std::string& name)
{
    std::error_code ignored;
    const std::filesystem::path folder = "/sys/class/net/" + name;
    if (name.starts_with("wl") || std::filesystem::exists(folder / "phy80211", ignored))
    {
        return LinkType::WIRELESS;
    }
    const std::string device = std::filesystem::canonical(folder / "device", ignored).string();
    const bool isUsb = name.starts_with("usb") || device.find("/usb") != std::string::npos;
    return isUsb ? LinkType::USB : LinkType::WIRED;
}

std::string MacOf(const sockaddr_ll& address)
{
    std::string mac;
    for (int index = 0; index < address.sll_halen && index < 6; ++index)
    {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", address.sll_addr[index]);
        mac += digits.data();
    }
    return mac;
}

} // namespace

std::optional<std::vector<Link>> ReadLinks()
{
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0)
    {
        return std::nullopt;
    }
    const std::unique_ptr<ifaddrs, decltype(&freeifaddrs)> owner(first, &freeifaddrs);
    std::vector<Link> links;
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next) // links come before addresses
    {
        if (each->ifa_addr == nullptr || each->ifa_addr->sa_family != AF_PACKET)
        {
            continue;
        }
        const auto& hardware = *reinterpret_cast<const sockaddr_ll*>(each->ifa_addr);
        if (hardware.sll_hatype != ARPHRD_ETHER)
        {
            continue;
        }
        Link link;
        link.name = each->ifa_name;
        link.mac = MacOf(hardware);
        link.type = TypeOf(link.name);
        link.hasCarrier = (each->ifa_flags & IFF_UP) != 0 && (each->ifa_flags & IFF_LOWER_UP) != 0;
        links.push_back(link);
    }
    for (const ifaddrs* each = first; each != nullptr; each = each->ifa_next)
    {
        // A label like "eth0:1" belongs to eth0.
        const std::string label = each->ifa_name;
        const std::string name = label.substr(0, label.find(':'));
        const auto link =
            std::find_if(links.begin(), links.end(), [&name](const Link& one) { return one.name == name; });
        const std::string address = Numeric(each->ifa_addr);
        if (link != links.end() && link->address.empty() && !address.empty())
        {
            link->address = address;
            link->netmask = Numeric(each->ifa_netmask);
            link->broadcast = (each->ifa_flags & IFF_BROADCAST) != 0 ? Numeric(each->ifa_broadaddr) : std::string();
        }
    }
    return links;
}
