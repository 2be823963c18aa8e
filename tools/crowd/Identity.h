#pragma once

#include <cstdint>
#include <string>

/// Who one product of the crowd is; all of it follows from its index.
struct Identity
{
    std::string guid;       ///< its host name too
    std::string name;       ///< as people see it; the instance name of its service
    std::string address;    ///< numeric
    std::uint32_t ipv4 = 0; ///< the same, host byte order
    unsigned index = 0;
};

/// `offset` of the first address.
Identity MakeIdentity(unsigned index, const std::string& namePrefix, std::uint32_t firstIpv4, unsigned offset);

/// The record at /sonarix/info, as JSON.
std::string InfoRecord(const Identity& identity);

/// The strings of its TXT record, as on the wire.
std::string TxtStrings(const Identity& identity);
