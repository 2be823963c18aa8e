#pragma once

#include <cstdint>
#include <string>

namespace Gateway
{

/// The LAN port of every product's gateway.
inline constexpr std::uint16_t kLanPort = 8090;

/// An address at which a product's gateway may listen.
struct Peer
{
    std::string host;
    std::uint16_t port = kLanPort;
    /// True: configured for this product. False: found on the LAN, so the gateway there must prove its guid.
    bool isGiven = false;

    bool HasSameAddress(const Peer& other) const
    {
        return host == other.host && port == other.port;
    }
};

} // namespace Gateway
