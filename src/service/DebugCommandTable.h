#pragma once

#include <vector>

namespace SonarixService
{

/// Keys of the debug commands; 9 is none.
enum DebugCommandKey
{
    SSDP_LIST = 0,
    SSDP_START = 1,
    SSDP_STOP = 2,
    SSDP_CLEARALL = 3,
    SSDP_REMOVEDEVICE = 4,
    SSDP_ADDDEVICE = 5,
    MDNS_LIST = 6,
    MDNS_START = 7,
    MDNS_STOP = 8,
    MDNS_ADDSERVICE = 10,
    MDNS_REMOVESERVICE = 11,
    MDNS_CLEARALL = 12,
    MDNS_REMOVEDEVICE = 13,
    MDNS_ADDDEVICE = 14,
};

/// Texts for a person, kept for good.
struct DebugCommand
{
    DebugCommandKey key;
    const char* command;
    const char* help;
    const char* usage;
};

/// In the order of their registration.
const std::vector<DebugCommand>& DebugCommandTable();

} // namespace SonarixService
