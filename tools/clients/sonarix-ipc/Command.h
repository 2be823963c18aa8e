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

/// The parsed command line. A value.
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
    enum class Protocol ///< the numbers are those of SonarixPb.Protocol
    {
        IPV4 = 0,
        IPV6 = 1,
        BOTH = 2,
    };

    Verb verb = Verb::LIST;
    bool isSsdp = false; ///< for list and watch; the other commands use mDNS
    std::string type;    ///< of the mDNS service
    std::string name;
    int interface = -1; ///< -1: any
    Protocol protocol = Protocol::IPV4;
    std::uint16_t port = 0;
    std::map<std::string, std::string> txt;
    std::shared_ptr<const SonarixPb::DeviceInfo> device; ///< the device to announce
    std::chrono::milliseconds every{2000};
    bool isKept = false;
    bool isJson = false;
};

/// Returns the options of this program.
Options CommandOptions();

/// Returns false, with the reason in `error`, for a usage error. Records that mDNS cannot carry are such errors, since
/// the service accepts them and publishes nothing. Reads an announcement from a file or standard input.
[[nodiscard]] bool ReadCommand(const Options& options, Command& command, std::string& error);
