// A person's client of the service's two local sockets.
#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/Conversation.h"

#include <csignal>
#include <iostream>

namespace
{

constexpr const char* kHelp = R"(Usage: sonarix-ipc [OPTION]... COMMAND
See what the product's discovery service knows, and publish mDNS records by it.

  list mdns TYPE        the devices of a service type
  list ssdp             the devices that SSDP knows
  watch mdns TYPE       what changes of the first list, asked for at a pace
  watch ssdp            what changes of the second, as the service tells it
  add TYPE NAME PORT [KEY=VALUE]...
                        publish a record until Ctrl-C, and show the devices of
                        its type as they come and go
  update TYPE NAME PORT [KEY=VALUE]...
                        give a published record another TXT
  remove TYPE NAME      withdraw the record of that type
  announce FIELD=VALUE...
                        announce the product itself, until it does so anew; also
                        announce JSON, @FILE, or - for standard input

  --keep                add: end at once, and leave the record published
  --every SECONDS       watch mdns: between two lists; default 2
  --interface IFACE     add, update: on this interface alone
  --protocol P          add, update: ipv4, ipv6 or both; default ipv4
  --json                one JSON object a line in place of text
  --help, --version

The service looks for devices of _kova-lanyard._tcp, _kova-clock._tcp and
_kova-accessory._tcp; records may be of any type, one of each: a second takes
the place of the first.
The service listens in the folder SONARIX_RUN_DIR, /run/sonarix unless set.

Exit status: 0 done, 1 the service answered an error or the answer could not be
written, 2 usage, 3 no service, or no answer, 4 not done, but the service may
still do it: it answers so while the network is down.

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
    const bool isParsed = options.Parse(argc, argv);
    if (isParsed && options.WantsHelp())
    {
        std::cout << kHelp;
        return EXIT_DONE;
    }
    if (isParsed && options.WantsVersion())
    {
        std::cout << "sonarix-ipc " << SONARIX_VERSION << "\n";
        return EXIT_DONE;
    }
    Command command;
    std::string error = options.Error();
    if (!isParsed || !ReadCommand(options, command, error))
    {
        std::cerr << "sonarix-ipc: " << error << " (sonarix-ipc --help tells more)\n";
        return EXIT_USAGE;
    }
    return Converse(command);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    int status = Run(argc, argv);
    if (!std::cout.flush())
    {
        std::cerr << "sonarix-ipc: standard output cannot be written\n";
        status = EXIT_ERROR_ANSWER;
    }
    return status;
}
