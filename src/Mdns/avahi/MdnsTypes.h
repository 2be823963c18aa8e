#pragma once

#include "runtime/Network.h"

#include <compare>
#include <map>
#include <string>

namespace MDNS
{

/// The enumerators have the values of SXCommon::Protocol.
enum class Protocol
{
    INET = 0,
    INET6 = 1,
    UNSPEC = 2,
};

/// Identifies a service instance on one network interface. Ordered by its fields, in the order of declaration.
struct ServiceId
{
    int interface = -1; ///< network interface index; -1 for any
    Protocol protocol = Protocol::UNSPEC;
    std::string name;   ///< instance name
    std::string type;   ///< DNS-SD type, for example "_kova-clock._tcp"
    std::string domain; ///< "local" in practice

    auto operator<=>(const ServiceId&) const =
        default; // NOLINT(modernize-use-nullptr): false positive on the comparison with 0
};

/// A service instance with its address and TXT records. Comparison uses only the id.
struct Service : ServiceId
{
    Network::IpAddress address;             ///< the port; the host part only if resolved
    std::map<std::string, std::string> txt; ///< TXT records by key
};

} // namespace MDNS
