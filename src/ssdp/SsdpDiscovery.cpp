#include "ssdp/SsdpDiscovery.h"

#include "base/EnumName.h"
#include "base/Heap.h"
#include "runtime/AsyncCallback.h"
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "runtime/TaskCheck.h"
#include "schemas/Sonarix.pb.h"

#include <utility>
#include <vector>

namespace SonarixService
{

namespace
{

const DPrint s_log("SsdpDiscovery");

const char* const kDeviceUrn = "urn:schemas-upnp-org:device:";

std::string TargetOf(SsdpDiscoveryIF::SearchScope scope)
{
    switch (scope)
    {
    case SsdpDiscoveryIF::SEARCH_SERVERS:
        return std::string(kDeviceUrn) + "MediaServer:1";
    case SsdpDiscoveryIF::SEARCH_RENDERERS:
        return std::string(kDeviceUrn) + "MediaRenderer:1";
    default:
        return "ssdp:all";
    }
}

} // namespace

const char* Name(SsdpDiscoveryIF::SearchScope scope)
{
    static constexpr const char* kNames[] = {"SEARCH_ALL", "SEARCH_SERVERS", "SEARCH_RENDERERS"};
    return EnumName(kNames, scope);
}

SsdpDiscovery::SsdpDiscovery(IHttpInterface* http, const std::string& iface, Callback<Sonarix::Product> productStateCb)
    : m_productStateCb(std::move(productStateCb))
    , m_task(IL::CreateTask("SsdpDiscoveryTask", ""))
    , m_gssdpHandler(GSSDPHandlerIF::Create(iface))
    , m_parser(http, m_task,
               AsyncCallback<SsdpDeviceParser::ParseStatus, Sonarix::ProductInfo>(
                   [this](SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info)
                   { OnParseComplete(status, info); },
                   m_task))
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: iface=%s", __func__, iface.c_str());
    m_gssdpHandler->RegisterForSearchStatus(AsyncCallback<GSSDPHandlerIF::SearchStatus>(
        [this](GSSDPHandlerIF::SearchStatus status) { OnSearchStatus(status); }, m_task));
    m_gssdpHandler->RegisterForResourceStatus(AsyncCallback<GSSDPHandlerIF::ResourceStatus, std::string, std::string>(
        [this](GSSDPHandlerIF::ResourceStatus status, const std::string& usn, const std::string& location)
        { OnResourceStatus(status, usn, location); },
        m_task));
}

SsdpDiscovery::~SsdpDiscovery()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    IL::StopTask(m_task);
    IL::JoinTask(m_task); // no handler runs from here on
    ClearDeviceStateFlags();
    RemoveOfflineDevices();
}

bool SsdpDiscovery::RefreshDeviceList(SearchScope state, int timeoutSec)
{
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: state=%s, timeoutSec=%d", __func__, Name(state), timeoutSec);
    const std::string target = TargetOf(state);
    ClearDeviceStateFlags(); // also if the handler refuses the search
    return m_gssdpHandler->StartSearch(target, timeoutSec);
}

void SsdpDiscovery::GetProductList(Sonarix::ProductList& list)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    const ScopedMutex lock(m_mutex);
    list.mutable_products()->Clear();
    for (const auto& [guid, device] : m_deviceMap)
    {
        if (device->state() == SXCommon::ONLINE)
        {
            list.add_products()->CopyFrom(*device);
        }
    }
}

void SsdpDiscovery::OnResourceStatus(GSSDPHandlerIF::ResourceStatus status, const std::string& usn,
                                     const std::string& location)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "status=" << Name(status) << ", usn=" << usn << ", location=" << location);
    const ScopedMutex lock(m_mutex);
    const std::string guid = ParseGuid(usn);
    if (guid.empty())
    {
        return;
    }
    const auto device = m_deviceMap.find(guid);
    if (device != m_deviceMap.end())
    {
        UpdateDevice(*device->second, status, location);
    }
    else if (status == GSSDPHandlerIF::RESOURCE_AVAILABLE)
    {
        AddDevice(guid, location);
    }
}

void SsdpDiscovery::UpdateDevice(Sonarix::Product& device, GSSDPHandlerIF::ResourceStatus status,
                                 const std::string& location)
{
    if (status != GSSDPHandlerIF::RESOURCE_AVAILABLE)
    {
        device.set_state(SXCommon::OFFLINE); // reported and removed at the end of the next search, unless it is back
        return;
    }
    Sonarix::ProductInfo info = device.productinfo();
    if (location != info.location())
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG, "updating location (was " << info.location() << ")");
        info.set_location(location);
        info.set_ipaddress(ExtractHostFromLocation(location));
        RequestParse(location, info); // OnParseComplete() changes the entry
    }
    else if (device.state() == SXCommon::OFFLINE)
    {
        device.set_state(SXCommon::ONLINE);
        m_productStateCb(device);
    }
}

void SsdpDiscovery::AddDevice(const std::string& guid, const std::string& location)
{
    DPRINT(s_log, DPrint::LEVEL_INFO, "Discovered a new device : " << guid);
    auto device = std::make_shared<Sonarix::Product>();
    device->add_protocols(SXCommon::SSDP);
    device->set_state(SXCommon::ONLINE);
    m_deviceMap[guid] = std::move(device);

    Sonarix::ProductInfo info;
    info.set_guid(guid);
    info.set_location(location);
    info.set_ipaddress(ExtractHostFromLocation(location));
    RequestParse(location, info);
}

void SsdpDiscovery::RequestParse(const std::string& location, const Sonarix::ProductInfo& info)
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Requesting parse for location " << location);
    m_parser.ParseDevice(location, info);
}

void SsdpDiscovery::OnParseComplete(SsdpDeviceParser::ParseStatus status, const Sonarix::ProductInfo& info)
{
    TASK_CHECK(m_task);
    DPRINT(s_log, DPrint::LEVEL_INFO, "status = " << Name(status));
    const ScopedMutex lock(m_mutex);
    if (!info.has_guid()) // a further request, made while the entry had no productinfo to copy
    {
        DPRINT(s_log, DPrint::LEVEL_ERROR,
               "Product Info has no guid. Cannot update map. How could this have happened??");
        return;
    }
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "status=" << Name(status) << ", location='" << info.location() << "'");
    if (status != SsdpDeviceParser::PARSE_SUCCESS)
    {
        DPRINT(s_log, DPrint::LEVEL_DEBUG, "Erasing guid from map: " << info.guid());
        m_deviceMap.erase(info.guid());
        return;
    }
    auto device = m_deviceMap.find(info.guid());
    if (device == m_deviceMap.end())
    {
        DPRINT(s_log, DPrint::LEVEL_WARNING,
               "Product does not exist in map, so adding it for guid. There must be an error to cause this. Guid's are "
               "pre-populated before starting parsing. Guid: "
                   << info.guid());
        // The added device has no state: it is not listed, and the next search sets it to OFFLINE.
        device = m_deviceMap.emplace(info.guid(), std::make_shared<Sonarix::Product>()).first;
    }
    device->second->mutable_productinfo()->CopyFrom(info);
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "Calling m_productStateCb with guid " << info.guid());
    m_productStateCb(*device->second);
}

void SsdpDiscovery::OnSearchStatus(GSSDPHandlerIF::SearchStatus status)
{
    TASK_CHECK(m_task);
    DPRINTF(s_log, DPrint::LEVEL_DEBUG, "%s: status=%s", __func__, Name(status));
    if (status != GSSDPHandlerIF::SEARCH_COMPLETE)
    {
        return;
    }
    RemoveOfflineDevices();
    Heap::GiveBack(); // the memory of removed devices
    if (s_log.IsLog(DPrint::LEVEL_VERBOSE))
    {
        const ScopedMutex lock(m_mutex);
        DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "#### SSDP device list ####");
        for (const auto& [guid, device] : m_deviceMap)
        {
            if (device->state() == SXCommon::ONLINE)
            {
                DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "####    %s", guid.c_str());
            }
        }
        DPRINTF(s_log, DPrint::LEVEL_VERBOSE, "##########################");
    }
}

void SsdpDiscovery::ClearDeviceStateFlags()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    const ScopedMutex lock(m_mutex);
    for (const auto& [guid, device] : m_deviceMap)
    {
        device->set_state(SXCommon::OFFLINE);
    }
}

void SsdpDiscovery::RemoveOfflineDevices()
{
    DPRINT(s_log, DPrint::LEVEL_DEBUG, "");
    const ScopedMutex lock(m_mutex);
    std::vector<std::string> removed;
    for (const auto& [guid, device] : m_deviceMap)
    {
        if (device->state() == SXCommon::OFFLINE)
        {
            DPRINT(s_log, DPrint::LEVEL_INFO, "Removing offline device : " << guid);
            m_productStateCb(*device);
            removed.push_back(guid);
        }
    }
    for (const std::string& guid : removed)
    {
        m_deviceMap.erase(guid);
    }
}

std::string SsdpDiscovery::ParseGuid(const std::string& usn)
{
    static const std::string s_uuid = "uuid:";
    const std::size_t begin = usn.find(s_uuid);
    if (begin == std::string::npos)
    {
        DPRINTF(s_log, DPrint::LEVEL_WARNING, "%s: Could not parse GUID from usn: %s", __func__, usn.c_str());
        return {};
    }
    const std::string guid = usn.substr(begin + s_uuid.size());
    return guid.substr(0, guid.find(':'));
}

std::string SsdpDiscovery::ExtractHostFromLocation(const std::string& location)
{
    std::string host = location;
    for (const std::string scheme : {"http://", "https://"})
    {
        const std::size_t begin = location.find(scheme);
        if (begin != std::string::npos)
        {
            host = location.substr(begin + scheme.size());
            break;
        }
    }
    return host.substr(0, host.find(':')); // without a port the path stays: only a colon ends the host
}

} // namespace SonarixService
