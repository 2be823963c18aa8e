// Many simulated products in one process, for the laboratory and the benchmarks.
#include "tools/clients/options/Options.h"
#include "tools/simulated/crowd/Crowd.h"

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
    if (!options.Words().empty())
    {
        return "no argument " + options.Words().front();
    }
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
    if (std::string reason = ReadNetwork(options, "10.77.32.1", settings.mdns.interface, settings.firstIpv4);
        !reason.empty())
    {
        return reason;
    }
    settings.namePrefix = options.Get("name-prefix", "Crowd");
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

} // namespace

int main(int argc, char** argv)
{
    Options options({"count", "interface", "first-address", "first-index", "name-prefix", "delay", "seed", "port"},
                    {"quiet"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "product-crowd", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    Crowd::Settings settings;
    if (const std::string reason = ReadSettings(options, settings); !reason.empty())
    {
        return UsageError("product-crowd", reason);
    }
    constexpr std::size_t kSocketsEach = 17; // one listener and 16 connections of other products' gateways
    ServeCommands("product-crowd", options, settings.count, kSocketsEach,
                  [&settings](NotifyTargetTaskIF* task) { return std::make_unique<Crowd>(task, settings); });
}
