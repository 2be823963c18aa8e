#include "AggregatorModel.h"

#include <algorithm>

namespace
{

constexpr std::int64_t kLimitSec = 1800;
constexpr std::int64_t kRefreshMs = 6LL * 3600 * 1000;

template <class Map>
void ForgetOthers(Map& map)
{
    if (map.contains(kOwn))
    {
        std::erase_if(map, [](const auto& entry) { return entry.first != kOwn; });
    }
}

} // namespace

Sonarix::Product AggregatorModel::Sighting::Product() const
{
    Sonarix::Product product = report.Product();
    if (!isOfFamily)
    {
        product.mutable_productinfo()->set_ecosystem("other");
    }
    if (hasConfigurations)
    {
        product.mutable_productinfo()->mutable_configurations();
    }
    return product;
}

AggregatorModel::Row AggregatorModel::Sighting::AsRow() const
{
    Row row;
    row.state = report.state;
    row.protocols.insert(report.protocols.begin(), report.protocols.end());
    row.guid = report.guid;
    if (!report.address.empty())
    {
        row.address = report.address;
    }
    if (!report.name.empty())
    {
        row.name = report.name;
    }
    return row;
}

void AggregatorModel::Reported(const Sighting& sighting, Source source)
{
    const Report& report = sighting.report;
    const bool isByMdnsAlone = report.protocols == std::vector<SXCommon::DiscoveryProtocol>{SXCommon::MDNS};
    if (!sighting.isOfFamily || (isByMdnsAlone && report.type != "_kova-lanyard._tcp"))
    {
        return;
    }
    if (mode == SXCommon::UNKNOWN_MODE && source == Source::MDNS)
    {
        heldBack.push_back(sighting);
        return;
    }
    const Row reported = sighting.AsRow();
    if (report.guid == kOwn)
    {
        if (sighting.hasConfigurations)
        {
            return;
        }
        ownName = reported.name ? reported.name : ownName;
        ++infosNotified;
    }
    if (source == Source::CHILD)
    {
        children[report.guid] = reported;
        ++infosNotified;
        ++listsNotified;
        return;
    }
    const bool isNew = !rows.contains(report.guid);
    Row& row = rows[report.guid];
    row.guid = report.guid;
    row.protocols.insert(reported.protocols.begin(), reported.protocols.end());
    row.name = reported.name ? reported.name : row.name;
    if (isNew)
    {
        row.state = SXCommon::OFFLINE;
        row.address = reported.address;
    }
    Connect(report.guid);
}

void AggregatorModel::ChildRemoved(const std::string& guid)
{
    const std::size_t removed = children.erase(guid);
    infosNotified += removed;
    listsNotified += removed;
}

void AggregatorModel::Answered(const std::string& guid, const std::optional<std::string>& name,
                               const std::optional<std::string>& itsAddress)
{
    stamps.erase(guid);
    Row& row = rows[guid];
    row.guid = guid;
    row.state = SXCommon::ONLINE;
    row.name = name ? name : row.name;
    row.address = itsAddress ? itsAddress : row.address;
    if (guid == kOwn)
    {
        row.name = ownName;
        row.address = address;
    }
    Pass();
    ++listsNotified;
}

void AggregatorModel::Heartbeat(const std::string& guid, int status)
{
    Row& row = rows[guid];
    if (status == HEARTBEAT_OFFLINE)
    {
        listsNotified += row.state != SXCommon::OFFLINE ? 1U : 0U;
        row.state = SXCommon::OFFLINE;
        stamps.try_emplace(guid, nowMs / 1000);
    }
    if (status == HEARTBEAT_OFFLINE || status == HEARTBEAT_ONLINE)
    {
        Query(guid);
    }
    Pass();
}

void AggregatorModel::Advertised(const std::string& name)
{
    ownName = name;
    ++infosNotified;
    if (mode == SXCommon::UNKNOWN_MODE)
    {
        Connect(kOwn);
    }
}

void AggregatorModel::SetMode(SXCommon::ProductMode newMode, const std::string& newAddress)
{
    const SXCommon::ProductMode before = mode;
    const bool isChanged = newMode != before || newAddress != address;
    mode = newMode;
    address = newAddress;
    if (newMode != before)
    {
        const bool hadLoopBack = connections.contains(kOwn);
        ForgetOthers(rows);
        ForgetOthers(stamps);
        connections.clear();
        if (hadLoopBack)
        {
            Connect(kOwn);
        }
        reapAtMs.reset();
        if (before == SXCommon::UNKNOWN_MODE)
        {
            const std::vector<Sighting> sightings = std::move(heldBack);
            heldBack.clear();
            for (const Sighting& sighting : sightings)
            {
                Reported(sighting, Source::MDNS);
            }
        }
    }
    infosNotified += isChanged ? 1U : 0U;
}

void AggregatorModel::AdvanceTo(std::int64_t untilMs)
{
    for (;;)
    {
        const std::int64_t next = std::min(refreshAtMs, reapAtMs.value_or(refreshAtMs));
        if (next > untilMs)
        {
            break;
        }
        nowMs = next;
        if (reapAtMs == next)
        {
            Pass();
        }
        else
        {
            Refreshed(ssdpList);
            Refreshed(mdnsList);
            refreshAtMs += kRefreshMs;
        }
    }
    nowMs = untilMs;
}

void AggregatorModel::Connect(const std::string& guid)
{
    const bool isEncrypted = mode == SXCommon::SETUP || mode == SXCommon::ACCESSORY;
    connections.try_emplace(guid, isEncrypted ? "tarsier_mTLS" : "tarsier");
    Query(guid);
}

void AggregatorModel::Query(const std::string& guid)
{
    queries += connections[guid].empty() ? 0U : 1U;
}

void AggregatorModel::Pass()
{
    reapAtMs.reset();
    const std::int64_t now = nowMs / 1000;
    for (const auto& [guid, stamp] : stamps)
    {
        if (now - stamp >= kLimitSec)
        {
            connections.erase(guid);
        }
    }
    const bool isAnyOffline =
        std::any_of(rows.begin(), rows.end(),
                    [this](const auto& entry)
                    { return connections.contains(entry.first) && entry.second.state == SXCommon::OFFLINE; });
    if (isAnyOffline)
    {
        std::int64_t wait = kLimitSec;
        for (const auto& [guid, stamp] : stamps)
        {
            const std::int64_t left = stamp + kLimitSec - now;
            wait = left >= 0 ? std::min(wait, left) : wait;
        }
        reapAtMs = nowMs + std::max<std::int64_t>(wait, 1) * 1000;
    }
}

void AggregatorModel::Refreshed(const std::vector<Sighting>& list)
{
    for (const Sighting& sighting : list)
    {
        const Row listed = sighting.AsRow();
        const auto known = rows.find(listed.guid);
        if (known == rows.end())
        {
            rows[listed.guid] = listed;
            Connect(listed.guid);
            continue;
        }
        Row& row = known->second;
        row.guid = listed.guid;
        row.protocols.insert(listed.protocols.begin(), listed.protocols.end());
        row.name = listed.name ? listed.name : row.name;
        row.address = listed.address ? listed.address : row.address;
    }
}
