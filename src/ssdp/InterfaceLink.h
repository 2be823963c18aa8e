#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SonarixService
{

/// An IPv4 address, in host byte order.
using IPv4 = std::uint32_t;

/// Strict dotted quad, without leading zeros; nothing else is an address.
std::optional<IPv4> ParseIPv4(std::string_view text);

inline bool IsLoopback(IPv4 address)
{
    return address >> 24U == 127;
}

/// The IPv4 networks that one interface is on, and all IPv4 addresses of this unit. A value.
struct InterfaceLink
{
    struct Subnet
    {
        IPv4 address;
        IPv4 mask;
        bool operator==(const Subnet&) const = default;
    };

    std::vector<Subnet> subnets;
    std::vector<IPv4> own;
    unsigned index = 0; ///< another one when an interface of that name was made anew; 0: there is none

    /// Whether a host of one of the subnets has this address; the subnet's own and its broadcast address are no host's.
    bool HasHost(IPv4 address) const;
    bool IsOwn(IPv4 address) const;
    /// Whether sockets that were bound to `other` still hear and send here.
    bool IsSameAs(const InterfaceLink& other) const;
};

/// As the kernel has it now; empty where it cannot be read. A few system calls, never waits.
InterfaceLink ReadInterfaceLink(const std::string& interfaceName);

} // namespace SonarixService
