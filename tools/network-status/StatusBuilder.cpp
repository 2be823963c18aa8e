#include "tools/network-status/StatusBuilder.h"

#include "schemas/NetManager.pb.h"

#include <algorithm>
#include <utility>

using NetManager::Protobuf::IPInfo;
using NetManager::Protobuf::NetworkInterface;
using NetManager::Protobuf::NetworkStatus;
using NetManager::Protobuf::NetworkType;

namespace
{

NetworkType TypeOf(LinkType type)
{
    switch (type)
    {
    case LinkType::WIRELESS:
        return NetManager::Protobuf::WIRELESS;
    case LinkType::USB:
        return NetManager::Protobuf::WIRED_USB;
    case LinkType::WIRED:
        break;
    }
    return NetManager::Protobuf::WIRED_ETH;
}

void Fill(NetworkInterface& interface, const Link& link)
{
    interface.set_name(link.name);
    interface.set_macaddress(link.mac);
    interface.set_type(TypeOf(link.type));
    interface.set_state(link.hasCarrier ? NetworkInterface::UP : NetworkInterface::DOWN);
    if (link.address.empty())
    {
        return;
    }
    IPInfo& info = *interface.mutable_ipinfo();
    info.set_ipaddress(link.address);
    info.set_subnetmask(link.netmask);
    if (!link.broadcast.empty())
    {
        info.set_broadcastaddress(link.broadcast);
    }
}

} // namespace

StatusBuilder::StatusBuilder(std::string primary)
    : m_wanted(std::move(primary))
{
}

std::string StatusBuilder::Choose(const std::vector<Link>& links) const
{
    const auto first = [&links](auto matches)
    {
        const auto found = std::find_if(links.begin(), links.end(), matches);
        return found == links.end() ? std::string() : found->name;
    };
    const std::string candidates[] = {
        first([this](const Link& link) { return link.name == m_chosen && link.hasCarrier; }),
        first([](const Link& link) { return link.type == LinkType::WIRED && link.hasCarrier; }),
        first([](const Link& link) { return link.hasCarrier; }),
        first([this](const Link& link) { return link.name == m_chosen; }),
        first([](const Link& link) { return link.type == LinkType::WIRED; }),
        first([](const Link&) { return true; }),
    };
    const auto* const found = std::find_if(std::begin(candidates), std::end(candidates),
                                           [](const std::string& name) { return !name.empty(); });
    return found == std::end(candidates) ? std::string() : *found;
}

NetworkStatus StatusBuilder::Build(std::vector<Link> links)
{
    m_chosen = m_wanted.empty() ? Choose(links) : m_wanted;
    std::stable_partition(links.begin(), links.end(), [this](const Link& link) { return link.name == m_chosen; });

    NetworkStatus status;
    status.set_isprimaryup(false);
    status.set_primary(m_chosen.starts_with("wl") ? NetManager::Protobuf::WIRELESS : NetManager::Protobuf::WIRED_ETH);
    for (const Link& link : links)
    {
        Fill(*status.add_interfaces(), link);
    }
    if (!links.empty() && links.front().name == m_chosen)
    {
        const Link& primary = links.front();
        const bool isUp = primary.hasCarrier && !primary.address.empty();
        status.set_primary(TypeOf(primary.type));
        status.set_isprimaryup(isUp);
        if (isUp)
        {
            status.set_primaryipaddress(primary.address);
        }
    }
    return status;
}
