#pragma once

#include "runtime/Network.h"

#include <compare>
#include <map>
#include <string>

namespace MDNS
{

/// Numbered as SXCommon::Protocol.
enum class Protocol
{
    INET = 0,
    INET6 = 1,
    UNSPEC = 2,
};

/// Which service instance, seen on which interface. A value; ordered by its fields in this order.
struct ServiceId
{
    int interface = -1; ///< network interface index; -1 for any
    Protocol protocol = Protocol::UNSPEC;
    std::string name;   ///< instance name
    std::string type;   ///< DNS-SD type, such as "_kova-clock._tcp"
    std::string domain; ///< "local" in practice

    auto operator<=>(const ServiceId&) const =
        default; // NOLINT(modernize-use-nullptr): the check mistakes the comparison with 0
};

/// A service instance with what is known of it. A value; compared by its id alone.
struct Service : ServiceId
{
    Network::IpAddress address;             ///< the port, and the host part when resolved
    std::map<std::string, std::string> txt; ///< TXT records by key
};

} // namespace MDNS
