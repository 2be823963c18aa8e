#include "tests/simulation/Model.h"

#include "schemas/Sonarix.pb.h"

#include <algorithm>
#include <cctype>
#include <utility>

namespace
{

const char* const kProductType = "_kova-lanyard._tcp";
const char* const kAccessoryType = "_kova-accessory._tcp";
constexpr std::int64_t kSearchPeriodMs = 30'000;
constexpr std::int64_t kFetchWaitMs = 10'000; ///< longest time in the fetch queue
constexpr int kFetchesOfHost = 2;

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

/// The text up to the first colon. Without a port this includes the path, like the service's own rule.
std::string AddressOf(const std::string& location)
{
    const std::string host = location.substr(std::min(location.find("//") + 2, location.size()));
    return host.substr(0, host.find(':'));
}

std::string HostOf(const std::string& location)
{
    const std::string address = AddressOf(location);
    return address.substr(0, address.find('/'));
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
    location = info.has_location() ? info.location() : location;
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
    text += location.empty() ? "" : " by " + location;
    return text + " bands" + Joined(bands) + " children" + Joined(children) + " " + SXCommon::ProductMode_Name(mode);
}

void Model::Status(bool isPrimaryUp, const std::string& address, bool hasInterface, std::int64_t nowMs)
{
    const bool wasUp = std::exchange(m_isNetworkUp, isPrimaryUp && hasInterface);
    if (wasUp && !m_isNetworkUp)
    {
        isDiscovering = false;
        publication.reset();
        searchDue.reset();
    }
    if (!wasUp && m_isNetworkUp)
    {
        searchDue = nowMs;
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
    if (wasUp && !m_isNetworkUp)
    {
        EndSsdp(); // SSDP's last reports arrive after the mode change
    }
}

void Model::EndSsdp()
{
    m_fetches.clear();
    for (const auto& [guid, device] : std::exchange(m_ssdp, {}))
    {
        Sighted(device.sight);
    }
}

void Model::SetMode(SXCommon::ProductMode mode)
{
    const SXCommon::ProductMode before = std::exchange(m_mode, mode);
    if (mode == before)
    {
        return;
    }
    if (m_rows.contains(kOwn)) // without its own row the service removes no row
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
    m_own.name = name;
    if (m_mode == SXCommon::UNKNOWN_MODE)
    {
        Connect(kOwn);
    }
}

Model::Sight Model::SightOf(const MDNS::Service& service)
{
    Sight sight;
    sight.protocols = {SXCommon::MDNS};
    sight.guid = TxtOf(service, "GUID");
    sight.ecosystem = TxtOf(service, "ECOSYS");
    sight.name = service.name;
    sight.address = service.address.ipaddr();
    return sight;
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
    if (id.type == kProductType) // reported with the last resolved data of that name
    {
        Sighted(SightOf(known->second));
    }
    m_resolved.erase(known);
}

void Model::SsdpBegins(bool isForAnotherLink)
{
    if (complaint.empty() && !m_ssdp.empty() && !isForAnotherLink)
    {
        complaint = "SSDP restarted without a reason";
    }
    EndSsdp();
}

void Model::Searched(std::int64_t nowMs)
{
    if (complaint.empty() && searchDue != nowMs)
    {
        complaint = "a search at the wrong time";
    }
    searchDue = nowMs + kSearchPeriodMs;
    for (auto& [guid, device] : m_ssdp)
    {
        device.isUp = false; // until the product responds
    }
}

void Model::Heard(const std::string& guid, const std::string& location, std::int64_t nowMs)
{
    if (guid.empty())
    {
        return;
    }
    const bool isNew = !m_ssdp.contains(guid);
    SsdpDevice& device = m_ssdp[guid];
    if (!isNew && device.sight.location.value_or("") == location)
    {
        if (device.isUp == false)
        {
            device.isUp = true;
            Sighted(device.sight);
        }
        return;
    }
    Sight sight = device.sight;
    if (isNew)
    {
        device.isUp = true;
        device.sight.protocols = {SXCommon::SSDP};
        sight.guid = guid;
    }
    sight.protocols = device.sight.protocols;
    sight.location = location;
    sight.address = AddressOf(location);
    const auto isOfHost = [host = HostOf(location)](const Fetch& fetch)
    { return HostOf(*fetch.sight.location) == host; };
    const bool isUrl = !HostOf(location).empty() && std::isdigit(HostOf(location).front()) != 0;
    if (!isUrl || std::count_if(m_fetches.begin(), m_fetches.end(), isOfHost) >= kFetchesOfHost)
    {
        Fail(sight);
        return;
    }
    m_fetches.push_back({++m_fetchNumbers, sight, nowMs});
}

void Model::HeardBye(const std::string& guid)
{
    if (const auto device = m_ssdp.find(guid); device != m_ssdp.end())
    {
        device->second.isUp = false;
    }
}

void Model::SearchOver()
{
    const std::map<std::string, SsdpDevice> devices = m_ssdp;
    for (const auto& [guid, device] : devices)
    {
        if (device.isUp == false)
        {
            m_ssdp.erase(guid);
            Sighted(device.sight);
        }
    }
}

unsigned Model::Fetches(const std::string& location, std::int64_t nowMs)
{
    Pass(nowMs);
    const auto fetch = std::find_if(m_fetches.begin(), m_fetches.end(),
                                    [&location](const Fetch& candidate)
                                    { return !candidate.hasBegun && candidate.sight.location == location; });
    if (fetch == m_fetches.end())
    {
        complaint = complaint.empty() ? "fetched " + location + " for nothing" : complaint;
        return 0;
    }
    fetch->hasBegun = true;
    return fetch->number;
}

void Model::Pass(std::int64_t nowMs)
{
    const auto isLate = [nowMs](const Fetch& fetch)
    { return !fetch.hasBegun && nowMs - fetch.sinceMs >= kFetchWaitMs; };
    for (auto late = m_fetches.begin(); (late = std::find_if(late, m_fetches.end(), isLate)) != m_fetches.end();)
    {
        Fail(late->sight);
        late = m_fetches.erase(late);
    }
}

void Model::Fail(const Sight& sight)
{
    if (!sight.guid.empty()) // two concurrent fetches of one guid cannot be told apart
    {
        m_ssdp.erase(sight.guid);
    }
}

void Model::Fetched(unsigned fetch, const std::optional<Description>& description)
{
    const auto ended = std::find_if(m_fetches.begin(), m_fetches.end(),
                                    [fetch](const Fetch& candidate) { return candidate.number == fetch; });
    if (ended == m_fetches.end())
    {
        return; // fetch from before the network change
    }
    Sight sight = ended->sight;
    m_fetches.erase(ended);
    if (!description)
    {
        Fail(sight);
        return;
    }
    if (sight.guid.empty())
    {
        return;
    }
    sight.name = description->name ? description->name : sight.name;
    sight.ecosystem = description->ecosystem.empty() ? sight.ecosystem : description->ecosystem;
    for (const auto& [url, width] : description->icons)
    {
        sight.icons[url] = width;
    }
    SsdpDevice& device = m_ssdp[sight.guid];
    sight.protocols = device.sight.protocols; // empty if the device has left meanwhile
    device.sight = sight;
    Sighted(sight);
}

void Model::Sighted(const Sight& sight)
{
    if (sight.ecosystem != "ORB2")
    {
        return;
    }
    if (sight.protocols.contains(SXCommon::MDNS) && m_mode == SXCommon::UNKNOWN_MODE)
    {
        m_heldBack.push_back(sight);
        return;
    }
    if (sight.guid == kOwn)
    {
        Merge(m_own, sight);
    }
    const bool isNew = !m_rows.contains(sight.guid);
    Row& row = m_rows[sight.guid];
    Merge(row, sight);
    row.address = isNew ? sight.address.value_or("") : row.address;
    Connect(sight.guid);
}

void Model::Merge(Row& row, const Sight& sight)
{
    row.guid = sight.guid;
    row.name = sight.name.value_or(row.name);
    row.location = sight.location.value_or(row.location);
    row.protocols.insert(sight.protocols.begin(), sight.protocols.end());
    for (const auto& [url, width] : sight.icons)
    {
        row.icons[url] = width;
    }
    row.children.clear();
}

void Model::Refreshed()
{
    for (const auto& [guid, device] : m_ssdp)
    {
        if (device.isUp == true)
        {
            Refresh(device.sight); // includes other manufacturers and devices without a description
        }
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
    Row& row = m_rows[sight.guid];
    Merge(row, sight);
    row.address = sight.address.value_or(row.address);
    if (isNew)
    {
        row.isOnline = true; // a refresh lists it as ONLINE
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
    if (info.guid() == kOwn) // regardless of the remaining fields
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
        m_own.name = product.productinfo().friendlyname();
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
    Row own = m_own;
    own.guid = kOwn;
    own.protocols.clear();
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

bool Model::IsDescribed(const std::string& guid) const
{
    const auto device = m_ssdp.find(guid);
    return device != m_ssdp.end() && !device->second.sight.guid.empty();
}

std::optional<std::int64_t> Model::OfflineSince(const std::string& guid) const
{
    const auto since = m_offlineSince.find(guid);
    return since != m_offlineSince.end() ? std::optional(since->second) : std::nullopt;
}
