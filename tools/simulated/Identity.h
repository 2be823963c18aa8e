#pragma once

#include <cstdint>
#include <string>

/// What all simulated products of the family say of themselves.
namespace Family
{

constexpr const char* kManufacturer = "Kova";
constexpr const char* kEcosystem = "ORB2";
constexpr const char* kProductType = "SPEAKER";
constexpr const char* kModel = "Sonarix One";
constexpr const char* kColor = "WHITE";
constexpr const char* kSoftware = "1.0.0";

} // namespace Family

/// Who one simulated neighbour is.
struct Identity
{
    std::string guid;
    std::string name;       ///< as people see it
    std::string address;    ///< numeric
    std::uint32_t ipv4 = 0; ///< the same, host byte order
    unsigned index = 0;     ///< its serial number and MAC address follow from it
};

Identity MakeIdentity(unsigned index, std::string guid, std::string name, std::uint32_t ipv4);

std::string MacAddress(const Identity& identity);
std::string SerialNumber(const Identity& identity);

/// The record of a product of the family at /sonarix/info, as JSON.
std::string InfoRecord(const Identity& identity);

/// The strings of such a product's TXT record, as on the wire.
std::string TxtStrings(const Identity& identity);
