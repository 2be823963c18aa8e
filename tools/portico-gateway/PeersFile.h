#pragma once

#include "tools/portico-gateway/Peer.h"

#include <optional>
#include <set>
#include <string>

namespace Gateway
{

/// A file of lines `guid host[:port]`, IPv6 hosts in brackets where a port follows; empty lines and lines that begin
/// with '#' are passed over. Read at each question, so that it can be edited while the gateway runs.
class PeersFile final
{
public:
    explicit PeersFile(std::string path); ///< empty: there is none

    /// The first line for the guid. A line that cannot be read is skipped, and logged once as long as it stands there.
    std::optional<Peer> Find(const std::string& guid);

private:
    const std::string m_path;
    std::set<std::string> m_told; ///< the lines of the last reading that could not be read
};

} // namespace Gateway
