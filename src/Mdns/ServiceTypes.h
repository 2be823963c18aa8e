#pragma once

#include <map>
#include <string>

namespace SonarixService
{

/// The browsed service types by MdnsServiceIF::DiscoverableDeviceType. Each row has its own browser.
extern const std::map<int, std::string> kServiceTypes;

/// Returns an empty string, which matches no service, for a value without a row.
const std::string& ServiceTypeFromDeviceType(int deviceType);

/// Returns "RENDERER", "SERVER" or "CLOCK", otherwise "Unknown".
const char* NameFromDeviceType(int deviceType);

} // namespace SonarixService
