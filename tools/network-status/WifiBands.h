#pragma once

#include <optional>
#include <string>

namespace NetManager::Protobuf
{
class StationUsage;
}

/// Parses a list of bands, "2.4,5,6" in any order; empty: no band. Returns nothing if an entry is unknown.
std::optional<NetManager::Protobuf::StationUsage> ParseWifiBands(const std::string& text);
