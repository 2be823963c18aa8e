// Stand-in for the product's network service: publishes the kernel's links and addresses through the gateway.
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
Watches the kernel's links and addresses, and serves /network/status and
/network/wifi/stationUsage through the local API gateway.

  --primary IFACE      the primary interface; default: the first wired one with carrier
  --wifi-bands LIST    bands of the Wi-Fi station, e.g. 2.4,5,6; default none
  --host HOST          host of the gateway; default localhost
  --port PORT          port of the gateway; default 8084
  -h, --help, -V, --version
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
            return Fail(std::string("netlink socket failed: ") + std::strerror(errno), 1);
        }
        const auto links = ReadLinks();
        if (!links)
        {
            DPRINT(s_log, DPrint::LEVEL_ERROR,
                   "cannot read the links; retrying at their next change: " << std::strerror(errno));
            continue;
        }
        publisher.Update(builder.Build(*links));
    }
}

int Run(int argc, char** argv)
{
    Options options({"primary", "wifi-bands", "host", "port"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "network-status", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    if (!options.Words().empty())
    {
        return UsageError("network-status", "no argument " + options.Words().front());
    }
    const auto usage = ParseWifiBands(options.Get("wifi-bands", ""));
    const auto port = Options::ParsePort(options.Get("port", "8084"));
    if (!usage || !port)
    {
        return UsageError("network-status", usage ? "--port takes a number from 1 to 65535"
                                                  : "--wifi-bands takes a list of 2.4, 5 and 6");
    }
    DPrint::Initialize();

    // The monitor is opened first, so that a change during ReadLinks() is not missed.
    std::string error;
    const std::unique_ptr<NetlinkMonitor> monitor = NetlinkMonitor::Open(error);
    const auto links = ReadLinks();
    if (!monitor || !links)
    {
        return Fail("cannot read the links: " + (monitor ? std::strerror(errno) : error), 1);
    }
    StatusBuilder builder(options.Get("primary", ""));
    Publisher publisher(IL::CreateTask("NetworkStatusTask", ""), builder.Build(*links), *usage);
    publisher.Start(options.Get("host", "localhost"), *port);
    const int status = Watch(*monitor, builder, publisher);
    _exit(status); // the task still runs, so its objects are not destroyed
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
