#pragma once

#include "tools/network-status/Link.h"

#include <string>
#include <vector>

namespace NetManager::Protobuf
{
class NetworkStatus;
}

/// Decides which interface is the primary one, and says what the links are as a NetworkStatus. Pure, but for
/// remembering its choice, so that a second cable does not move the primary away from one that works.
class StatusBuilder
{
public:
    /// `primary` is the interface to use, there or not; empty: the first wired one with carrier, then a wireless
    /// one with carrier, then whatever is there.
    explicit StatusBuilder(std::string primary);

    /// `primary` is always set, `primaryIpAddress` only while the primary has carrier and an address. The primary
    /// comes first in `interfaces`, since readers take the first of its type.
    NetManager::Protobuf::NetworkStatus Build(std::vector<Link> links);

private:
    std::string Choose(const std::vector<Link>& links) const;

    const std::string m_wanted;
    std::string m_chosen;
};
