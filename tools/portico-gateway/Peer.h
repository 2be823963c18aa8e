#pragma once

#include <cstdint>
#include <string>

namespace Gateway
{

/// The port of every product's gateway towards the LAN.
inline constexpr std::uint16_t kLanPort = 8090;

/// Where a product's gateway may be reached.
struct Peer
{
    std::string host;
    std::uint16_t port = kLanPort;
    /// Somebody wrote it down for just this product. Otherwise it is hearsay: who answers there has to give its guid.
    bool isGiven = false;

    bool IsSamePlace(const Peer& other) const
    {
        return host == other.host && port == other.port;
    }
};

} // namespace Gateway
