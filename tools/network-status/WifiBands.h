#pragma once

#include <optional>
#include <string>

namespace NetManager::Protobuf
{
class StationUsage;
}

/// Reads "2.4,5,6", any of the three in any order; empty: none. Nothing where an entry is something else.
std::optional<NetManager::Protobuf::StationUsage> ParseWifiBands(const std::string& text);
