#pragma once

#include <string>

namespace SonarixService
{

/// Reads the unit's MAC addresses, as 12 upper-case hexadecimal digits; an unreadable source gives an empty string.
/// Has no state but where the files are, so it is safe from any thread; blocks on reads of a few bytes.
/// Never throws, and never validates the text that the kernel gives.
class MacAddressReader final
{
public:
    /// `root` stands before every path; empty for the machine's own files.
    explicit MacAddressReader(std::string root = {});

    std::string GetMAC(const std::string& interfaceName) const; ///< "/sys/class/net/<name>/address"
    std::string GetMacFromDeviceTree() const;                   ///< "/proc/device-tree/ocp/macaddr/mac-address"
    std::string GetWiredMAC() const;                            ///< "eth0", then the device tree
    std::string GetPrimaryMAC() const;                          ///< the wired one, then that of "wlan0"

private:
    std::string m_root;
};

/// The same on the machine's own files.
std::string GetMAC(const std::string& interfaceName);
std::string GetMacFromDeviceTree();
std::string GetWiredMAC();
std::string GetPrimaryMAC();

} // namespace SonarixService
