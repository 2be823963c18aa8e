#pragma once

#include <string>

enum class LinkType
{
    WIRED,
    WIRELESS,
    USB,
};

/// One network interface, as the kernel has it now. A value.
struct Link
{
    std::string name;
    std::string mac; ///< 12 upper-case hexadecimal digits
    LinkType type = LinkType::WIRED;
    bool hasCarrier = false; ///< set up, and the cable or the access point is there
    std::string address;     ///< the first IPv4 address, empty without one
    std::string broadcast;
    std::string netmask;
};
