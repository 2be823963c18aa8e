#pragma once

#include <string>

namespace MDNS
{
struct Service;
}

namespace Sonarix
{
class ProductInfo;
}

namespace SonarixService
{

/// Fills `info` from a resolved service: its TXT records, its address and its instance name. The records are a
/// neighbour's: a value that is not UTF-8, or a version that is no JSON, leaves its field unset; in the instance name
/// replacement characters stand for what is not UTF-8.
/// Gives the keys that were left out so, separated by blanks, for a log line; empty where all is well.
/// Stateless, safe from any thread.
std::string GetProductInfoFromService(Sonarix::ProductInfo* info, const MDNS::Service& service);

} // namespace SonarixService
