#pragma once

#include "tools/portico-gateway/Peer.h"

#include <optional>
#include <set>
#include <string>

namespace Gateway
{

/// A file of lines `guid host[:port]`, with IPv6 hosts in brackets if a port follows. Empty lines and lines that
/// begin with '#' are ignored. Read at each query, so it can be edited while the gateway runs.
class PeersFile final
{
public:
    explicit PeersFile(std::string path); ///< empty: no file

    /// Returns the first line for the guid. An unreadable line is skipped, and logged once while it is in the file.
    std::optional<Peer> Find(const std::string& guid);

private:
    const std::string m_path;
    std::set<std::string> m_loggedLines; ///< unreadable lines of the last read
};

} // namespace Gateway
