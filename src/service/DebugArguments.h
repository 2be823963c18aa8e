#pragma once

#include <list>
#include <string>
#include <vector>

namespace Sonarix
{
class ProductInfo;
}

namespace SonarixPb
{
class Service;
}

namespace SonarixService
{

/// Converters of the `key=value` arguments of debug commands. A value ends at a second "=". Keys are case-sensitive.
/// Arguments without a key or without "=" are appended to `skipped`. Stateless; safe from any thread.
namespace DebugArguments
{

/// Each key sets the field of its name. Unknown keys are ignored.
Sonarix::ProductInfo ProductInfoFromArguments(const std::list<std::string>& arguments,
                                              std::vector<std::string>& skipped);

/// `name`, `type` and `domain` set the service's id. Each other pair is appended to the TXT record, in order.
SonarixPb::Service ServiceFromArguments(const std::list<std::string>& arguments, std::vector<std::string>& skipped);

} // namespace DebugArguments

} // namespace SonarixService
