// Stand-in for the product's network service: tells through the gateway what the kernel says of the network.
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "tools/clients/options/Options.h"
#include "tools/network-status/LinkReader.h"
#include "tools/network-status/NetlinkMonitor.h"
#include "tools/network-status/Publisher.h"
#include "tools/network-status/StatusBuilder.h"
#include "tools/network-status/WifiBands.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <unistd.h>

namespace
{

const DPrint s_log("NetworkStatus");

constexpr const char* kHelp = R"(Usage: network-status [OPTION]...
Watch the kernel's links and addresses, and serve /network/status and
/network/wifi/stationUsage through the local API gateway.

  --primary IFACE      the primary interface; default: the first wired one with carrier
  --wifi-bands LIST    bands of the Wi-Fi station, such as 2.4,5,6; default none
  --host HOST          of the gateway; default localhost
  --port PORT          of the gateway; default 8084
  --help, --version
)";

int Fail(const std::string& what, int status)
{
    std::cerr << "network-status: " << what << "\n";
    return status;
}

int Watch(NetlinkMonitor& monitor, StatusBuilder& builder, Publisher& publisher)
{
    for (;;)
    {
        if (!monitor.Wait())
        {
            return Fail(std::string("the kernel's messages ended: ") + std::strerror(errno), 1);
        }
        const auto links = ReadLinks();
        if (!links)
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR,
                   "cannot read the links, waiting for their next change: " << std::strerror(errno));
            continue;
        }
        publisher.Update(builder.Build(*links));
    }
}

int Run(int argc, char** argv)
{
    Options options({"primary", "wifi-bands", "host", "port"});
    if (!options.Parse(argc, argv) || !options.Words().empty())
    {
        const std::string reason = options.Words().empty() ? options.Error() : "no argument " + options.Words().front();
        return Fail(reason + " (network-status --help tells more)", 2);
    }
    if (options.WantsHelp() || options.WantsVersion())
    {
        std::cout << (options.WantsHelp() ? kHelp : "network-status " SONARIX_VERSION "\n");
        return 0;
    }
    const auto usage = ParseWifiBands(options.Get("wifi-bands", ""));
    const auto port = Options::ParsePort(options.Get("port", "8084"));
    if (!usage || !port)
    {
        return Fail(usage ? "--port takes a number from 1 to 65535" : "--wifi-bands takes a list of 2.4, 5 and 6", 2);
    }
    DPrint::Initialize();

    // The monitor first: what changes while the links are read is told afterwards.
    std::string error;
    const std::unique_ptr<NetlinkMonitor> monitor = NetlinkMonitor::Open(error);
    const auto links = ReadLinks();
    if (!monitor || !links)
    {
        return Fail("cannot ask the kernel: " + (monitor ? std::strerror(errno) : error), 1);
    }
    StatusBuilder builder(options.Get("primary", ""));
    Publisher publisher(IL::CreateTask("NetworkStatusTask", ""), builder.Build(*links), *usage);
    publisher.Start(options.Get("host", "localhost"), *port);
    const int status = Watch(*monitor, builder, publisher);
    _exit(status); // tasks run on; nothing of theirs is to go under their feet
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
