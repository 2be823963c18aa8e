#pragma once

#include "tools/clients/options/Options.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace SonarixPb
{
class DeviceInfo;
}

/// What the person asked for. A value.
struct Command
{
    enum class Verb
    {
        LIST,
        WATCH,
        ADD,
        UPDATE,
        REMOVE,
        ANNOUNCE,
    };
    enum class Protocol ///< numbered as the service's
    {
        IPV4 = 0,
        IPV6 = 1,
        BOTH = 2,
    };

    Verb verb = Verb::LIST;
    bool isSsdp = false; ///< list and watch; the others are mDNS's
    std::string type;    ///< of the mDNS service
    std::string name;
    int interface = -1; ///< any
    Protocol protocol = Protocol::IPV4;
    std::uint16_t port = 0;
    std::map<std::string, std::string> txt;
    std::shared_ptr<const SonarixPb::DeviceInfo> device; ///< what to announce
    std::chrono::milliseconds every{2000};
    bool isKept = false;
    bool isJson = false;
};

/// The options that ReadCommand knows.
Options CommandOptions();

/// False, with the reason in `error`: a usage error, records that mDNS cannot carry among them, since the service
/// accepts these without a word. Reads an announcement from where it says (`@FILE`, `-`).
[[nodiscard]] bool ReadCommand(const Options& options, Command& command, std::string& error);
