// Many simulated UPnP devices in one process, compliant and misbehaving ones, for the laboratory and the benchmarks.
#include "tools/clients/options/Options.h"
#include "tools/simulated/upnp-devices/Devices.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace
{

constexpr const char* kHelp = R"(Usage: upnp-devices --interface IFACE [OPTION]... KIND[:COUNT]...
Simulates UPnP media renderers. Each has its own uuid and address, announces
itself, responds to searches after a random part of MX, and serves its
description.

The addresses must be local addresses of this host:
    ip route add local 10.77.48.0/22 dev lo

  --interface IFACE      interface for SSDP
  --first-address IPV4   address of the first device, the others follow; default 10.77.48.1
  --first-index I        index of the first device, in names and uuids; default 0
  --guid GUID            guid of the first device, e.g. that of a real product
  --name NAME            name of the first device
  --port PORT            HTTP port of the descriptions; default 49152
  --gateway-port PORT    port of the gateways; default 8090
  --no-gateway           start no gateways
  --max-age SECONDS      CACHE-CONTROL max-age of announcements; default 1800
  --silent               all devices are absent until the command return
  --seed S               seed of the delays; default 1
  --quiet                log only errors
  -h, --help, -V, --version

Compliant kinds:
  product                of the family; serves /sonarix/info at the gateway port
  renderer               of another manufacturer
  hasty                  a renderer that responds to searches immediately
Misbehaving kinds, which claim to be products of the family:
  no-location, empty-location, long-location, other-scheme, loopback, closed-port
                         LOCATION is missing, unusual or unreachable
  silent, slow           the server sends nothing, or one byte per second
  status-404, status-500, status-503
                         HTTP status; the last one with a Retry-After of 12 hours
  redirect               redirects to a valid description
  huge-body, endless-body
                         100 MiB, or no end
  cut-xml, deep-xml, entity-xml, latin1-xml, utf16-xml, nul-byte, empty-body
                         malformed or unusual description
  flapping               sends alive and byebye 100 times per second; has a gateway
  misbehaving            one device of each kind above

Prints "ready N" when all devices listen. Then reads commands, one per line,
and prints one line per command, "ok ..." or "error ...". Indices start at 0.

  silence FIRST LAST     stop SSDP and close connections and ports, without byebye
  goodbye FIRST LAST     the same, after byebye
  return FIRST LAST      start again
  stats                  print counters
  quit                   end the program, like the end of the input
)";

/// Appends the devices of a word KIND[:COUNT]. Returns the reason if it is invalid, else an empty text.
std::string AddDevices(const std::string& word, std::vector<Kind>& kinds)
{
    const std::size_t colon = word.find(':');
    const std::string name = word.substr(0, colon);
    const auto count = colon == std::string::npos ? std::make_optional(std::size_t{1})
                                                  : ReadNumber(word.substr(colon + 1), Devices::kMaxCount);
    if (!count || kinds.size() + *count > Devices::kMaxCount)
    {
        return word + ": the limit is " + std::to_string(Devices::kMaxCount) + " devices";
    }
    std::vector<Kind> added;
    if (name == "misbehaving")
    {
        added = AllKinds();
        std::erase_if(added, [](Kind kind) { return !IsMisbehaving(kind); });
    }
    else if (const std::optional<Kind> kind = KindOf(name))
    {
        added = {*kind};
    }
    else
    {
        return "unknown kind of device " + name;
    }
    for (std::size_t number = 0; number < *count; ++number)
    {
        kinds.insert(kinds.end(), added.begin(), added.end());
    }
    return "";
}

/// Returns the reason why the options are invalid, else an empty text.
std::string ReadSettings(const Options& options, Devices::Settings& settings)
{
    for (const std::string& word : options.Words())
    {
        if (const std::string reason = AddDevices(word, settings.kinds); !reason.empty())
        {
            return reason;
        }
    }
    if (settings.kinds.empty())
    {
        return "no devices given, e.g. product:3";
    }
    if (std::string reason = ReadNetwork(options, "10.77.48.1", settings.ssdp.interface, settings.firstIpv4);
        !reason.empty())
    {
        return reason;
    }
    constexpr unsigned int kMostIndex = 0xFFFFFF;
    const auto index = ReadNumber(options.Get("first-index", "0"), kMostIndex);
    const auto maxAge = ReadNumber(options.Get("max-age", "1800"), 86400U);
    const auto seed = ReadNumber(options.Get("seed", "1"), UINT64_MAX);
    const auto port = Options::ParsePort(options.Get("port", "49152"));
    const auto gatewayPort = Options::ParsePort(options.Get("gateway-port", "8090"));
    if (!index || !maxAge || *maxAge == 0 || !seed || !port || !gatewayPort)
    {
        return std::string(!index                ? "--first-index"
                           : !maxAge || !*maxAge ? "--max-age"
                           : !seed               ? "--seed"
                           : !port               ? "--port"
                                                 : "--gateway-port") +
               " takes a number that fits";
    }
    settings.firstIndex = *index;
    settings.ssdp.maxAgeSec = *maxAge;
    settings.ssdp.seed = *seed;
    settings.port = *port;
    settings.gatewayPort = *gatewayPort;
    settings.guid = options.Get("guid", "");
    settings.name = options.Get("name", "");
    settings.hasGateways = !options.Has("no-gateway");
    settings.isSilent = options.Has("silent");
    return "";
}

} // namespace

int main(int argc, char** argv)
{
    Options options(
        {"interface", "first-address", "first-index", "guid", "name", "port", "gateway-port", "max-age", "seed"},
        {"no-gateway", "silent", "quiet"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "upnp-devices", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    Devices::Settings settings;
    if (const std::string reason = ReadSettings(options, settings); !reason.empty())
    {
        return UsageError("upnp-devices", reason);
    }
    constexpr std::size_t kSocketsEach = 18; // two listeners and 16 connections of other products' gateways
    ServeCommands("upnp-devices", options, settings.kinds.size(), kSocketsEach,
                  [&settings](NotifyTargetTaskIF* task) { return std::make_unique<Devices>(task, settings); });
}
