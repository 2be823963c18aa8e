#include "ssdp/InterfaceLink.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>

namespace SonarixService
{

namespace
{

IPv4 AddressOf(const sockaddr* address)
{
    sockaddr_in ipv4{};
    std::memcpy(&ipv4, address, sizeof ipv4);
    return ntohl(ipv4.sin_addr.s_addr);
}

} // namespace

std::optional<IPv4> ParseIPv4(std::string_view text)
{
    std::array<char, INET_ADDRSTRLEN> terminated{};
    in_addr address{};
    if (text.size() >= terminated.size())
    {
        return std::nullopt;
    }
    std::copy(text.begin(), text.end(), terminated.begin());
    if (inet_pton(AF_INET, terminated.data(), &address) != 1)
    {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

bool InterfaceLink::HasHost(IPv4 address) const
{
    return std::any_of(subnets.begin(), subnets.end(),
                       [address](const Subnet& subnet)
                       {
                           const IPv4 host = address & ~subnet.mask;
                           const bool hasBroadcast = ~subnet.mask > 1; // a /31 and a /32 have hosts only
                           return ((address ^ subnet.address) & subnet.mask) == 0 &&
                                  !(hasBroadcast && (host == 0 || host == ~subnet.mask));
                       });
}

bool InterfaceLink::IsOwn(IPv4 address) const
{
    return std::find(own.begin(), own.end(), address) != own.end();
}

bool InterfaceLink::IsSameAs(const InterfaceLink& other) const
{
    return index == other.index && subnets == other.subnets;
}

InterfaceLink ReadInterfaceLink(const std::string& interfaceName)
{
    InterfaceLink link;
    link.index = if_nametoindex(interfaceName.c_str());
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
    {
        return link;
    }
    for (const ifaddrs* row = list; row != nullptr; row = row->ifa_next)
    {
        if (row->ifa_addr == nullptr || row->ifa_addr->sa_family != AF_INET || row->ifa_netmask == nullptr)
        {
            continue;
        }
        const IPv4 address = AddressOf(row->ifa_addr);
        link.own.push_back(address);
        const std::string_view name = row->ifa_name; // of a further address perhaps its label, "eth0:1"
        if (name.substr(0, name.find(':')) == interfaceName)
        {
            link.subnets.push_back({address, AddressOf(row->ifa_netmask)});
        }
    }
    freeifaddrs(list);
    return link;
}

} // namespace SonarixService
