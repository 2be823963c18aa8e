#include "tools/network-status/WifiBands.h"

#include "schemas/NetManager.pb.h"

#include <map>
#include <sstream>

std::optional<NetManager::Protobuf::StationUsage> ParseWifiBands(const std::string& text)
{
    static const std::map<std::string, NetManager::Protobuf::WiFiRadioBand> bands = {
        {"2.4", NetManager::Protobuf::WIFI_RADIO_BAND_2_4GHZ},
        {"5", NetManager::Protobuf::WIFI_RADIO_BAND_5GHZ},
        {"6", NetManager::Protobuf::WIFI_RADIO_BAND_6GHZ}};
    NetManager::Protobuf::StationUsage usage;
    std::istringstream stream(text);
    for (std::string entry; std::getline(stream, entry, ',');)
    {
        const auto found = bands.find(entry);
        if (found == bands.end())
        {
            return std::nullopt;
        }
        usage.add_stationbands(found->second);
    }
    return usage;
}
