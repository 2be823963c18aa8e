// Many simulated products in one process, for the laboratory and for measuring.
#include "runtime/DPrint.h"
#include "tools/clients/options/Options.h"
#include "tools/simulated/crowd/Crowd.h"

#include <arpa/inet.h>
#include <csignal>
#include <iostream>
#include <memory>
#include <optional>

namespace
{

constexpr const char* kHelp = R"(Usage: product-crowd --count N --interface IFACE [OPTION]...
Be N products of the family on the network: each with a name, a guid, a host
name and an address of its own, which answers mDNS with packets of its own and
serves /sonarix/info at its gateway's port.

The addresses have to be local ones of this host:
    ip route add local 10.77.32.0/20 dev lo

  --count N              how many, 1 to 8192
  --interface IFACE      where mDNS is spoken
  --first-address IPV4   of the first product, the others follow; default 10.77.32.1
  --first-index I        of the first product, in names and guids; default 0
  --name-prefix PREFIX   what stands before the index in names; default Crowd
  --delay MIN:MAX        of each answer, in milliseconds; default 20:120
  --seed S               of the delays; default 1
  --port PORT            of the gateways; default 8090
  --quiet                log errors alone
  --help, --version

Prints "ready N" once all listen, then reads commands, one a line, and answers
each with a line "ok ..." or "error ...". Products are counted from 0.

  silence FIRST LAST     gone without goodbye: no mDNS, connections and ports closed
  goodbye FIRST LAST     the same, after having said so
  return FIRST LAST      back again
  rename FIRST LAST      each takes another name
  stats                  what there was to do
  quit                   ends the program, as the end of the input does
)";

int Fail(const std::string& what, int status)
{
    std::cerr << "product-crowd: " << what << std::endl;
    return status;
}

bool ReadDelay(const std::string& text, Responder::Settings& settings)
{
    constexpr unsigned int kMostMs = 60000;
    const std::size_t colon = text.find(':');
    const auto least = ReadNumber(text.substr(0, colon), kMostMs);
    const auto most = colon == std::string::npos ? least : ReadNumber(text.substr(colon + 1), kMostMs);
    if (!least || !most || *least > *most)
    {
        return false;
    }
    settings.minDelayMs = *least;
    settings.maxDelayMs = *most;
    return true;
}

/// What is wrong, or nothing.
std::string ReadSettings(const Options& options, Crowd::Settings& settings)
{
    constexpr unsigned int kMostIndex = 99999; // five digits in a guid
    const auto count = ReadNumber(options.Get("count", ""), Crowd::kMaxCount);
    if (!count || *count == 0)
    {
        return "--count takes a number from 1 to " + std::to_string(Crowd::kMaxCount);
    }
    settings.count = *count;
    const auto index = ReadNumber(options.Get("first-index", "0"), kMostIndex - *count + 1);
    if (!index)
    {
        return "--first-index takes a number; the last product's is " + std::to_string(kMostIndex) + " at most";
    }
    settings.firstIndex = *index;
    in_addr address{};
    if (inet_pton(AF_INET, options.Get("first-address", "10.77.32.1").c_str(), &address) != 1)
    {
        return "--first-address takes an IPv4 address";
    }
    settings.firstIpv4 = ntohl(address.s_addr);
    settings.namePrefix = options.Get("name-prefix", "Crowd");
    settings.mdns.interface = options.Get("interface", "");
    if (settings.mdns.interface.empty())
    {
        return "--interface is needed";
    }
    const auto port = Options::ParsePort(options.Get("port", "8090"));
    if (!port)
    {
        return "--port takes a number from 1 to 65535";
    }
    settings.mdns.port = *port;
    const auto seed = ReadNumber(options.Get("seed", "1"), UINT64_MAX);
    if (!seed)
    {
        return "--seed takes a number";
    }
    settings.mdns.seed = *seed;
    return ReadDelay(options.Get("delay", "20:120"), settings.mdns) ? "" : "--delay takes two numbers, such as 20:120";
}

int Run(int argc, char** argv)
{
    Options options({"count", "interface", "first-address", "first-index", "name-prefix", "delay", "seed", "port"},
                    {"quiet"});
    if (!options.Parse(argc, argv) || !options.Words().empty())
    {
        const std::string reason = options.Words().empty() ? options.Error() : "no argument " + options.Words().front();
        return Fail(reason + " (product-crowd --help tells more)", 2);
    }
    if (options.WantsHelp() || options.WantsVersion())
    {
        std::cout << (options.WantsHelp() ? kHelp : "product-crowd " SONARIX_VERSION "\n");
        return 0;
    }
    Crowd::Settings settings;
    if (const std::string reason = ReadSettings(options, settings); !reason.empty())
    {
        return Fail(reason + " (product-crowd --help tells more)", 2);
    }
    DPrint::Initialize();
    if (options.Has("quiet"))
    {
        DPrint::SetLevels("1");
    }
    constexpr std::size_t kNeighbours = 16;
    RaiseDescriptorLimit(settings.count * (1 + kNeighbours) +
                         64); // a listener each, and a connection of each neighbour
    ServeCommands("product-crowd", settings.count,
                  [&settings](NotifyTargetTaskIF* task) { return std::make_unique<Crowd>(task, settings); });
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
