#include "Model.h"

#include "Sonarix.pb.h"

#include <utility>

namespace
{

const char* const kProductType = "_kova-lanyard._tcp";
const char* const kAccessoryType = "_kova-accessory._tcp";

std::vector<std::string> Guids(const google::protobuf::RepeatedPtrField<Sonarix::ProductInfo>& infos)
{
    std::vector<std::string> guids;
    for (const Sonarix::ProductInfo& info : infos)
    {
        guids.push_back(info.guid());
    }
    return guids;
}

std::string TxtOf(const MDNS::Service& service, const char* key)
{
    const auto record = service.txt.find(key);
    return record != service.txt.end() ? record->second : "";
}

std::string Joined(const std::vector<std::string>& texts)
{
    std::string joined;
    for (const std::string& text : texts)
    {
        joined += " " + text;
    }
    return joined;
}

} // namespace

Model::Row::Row(const Sonarix::Product& product)
    : isOnline(product.state() == SXCommon::ONLINE)
    , protocols(product.protocols().begin(), product.protocols().end())
{
    Take(product.productinfo());
}

void Model::Row::Take(const Sonarix::ProductInfo& info)
{
    guid = info.guid();
    name = info.has_friendlyname() ? info.friendlyname() : name;
    address = info.has_ipaddress() ? info.ipaddress() : address;
    for (const SXCommon::Icon& icon : info.icons())
    {
        icons[icon.url()] = icon.width();
    }
    if (info.has_capabilities())
    {
        bands = {info.capabilities().supportedwifibands().begin(), info.capabilities().supportedwifibands().end()};
    }
    children = Guids(info.children());
    mode = info.has_configurations() ? info.configurations().currentproductmode() : mode;
}

std::string Model::Row::Text() const
{
    std::string text = guid + " '" + name + "' at " + address + (isOnline ? " ONLINE" : " OFFLINE");
    for (const int protocol : protocols)
    {
        text += " " + SXCommon::DiscoveryProtocol_Name(protocol);
    }
    for (const auto& [url, width] : icons)
    {
        text += " " + url + ":" + std::to_string(width);
    }
    return text + " bands" + Joined(bands) + " children" + Joined(children) + " " + SXCommon::ProductMode_Name(mode);
}

void Model::Status(bool isPrimaryUp, const std::string& address, bool hasInterface)
{
    const bool wasUp = std::exchange(m_isNetworkUp, isPrimaryUp && hasInterface);
    if (wasUp && !m_isNetworkUp)
    {
        isDiscovering = false;
        publication.reset();
    }
    if (!wasUp && m_isNetworkUp)
    {
        if (!std::exchange(isDiscovering, true))
        {
            m_resolved.clear();
            m_known.clear();
        }
        for (const char* const type : {kProductType, kAccessoryType})
        {
            if (const auto deferred = m_deferred.extract(type))
            {
                publication = deferred.mapped();
            }
        }
    }
    m_ownAddress = address;
    const bool isRising = !std::exchange(m_isPrimaryUp, isPrimaryUp) && isPrimaryUp;
    SetMode(m_isAccessory     ? SXCommon::ACCESSORY
            : address.empty() ? SXCommon::UNKNOWN_MODE
            : isPrimaryUp     ? SXCommon::HOST
                              : SXCommon::SETUP);
    if (isRising && m_isAccessory && !address.empty())
    {
        Announce({-1, MDNS::Protocol::INET, "Accessory", kAccessoryType, "local"});
    }
}

void Model::SetMode(SXCommon::ProductMode mode)
{
    const SXCommon::ProductMode before = std::exchange(m_mode, mode);
    if (mode == before)
    {
        return;
    }
    if (m_rows.contains(kOwn)) // who does not know itself forgets nobody
    {
        std::erase_if(m_rows, [](const auto& entry) { return entry.first != kOwn; });
        m_rows[kOwn].mode = mode;
    }
    m_mustClose = std::exchange(connections, {});
    if (m_mustClose.contains(kOwn))
    {
        Connect(kOwn);
    }
    if (before == SXCommon::UNKNOWN_MODE)
    {
        for (const Sight& sight : std::exchange(m_heldBack, {}))
        {
            Sighted(sight);
        }
    }
}

void Model::Announce(const MDNS::ServiceId& id)
{
    if (m_isNetworkUp)
    {
        publication = id;
    }
    else
    {
        m_deferred[id.type] = id;
    }
}

void Model::Advertised(const std::string& name)
{
    Announce({-1, MDNS::Protocol::INET, name, kProductType, "local"});
    m_ownName = name;
    if (m_mode == SXCommon::UNKNOWN_MODE)
    {
        Connect(kOwn);
    }
}

Model::Sight Model::SightOf(const MDNS::Service& service)
{
    return {true, TxtOf(service, "GUID"), TxtOf(service, "ECOSYS"), service.name, service.address.ipaddr()};
}

Model::Sight Model::SightOf(const Sonarix::Product& product)
{
    const Sonarix::ProductInfo& info = product.productinfo();
    return {false, info.guid(), info.ecosystem(), info.friendlyname(), info.ipaddress()};
}

void Model::Resolved(const MDNS::Service& service)
{
    m_resolved[service.name] = service;
    m_known.emplace(service.name, service.type);
    if (service.type == kProductType)
    {
        Sighted(SightOf(service));
    }
}

void Model::Removed(const MDNS::ServiceId& id)
{
    m_known.erase({id.name, id.type});
    const auto known = m_resolved.find(id.name);
    if (!isDiscovering || known == m_resolved.end())
    {
        return;
    }
    if (id.type == kProductType) // told with what was resolved last under that name
    {
        Sighted(SightOf(known->second));
    }
    m_resolved.erase(known);
}

void Model::HeardBySsdp(const Sonarix::Product& product)
{
    Sighted(SightOf(product));
}

void Model::Sighted(const Sight& sight)
{
    if (sight.ecosystem != "ORB2")
    {
        return;
    }
    if (sight.isByMdns && m_mode == SXCommon::UNKNOWN_MODE)
    {
        m_heldBack.push_back(sight);
        return;
    }
    if (sight.guid == kOwn)
    {
        m_ownName = sight.name;
    }
    const bool isNew = !m_rows.contains(sight.guid);
    Row& row = Merge(sight);
    row.address = isNew ? sight.address : row.address;
    Connect(sight.guid);
}

Model::Row& Model::Merge(const Sight& sight)
{
    Row& row = m_rows[sight.guid];
    row.guid = sight.guid;
    row.name = sight.name;
    row.protocols.insert(sight.isByMdns ? SXCommon::MDNS : SXCommon::SSDP);
    row.children.clear();
    return row;
}

void Model::Refreshed(const Sonarix::ProductList& ssdpList)
{
    for (const Sonarix::Product& product : ssdpList.products())
    {
        Refresh(SightOf(product));
    }
    for (const auto& [name, service] : m_resolved)
    {
        if (isDiscovering && service.type == kProductType)
        {
            Refresh(SightOf(service));
        }
    }
}

void Model::Refresh(const Sight& sight)
{
    const bool isNew = !m_rows.contains(sight.guid);
    Row& row = Merge(sight);
    row.address = sight.address;
    if (isNew)
    {
        row.isOnline = true; // by the source's word
        Connect(sight.guid);
    }
}

void Model::Connect(const std::string& guid)
{
    connections.insert(guid);
    m_mustAsk.insert(guid);
}

void Model::Answered(const Sonarix::ProductInfo& info)
{
    m_offlineSince.erase(info.guid());
    Row& row = m_rows[info.guid()];
    if (info.guid() == kOwn) // whatever was answered
    {
        const std::set<int> protocols = row.protocols;
        row = OwnRow();
        row.protocols = protocols;
    }
    else
    {
        row.Take(info);
    }
    row.isOnline = true;
    ++lists;
}

void Model::Heartbeat(const std::string& guid, bool isThere, std::int64_t nowSec)
{
    Row& row = m_rows[guid];
    if (!isThere)
    {
        lists += std::exchange(row.isOnline, false) ? 1U : 0U;
        m_offlineSince.try_emplace(guid, nowSec);
    }
    m_mustAsk.insert(guid);
}

void Model::ChildPosted(const Sonarix::Product& product)
{
    if (product.productinfo().guid() == kOwn)
    {
        m_ownName = product.productinfo().friendlyname();
    }
    m_children[product.productinfo().guid()] = Row(product);
    ++lists;
}

void Model::ChildDeleted(const std::string& guid)
{
    lists += m_children.erase(guid);
}

void Model::Opened(const std::string& guid, const std::string& subProtocol)
{
    const bool isEncrypted = m_mode == SXCommon::SETUP || m_mode == SXCommon::ACCESSORY;
    if (complaint.empty() && (!connections.contains(guid) || subProtocol != (isEncrypted ? "tarsier_mTLS" : "tarsier")))
    {
        complaint = "connected to " + guid + " by " + subProtocol;
    }
}

void Model::Closed(const std::string& guid, std::int64_t nowSec)
{
    if (m_mustClose.erase(guid) != 0)
    {
        return;
    }
    const std::optional<std::int64_t> since = OfflineSince(guid);
    if (complaint.empty() && (!since || nowSec - *since < kGiveUpAfter))
    {
        complaint =
            "gave up " + guid + " after " + (since ? std::to_string(nowSec - *since) + " s offline" : "nothing");
    }
    connections.erase(guid);
}

void Model::Asked(const std::string& guid)
{
    m_mustAsk.erase(guid);
}

void Model::Settled()
{
    if (complaint.empty() && !m_mustAsk.empty())
    {
        complaint = *m_mustAsk.begin() + " was not asked";
    }
    if (complaint.empty() && !m_mustClose.empty())
    {
        complaint = *m_mustClose.begin() + " is still connected in the old mode";
    }
}

std::vector<std::string> Model::Table() const
{
    std::vector<std::string> table;
    for (const auto& [guid, row] : m_rows)
    {
        if (!m_children.contains(guid))
        {
            table.push_back(row.Text());
        }
    }
    for (const auto& [guid, row] : m_children)
    {
        table.push_back(row.Text());
    }
    return table;
}

Model::Row Model::OwnRow() const
{
    Row own;
    own.guid = kOwn;
    own.name = m_ownName;
    own.address = m_ownAddress;
    own.mode = m_mode;
    for (const auto& [guid, child] : m_children)
    {
        own.children.push_back(child.guid);
    }
    return own;
}

std::string Model::Own() const
{
    return OwnRow().Text();
}

const Model::Row* Model::Find(const std::string& guid) const
{
    const auto row = m_rows.find(guid);
    return row != m_rows.end() ? &row->second : nullptr;
}

bool Model::IsResolved(const std::string& instanceName, const std::string& type) const
{
    return m_known.contains({instanceName, type});
}

std::optional<std::int64_t> Model::OfflineSince(const std::string& guid) const
{
    const auto since = m_offlineSince.find(guid);
    return since != m_offlineSince.end() ? std::optional(since->second) : std::nullopt;
}
