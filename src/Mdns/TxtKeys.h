#pragma once

#include <map>
#include <string>

namespace MDNS
{
struct Service;
}

namespace Sonarix
{
class ProductInfo;
}

namespace SonarixPb
{
class DeviceInfo;
}

/// Reading and writing of TXT records, from one table of keys. Stateless, safe from any thread.
namespace SonarixService
{

/// Fills `info` from the TXT records, the address and the instance name of a resolved service. The records come from
/// the network unchecked. A value that is not UTF-8 and a version that is not valid JSON leave their field unset. In
/// the instance name, U+FFFD replaces invalid bytes.
/// Returns the keys of the unusable values, separated by blanks, for a log line.
std::string GetProductInfoFromService(Sonarix::ProductInfo* info, const MDNS::Service& service);

/// The TXT records of a device announcement. All thirteen keys are present; values are empty if their field is.
std::map<std::string, std::string> TxtFromDeviceInfo(const SonarixPb::DeviceInfo& info);

} // namespace SonarixService
