#include "tools/clients/sonarix-ipc/KnownDevices.h"

#include "schemas/SonarixPb.pb.h"
#include <ProtoToMarkup.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <set>
#include <utility>

const std::string& Device::Field(const std::string& path) const
{
    static const std::string none;
    const auto found = fields.find(path);
    return found == fields.end() ? none : found->second;
}

Device DeviceFromInfo(const SonarixPb::DeviceInfo& info)
{
    Device device;
    try
    {
        device.json = ProtoToMarkup::ToJson(info, true, false, false);
    }
    catch (const ProtoToMarkup::MarkupError&)
    {
        device.json = "{}";
    }
    const nlohmann::json record = nlohmann::json::parse(device.json).flatten();
    for (const auto& [pointer, value] : record.items())
    {
        if (value.is_structured() || value.is_null()) // an empty object or list
        {
            continue;
        }
        std::string path = pointer.substr(1);
        std::replace(path.begin(), path.end(), '/', '.');
        device.fields[path] = value.is_string() ? value.get<std::string>() : value.dump();
    }
    return device;
}

KnownDevices::KnownDevices(std::string keyField)
    : m_keyField(std::move(keyField))
{
}

std::vector<DeviceChange> KnownDevices::ApplyList(const std::vector<Device>& devices)
{
    std::set<std::string> listed;
    for (const Device& device : devices)
    {
        listed.insert(KeyOf(device));
    }
    std::vector<DeviceChange> changes = RemoveIf([&](const std::string& key, const Entry& entry)
                                                 { return !entry.isUnconfirmed && listed.count(key) == 0; });
    for (DeviceChange& change : ApplyPartialList(devices))
    {
        changes.push_back(std::move(change));
    }
    return changes;
}

std::vector<DeviceChange> KnownDevices::ApplyPartialList(const std::vector<Device>& devices)
{
    std::vector<DeviceChange> changes;
    for (const Device& device : devices)
    {
        for (DeviceChange& change : ApplyReport(true, device))
        {
            changes.push_back(std::move(change));
        }
    }
    return changes;
}

std::vector<DeviceChange> KnownDevices::ApplyReport(bool isOnline, const Device& device)
{
    const std::string key = KeyOf(device);
    if (!isOnline)
    {
        m_known.erase(key);
        return {{DeviceChange::Kind::GONE, device, {}}};
    }
    const auto [entry, isNew] = m_known.try_emplace(key, Entry{device});
    if (isNew)
    {
        return {{DeviceChange::Kind::APPEARED, device, {}}};
    }
    const Device before = std::exchange(entry->second, Entry{device}).device;
    if (before == device)
    {
        return {};
    }
    return {{DeviceChange::Kind::CHANGED, device, before}};
}

void KnownDevices::MarkUnconfirmed()
{
    for (auto& [key, entry] : m_known)
    {
        entry.isUnconfirmed = true;
    }
}

std::vector<DeviceChange> KnownDevices::RemoveUnconfirmed()
{
    return RemoveIf([](const std::string&, const Entry& entry) { return entry.isUnconfirmed; });
}

std::string KnownDevices::KeyOf(const Device& device) const
{
    const std::string& key = device.Field(m_keyField);
    return key.empty() ? device.json : key;
}

template <typename Predicate>
std::vector<DeviceChange> KnownDevices::RemoveIf(Predicate isGone)
{
    std::vector<DeviceChange> changes;
    for (auto entry = m_known.begin(); entry != m_known.end();)
    {
        if (isGone(entry->first, entry->second))
        {
            changes.push_back({DeviceChange::Kind::GONE, std::move(entry->second.device), {}});
            entry = m_known.erase(entry);
        }
        else
        {
            ++entry;
        }
    }
    return changes;
}
