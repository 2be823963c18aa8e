#pragma once

#include <string>

enum class LinkType
{
    WIRED,
    WIRELESS,
    USB,
};

/// Current state of one network interface. A value.
struct Link
{
    std::string name;
    std::string mac; ///< 12 upper-case hexadecimal digits
    LinkType type = LinkType::WIRED;
    bool hasCarrier = false; ///< IFF_UP and IFF_LOWER_UP
    std::string address;     ///< the first IPv4 address, empty without one
    std::string broadcast;
    std::string netmask;
};
