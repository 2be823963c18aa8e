#pragma once

#include <map>
#include <string>

namespace SonarixService
{

/// The service types that are browsed, by MdnsServiceIF::DiscoverableDeviceType; each row is a browser.
extern const std::map<int, std::string> kServiceTypes;

/// Empty for a value without a row, which matches no service.
const std::string& ServiceTypeOf(int deviceType);

/// "RENDERER", "SERVER", "CLOCK", and "Unknown" for anything else.
const char* DeviceTypeName(int deviceType);

} // namespace SonarixService
