// Many simulated UPnP devices in one process, good ones and such as misbehave, for the laboratory and for measuring.
#include "runtime/DPrint.h"
#include "tools/clients/options/Options.h"
#include "tools/simulated/upnp-devices/Devices.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

namespace
{

constexpr const char* kHelp = R"(Usage: upnp-devices --interface IFACE [OPTION]... KIND[:COUNT]...
Be UPnP media renderers on the network: each with a uuid and an address of its
own, which announces itself, answers searches after a random part of their MX,
and serves its description.

The addresses have to be local ones of this host:
    ip route add local 10.77.48.0/22 dev lo

  --interface IFACE      where SSDP is spoken
  --first-address IPV4   of the first device, the others follow; default 10.77.48.1
  --first-index I        of the first device, in names and uuids; default 0
  --guid GUID            of the first device, such as that of a real product
  --name NAME            of the first device
  --port PORT            of the descriptions; default 49152
  --gateway-port PORT    of the gateways; default 8090
  --no-gateway           no product has a gateway here
  --max-age SECONDS      of what is announced; default 1800
  --silent               all are away until they are told to return
  --seed S               of the delays; default 1
  --quiet                log errors alone
  --help, --version

Good kinds:
  product                of the family; serves /sonarix/info at its gateway's port
  renderer               of another maker
  hasty                  the same, and answers a search at once whatever its MX
Misbehaving ones, which call themselves products of the family:
  no-location, empty-location, long-location, other-scheme, loopback, closed-port
                         their LOCATION is none, or leads nowhere
  silent, slow           the server says nothing, or a byte a second
  status-404, status-500, status-503
                         it answers so; the last one with hours of Retry-After
  redirect               it answers with a redirection to a good description
  huge-body, endless-body
                         100 MiB, or no end
  cut-xml, deep-xml, entity-xml, latin1-xml, utf16-xml, nul-byte, empty-body
                         the description is none that can be read
  flapping               says alive and byebye 100 times a second; has a gateway
  misbehaving            one of each of these

Prints "ready N" once all listen, then reads commands, one a line, and answers
each with a line "ok ..." or "error ...". Devices are counted from 0.

  silence FIRST LAST     gone without byebye: no SSDP, connections and ports closed
  goodbye FIRST LAST     the same, after having said so
  return FIRST LAST      back again
  stats                  what there was to do
  quit                   ends the program, as the end of the input does
)";

int Fail(const std::string& what, int status)
{
    std::cerr << "upnp-devices: " << what << std::endl;
    return status;
}

/// What is wrong with a word KIND[:COUNT], or nothing.
std::string AddDevices(const std::string& word, std::vector<Kind>& kinds)
{
    const std::size_t colon = word.find(':');
    const std::string name = word.substr(0, colon);
    const auto count = colon == std::string::npos ? std::make_optional(std::size_t{1})
                                                  : ReadNumber(word.substr(colon + 1), Devices::kMaxCount);
    if (!count || kinds.size() + *count > Devices::kMaxCount)
    {
        return word + ": there is room for " + std::to_string(Devices::kMaxCount) + " devices";
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
        return "no kind of device " + name;
    }
    for (std::size_t number = 0; number < *count; ++number)
    {
        kinds.insert(kinds.end(), added.begin(), added.end());
    }
    return "";
}

/// What is wrong, or nothing.
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
        return "what shall there be? product:3, for instance";
    }
    settings.ssdp.interface = options.Get("interface", "");
    if (settings.ssdp.interface.empty())
    {
        return "--interface is needed";
    }
    in_addr address{};
    if (inet_pton(AF_INET, options.Get("first-address", "10.77.48.1").c_str(), &address) != 1)
    {
        return "--first-address takes an IPv4 address";
    }
    settings.firstIpv4 = ntohl(address.s_addr);
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

int Run(int argc, char** argv)
{
    Options options(
        {"interface", "first-address", "first-index", "guid", "name", "port", "gateway-port", "max-age", "seed"},
        {"no-gateway", "silent", "quiet"});
    if (!options.Parse(argc, argv))
    {
        return Fail(options.Error() + " (upnp-devices --help tells more)", 2);
    }
    if (options.WantsHelp() || options.WantsVersion())
    {
        std::cout << (options.WantsHelp() ? kHelp : "upnp-devices " SONARIX_VERSION "\n");
        return 0;
    }
    Devices::Settings settings;
    if (const std::string reason = ReadSettings(options, settings); !reason.empty())
    {
        return Fail(reason + " (upnp-devices --help tells more)", 2);
    }
    DPrint::Initialize();
    if (options.Has("quiet"))
    {
        DPrint::SetLevels("1");
    }
    constexpr std::size_t kNeighbours = 16;
    RaiseDescriptorLimit(settings.kinds.size() * (2 + kNeighbours) + 64); // two ports each, connections of neighbours
    ServeCommands("upnp-devices", settings.kinds.size(),
                  [&settings](NotifyTargetTaskIF* task) { return std::make_unique<Devices>(task, settings); });
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
