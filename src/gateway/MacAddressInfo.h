#pragma once

#include <string>

namespace SonarixService
{

/// Reads this product's MAC addresses as 12 upper-case hexadecimal digits. An unreadable source gives an empty string.
/// Safe from any thread. Blocks for reads of a few bytes. Never throws, never validates the kernel's text.
class MacAddressReader final
{
public:
    /// `root` is put before each path. Tests use a directory of their own.
    explicit MacAddressReader(std::string root = {});

    std::string GetMAC(const std::string& interfaceName) const; ///< "/sys/class/net/<name>/address"
    std::string GetMacFromDeviceTree() const;                   ///< "/proc/device-tree/ocp/macaddr/mac-address"
    std::string GetWiredMAC() const;                            ///< of "eth0", else of the device tree
    std::string GetPrimaryMAC() const;                          ///< the wired one, else that of "wlan0"

private:
    std::string m_root;
};

/// Overloads with an empty `root`: they read the files of this machine.
std::string GetMAC(const std::string& interfaceName);
std::string GetMacFromDeviceTree();
std::string GetWiredMAC();
std::string GetPrimaryMAC();

} // namespace SonarixService
