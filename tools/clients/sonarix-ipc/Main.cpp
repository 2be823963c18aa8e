// Command-line client of the service's two local sockets.
#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/RunCommand.h"

#include <csignal>
#include <iostream>

namespace
{

constexpr const char* kHelp = R"(Usage: sonarix-ipc [OPTION]... COMMAND
List and watch the devices that the product's discovery service knows, and publish
mDNS records through it.

  list mdns TYPE        list the devices of a service type
  list ssdp             list the devices that SSDP has found
  watch mdns TYPE       poll the first list and print its changes
  watch ssdp            print the changes that the service reports
  add TYPE NAME PORT [KEY=VALUE]...
                        publish a record until Ctrl-C, and print the changes of
                        the devices of its type
  update TYPE NAME PORT [KEY=VALUE]...
                        replace the TXT of a published record
  remove TYPE NAME      withdraw the record of that type
  announce FIELD=VALUE...
                        announce the product itself, until it announces itself
                        again; also announce JSON, @FILE, or - for standard input

  --keep                add: end at once and leave the record published
  --every SECONDS       watch mdns: polling interval, default 2
  --interface IFACE     add, update: publish on this interface only
  --protocol P          add, update: ipv4, ipv6 or both; default ipv4
  --json                print one JSON object per line instead of text
  -h, --help, -V, --version

The service finds devices of _kova-lanyard._tcp, _kova-clock._tcp and
_kova-accessory._tcp. It publishes records of any type, one per type: a second
record replaces the first.
The sockets are in the folder SONARIX_RUN_DIR, default /run/sonarix.

Exit status: 0 done, 1 the service answered an error or standard output cannot
be written, 2 usage error, 3 no service or no response, 4 not done, but the
service may do it later: it answers so while the network is down.

Examples:
  sonarix-ipc list mdns _kova-lanyard._tcp
  sonarix-ipc list ssdp --json
  sonarix-ipc watch mdns _kova-clock._tcp --every 5
  sonarix-ipc watch ssdp
  sonarix-ipc add _kova-clock._tcp "Kitchen" 9000 CLOCKDOMAIN=4 LEADERELECTED=true
  sonarix-ipc add --keep _http._tcp "Kitchen" 80 path=/
  sonarix-ipc update _http._tcp "Kitchen" 80 path=/new
  sonarix-ipc remove _http._tcp "Kitchen"
  sonarix-ipc announce friendlyname=Kitchen guid=5b0e1f5e producttype=SPEAKER
)";

int Run(int argc, char** argv)
{
    Options options = CommandOptions();
    if (const auto status = options.ParseOrAnswer(argc, argv, "sonarix-ipc", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    Command command;
    std::string error;
    return ReadCommand(options, command, error) ? RunCommand(command) : UsageError("sonarix-ipc", error);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return FlushOutput("sonarix-ipc", Run(argc, argv));
}
