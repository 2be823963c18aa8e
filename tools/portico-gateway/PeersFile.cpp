#include "tools/portico-gateway/PeersFile.h"

#include "runtime/DPrint.h"

#include <charconv>
#include <fstream>
#include <sstream>
#include <utility>

namespace Gateway
{
namespace
{

const DPrint s_log("PorticoGateway");

bool ReadPort(const std::string& text, std::uint16_t& port)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && port != 0;
}

/// Parses "host", "host:port", "[ipv6]", "[ipv6]:port", or a bare IPv6 address.
std::optional<Peer> PeerFromText(const std::string& text)
{
    Peer peer;
    peer.isGiven = true;
    std::string rest;
    if (text.front() == '[')
    {
        const std::size_t end = text.find(']');
        if (end == std::string::npos)
        {
            return std::nullopt;
        }
        peer.host = text.substr(1, end - 1);
        rest = text.substr(end + 1);
    }
    else
    {
        const std::size_t colon = text.find(':');
        const bool isBareIpv6 = colon != std::string::npos && text.find(':', colon + 1) != std::string::npos;
        peer.host = isBareIpv6 ? text : text.substr(0, colon);
        rest = isBareIpv6 || colon == std::string::npos ? std::string() : text.substr(colon);
    }
    const bool isPortRight = rest.empty() || (rest.front() == ':' && ReadPort(rest.substr(1), peer.port));
    return peer.host.empty() || !isPortRight ? std::nullopt : std::optional<Peer>(peer);
}

} // namespace

PeersFile::PeersFile(std::string path)
    : m_path(std::move(path))
{
}

std::optional<Peer> PeersFile::Find(const std::string& guid)
{
    if (m_path.empty())
    {
        return std::nullopt;
    }
    std::optional<Peer> first;
    std::set<std::string> unreadable;
    std::ifstream file(m_path);
    std::string line;
    while (std::getline(file, line))
    {
        std::istringstream words(line);
        std::string name;
        std::string place;
        if (!(words >> name) || name.front() == '#')
        {
            continue;
        }
        const std::optional<Peer> peer = words >> place ? PeerFromText(place) : std::nullopt;
        if (!peer)
        {
            if (unreadable.insert(line).second && m_loggedLines.count(line) == 0)
            {
                DPRINTF(s_log, DPrint::LEVEL_ERROR, "%s: not a line of guid and host[:port]: %s", m_path.c_str(),
                        line.c_str());
            }
        }
        else if (name == guid && !first)
        {
            first = peer;
        }
    }
    m_loggedLines = std::move(unreadable);
    return first;
}

} // namespace Gateway
