#include "gateway/MacAddressInfo.h"

#include "runtime/DPrint.h"

#include <array>
#include <cctype>
#include <cstddef>
#include <cstdio>
#include <fstream>
#include <utility>

namespace SonarixService
{

namespace
{

const DPrint s_log("MacAddressInfo");

/// Length of "aa:bb:cc:dd:ee:ff".
constexpr std::size_t kMacTextLength = 17;
constexpr std::array<std::size_t, 12> kDigitPositions{0, 1, 3, 4, 6, 7, 9, 10, 12, 13, 15, 16};

} // namespace

MacAddressReader::MacAddressReader(std::string root)
    : m_root(std::move(root))
{
}

std::string MacAddressReader::GetMAC(const std::string& interfaceName) const
{
    std::ifstream file(m_root + "/sys/class/net/" + interfaceName + "/address");
    if (!file)
    {
        DPRINTF(s_log, DPrint::LEVEL_INFO, "Error Reading MAC address for interface %s", interfaceName.c_str());
        return {};
    }
    std::array<char, kMacTextLength> text{};
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    const auto length = static_cast<std::size_t>(file.gcount());

    std::string mac;
    for (const std::size_t position : kDigitPositions)
    {
        if (position < length) // a shorter text gives fewer digits, an empty one none
        {
            mac += static_cast<char>(std::toupper(static_cast<unsigned char>(text[position])));
        }
    }
    DPRINTF(s_log, DPrint::LEVEL_INFO, "%s(%s) = [%s]", "GetMAC", interfaceName.c_str(), mac.c_str());
    return mac;
}

std::string MacAddressReader::GetMacFromDeviceTree() const
{
    std::ifstream file(m_root + "/proc/device-tree/ocp/macaddr/mac-address", std::ios::binary);
    if (!file)
    {
        return {};
    }
    std::array<char, 6> bytes{};
    if (!file.read(bytes.data(), static_cast<std::streamsize>(bytes.size())))
    {
        return {};
    }

    std::string mac;
    for (const char byte : bytes)
    {
        std::array<char, 3> digits{};
        std::snprintf(digits.data(), digits.size(), "%02X", static_cast<unsigned>(static_cast<unsigned char>(byte)));
        mac += digits.data();
    }
    DPRINTF(s_log, DPrint::LEVEL_INFO, "MAC addr from DT: %s", mac.c_str());
    return mac;
}

std::string MacAddressReader::GetWiredMAC() const
{
    const std::string mac = GetMAC("eth0");
    return mac.empty() ? GetMacFromDeviceTree() : mac;
}

std::string MacAddressReader::GetPrimaryMAC() const
{
    std::string mac = GetWiredMAC();
    if (!mac.empty())
    {
        return mac;
    }
    mac = GetMacFromDeviceTree();
    if (!mac.empty())
    {
        return mac;
    }
    mac = GetMAC("wlan0");
    if (mac.empty())
    {
        DPRINTF(s_log, DPrint::LEVEL_ERROR, "Failed to get MAC address for wired MAC!");
    }
    return mac;
}

std::string GetMAC(const std::string& interfaceName)
{
    return MacAddressReader().GetMAC(interfaceName);
}

std::string GetMacFromDeviceTree()
{
    return MacAddressReader().GetMacFromDeviceTree();
}

std::string GetWiredMAC()
{
    return MacAddressReader().GetWiredMAC();
}

std::string GetPrimaryMAC()
{
    return MacAddressReader().GetPrimaryMAC();
}

} // namespace SonarixService
