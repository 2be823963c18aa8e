#pragma once

#include "tools/network-status/Link.h"

#include <string>
#include <vector>

namespace NetManager::Protobuf
{
class NetworkStatus;
}

/// Selects the primary interface and converts links to a NetworkStatus. Its only state is the last selection, so that a
/// second cable does not replace a working primary interface.
class StatusBuilder
{
public:
    /// `primary` is the interface to use, even if it does not exist. Empty: the first wired one with carrier, else the
    /// first other one with carrier, else any.
    explicit StatusBuilder(std::string primary);

    /// Always sets `primary`; sets `primaryIpAddress` only while the primary has carrier and an address. The primary
    /// is the first in `interfaces`, because readers use the first interface of its type.
    NetManager::Protobuf::NetworkStatus Build(std::vector<Link> links);

private:
    std::string Choose(const std::vector<Link>& links) const;

    const std::string m_wanted;
    std::string m_chosen;
};
