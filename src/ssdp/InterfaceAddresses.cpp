#include "ssdp/InterfaceAddresses.h"

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

IPv4 IPv4FromSockaddr(const sockaddr* address)
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

bool InterfaceAddresses::HasHost(IPv4 address) const
{
    return std::any_of(subnets.begin(), subnets.end(),
                       [address](const Subnet& subnet)
                       {
                           const IPv4 host = address & ~subnet.mask;
                           const bool hasBroadcast = ~subnet.mask > 1; // not in a /31 and a /32 (RFC 3021)
                           return ((address ^ subnet.address) & subnet.mask) == 0 &&
                                  !(hasBroadcast && (host == 0 || host == ~subnet.mask));
                       });
}

bool InterfaceAddresses::IsOwn(IPv4 address) const
{
    return std::find(own.begin(), own.end(), address) != own.end();
}

bool InterfaceAddresses::IsSameAs(const InterfaceAddresses& other) const
{
    return index == other.index && subnets == other.subnets;
}

InterfaceAddresses ReadInterfaceAddresses(const std::string& interfaceName)
{
    InterfaceAddresses result;
    result.index = if_nametoindex(interfaceName.c_str());
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0)
    {
        return result;
    }
    for (const ifaddrs* row = list; row != nullptr; row = row->ifa_next)
    {
        if (row->ifa_addr == nullptr || row->ifa_addr->sa_family != AF_INET || row->ifa_netmask == nullptr)
        {
            continue;
        }
        const IPv4 address = IPv4FromSockaddr(row->ifa_addr);
        result.own.push_back(address);
        const std::string_view name = row->ifa_name; // a further address may have a label: "eth0:1"
        if (name.substr(0, name.find(':')) == interfaceName)
        {
            result.subnets.push_back({address, IPv4FromSockaddr(row->ifa_netmask)});
        }
    }
    freeifaddrs(list);
    return result;
}

} // namespace SonarixService
