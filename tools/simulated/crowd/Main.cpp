// Many simulated products in one process, for the laboratory and the benchmarks.
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
Simulates N products of the family. Each has its own name, guid, host name and
address, responds to mDNS queries with its own packets, and serves
/sonarix/info at the port of its gateway.

The addresses must be local addresses of this host:
    ip route add local 10.77.32.0/20 dev lo

  --count N              number of products, 1 to 8192
  --interface IFACE      interface for mDNS
  --first-address IPV4   address of the first product, the others follow; default 10.77.32.1
  --first-index I        index of the first product, in names and guids; default 0
  --name-prefix PREFIX   text before the index in names; default Crowd
  --delay MIN:MAX        delay of each response in milliseconds; default 20:120
  --seed S               seed of the delays; default 1
  --port PORT            port of the gateways; default 8090
  --quiet                log only errors
  -h, --help, -V, --version

Prints "ready N" when all products listen. Then reads commands, one per line,
and prints one line per command, "ok ..." or "error ...". Indices start at 0.

  silence FIRST LAST     stop mDNS and close connections and ports, without goodbye
  goodbye FIRST LAST     the same, after a goodbye packet
  return FIRST LAST      start again
  rename FIRST LAST      give each product a new name
  stats                  print counters
  quit                   end the program, like the end of the input
)";

int Fail(const std::string& what, int status)
{
    std::cerr << "product-crowd: " << what << std::endl;
    return status;
}

bool ReadDelay(const std::string& text, MdnsResponder::Settings& settings)
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

/// Returns the reason why the options are invalid, else an empty text.
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
    return ReadDelay(options.Get("delay", "20:120"), settings.mdns) ? "" : "--delay takes two numbers, e.g. 20:120";
}

int Run(int argc, char** argv)
{
    Options options({"count", "interface", "first-address", "first-index", "name-prefix", "delay", "seed", "port"},
                    {"quiet"});
    if (!options.Parse(argc, argv) || !options.Words().empty())
    {
        const std::string reason = options.Words().empty() ? options.Error() : "no argument " + options.Words().front();
        return Fail(reason + " (see product-crowd --help)", 2);
    }
    if (options.WantsHelp() || options.WantsVersion())
    {
        std::cout << (options.WantsHelp() ? kHelp : "product-crowd " SONARIX_VERSION "\n");
        return 0;
    }
    Crowd::Settings settings;
    if (const std::string reason = ReadSettings(options, settings); !reason.empty())
    {
        return Fail(reason + " (see product-crowd --help)", 2);
    }
    DPrint::Initialize();
    if (options.Has("quiet"))
    {
        DPrint::SetLevels("1");
    }
    constexpr std::size_t kConnections = 16;
    // Per product one listener and the connections of other products' gateways.
    RaiseDescriptorLimit(settings.count * (1 + kConnections) + 64);
    ServeCommands("product-crowd", settings.count,
                  [&settings](NotifyTargetTaskIF* task) { return std::make_unique<Crowd>(task, settings); });
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
