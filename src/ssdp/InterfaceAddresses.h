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

/// Accepts only four decimal numbers with dots and without leading zeros.
std::optional<IPv4> ParseIPv4(std::string_view text);

inline bool IsLoopback(IPv4 address)
{
    return address >> 24U == 127;
}

/// The IPv4 subnets of one interface, and all IPv4 addresses of this device.
struct InterfaceAddresses
{
    struct Subnet
    {
        IPv4 address;
        IPv4 mask;
        bool operator==(const Subnet&) const = default;
    };

    std::vector<Subnet> subnets;
    std::vector<IPv4> own; ///< of all interfaces
    unsigned index = 0;    ///< the kernel's; changes if the interface is created again; 0: no such interface

    /// True for an address of one of the subnets, except the network address and the broadcast address.
    bool HasHost(IPv4 address) const;
    bool IsOwn(IPv4 address) const;
    /// True if sockets that were bound when the interface was as in `other` still work.
    bool IsSameAs(const InterfaceAddresses& other) const;
};

/// Reads the kernel's present state; empty after an error. Does not block.
InterfaceAddresses ReadInterfaceAddresses(const std::string& interfaceName);

} // namespace SonarixService
