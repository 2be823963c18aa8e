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

/// The `key=value` arguments of debug commands. A value ends at a further "="; keys are exact, in lower case. What has
/// no key or no "=" goes to `skipped`. Stateless, from any thread.
namespace DebugArguments
{

/// Fills in the fields that have the keys' names, of those that a made-up product may have; other keys are ignored.
void Read(const std::list<std::string>& arguments, Sonarix::ProductInfo& info, std::vector<std::string>& skipped);

/// `name`, `type` and `domain`; every other pair goes to the TXT record, in order.
void Read(const std::list<std::string>& arguments, SonarixPb::Service& service, std::vector<std::string>& skipped);

} // namespace DebugArguments

} // namespace SonarixService
