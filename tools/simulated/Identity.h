#pragma once

#include <cstdint>
#include <string>

/// Properties that all simulated products of the family share.
namespace Family
{

constexpr const char* kManufacturer = "Kova";
constexpr const char* kEcosystem = "ORB2";
constexpr const char* kProductType = "SPEAKER";
constexpr const char* kModel = "Sonarix One";
constexpr const char* kColor = "WHITE";
constexpr const char* kSoftware = "1.0.0";

} // namespace Family

/// Identity of one simulated device.
struct Identity
{
    std::string guid;
    std::string name;       ///< the friendly name
    std::string address;    ///< numeric
    std::uint32_t ipv4 = 0; ///< `address` in host byte order
    unsigned index = 0;     ///< determines serial number and MAC address
};

Identity MakeIdentity(unsigned index, std::string guid, std::string name, std::uint32_t ipv4);

std::string MacAddress(const Identity& identity);
std::string SerialNumber(const Identity& identity);

/// JSON of the resource /sonarix/info of a product of the family.
std::string InfoRecord(const Identity& identity);

/// Wire form of the TXT record of a product of the family.
std::string TxtStrings(const Identity& identity);
