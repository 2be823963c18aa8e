#pragma once

#include "Mdns/MdnsServiceIF.h"

#include <map>
#include <string>

namespace SonarixService
{

/// The browsed service types by MdnsServiceIF::DiscoverableDeviceType. Each row has its own browser.
inline const std::map<int, std::string> kServiceTypes{
    {MdnsServiceIF::RENDERER, "_kova-lanyard._tcp"},
    {MdnsServiceIF::CLOCK, "_kova-clock._tcp"},
    {MdnsServiceIF::ACCESSORY, "_kova-accessory._tcp"},
};

/// Returns an empty string, which matches no service, for a value that is not in kServiceTypes.
inline std::string ServiceTypeFromDeviceType(int deviceType)
{
    const auto row = kServiceTypes.find(deviceType);
    return row != kServiceTypes.end() ? row->second : std::string();
}

/// Returns "RENDERER", "SERVER" or "CLOCK", otherwise "Unknown".
inline const char* NameFromDeviceType(int deviceType)
{
    static constexpr const char* kNames[] = {"RENDERER", "SERVER", "CLOCK"};
    return deviceType >= MdnsServiceIF::RENDERER && deviceType <= MdnsServiceIF::CLOCK ? kNames[deviceType] : "Unknown";
}

} // namespace SonarixService
