#include "Mdns/ServiceTypes.h"

#include "Mdns/MdnsServiceIF.h"

namespace SonarixService
{

const std::map<int, std::string> kServiceTypes{
    {MdnsServiceIF::RENDERER, "_kova-lanyard._tcp"},
    {MdnsServiceIF::CLOCK, "_kova-clock._tcp"},
    {MdnsServiceIF::ACCESSORY, "_kova-accessory._tcp"},
};

const std::string& ServiceTypeFromDeviceType(int deviceType)
{
    static const std::string s_none;
    const auto row = kServiceTypes.find(deviceType);
    return row != kServiceTypes.end() ? row->second : s_none;
}

const char* NameFromDeviceType(int deviceType)
{
    switch (deviceType)
    {
    case MdnsServiceIF::RENDERER:
        return "RENDERER";
    case MdnsServiceIF::SERVER:
        return "SERVER";
    case MdnsServiceIF::CLOCK:
        return "CLOCK";
    default:
        return "Unknown";
    }
}

} // namespace SonarixService
