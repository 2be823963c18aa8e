// Command-line client of the service's debug console.
#include "runtime/SystemUtils.h"
#include "tools/clients/options/Options.h"
#include "tools/clients/sonarix-console/ConsoleClient.h"
#include "tools/clients/sonarix-console/ConsoleMessages.h"

#include <csignal>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr const char* kHelp = R"(Usage: sonarix-console [OPTION]... [COMMAND]
Inspect and control the product's discovery service.

Without COMMAND: on a terminal, a prompt with history and completion; else each
line of standard input is a command. Empty lines and lines that begin with #
are skipped. "help" lists the commands, "help COMMAND" prints the usage of one.

  sonarix ssdp list         list the products that SSDP has found, and testing products
  sonarix ssdp start        start SSDP, after it was stopped here
  sonarix ssdp stop         stop SSDP, and withdraw its testing products
  sonarix ssdp adddevice    add a testing product, or replace the one with that guid
  sonarix ssdp removedevice withdraw the testing products with these addresses
  sonarix ssdp clearall     withdraw all testing products
  sonarix mdns list         list the products that mDNS has found, and testing products
  sonarix mdns start        start mDNS, after it was stopped here
  sonarix mdns stop         stop mDNS, and withdraw its testing products
  sonarix mdns adddevice    add a testing product, or replace the one with that guid
  sonarix mdns removedevice withdraw the testing products with these addresses
  sonarix mdns clearall     announce all mDNS products as offline
  sonarix mdns addservice   publish a record
  sonarix mdns removeservice
                            withdraw the record of a type

  --json                    print the responses as received, one JSON per line
  -h, --help, -V, --version

Put words with blanks in double quotes: friendlyname="Living Room".
The socket is in the folder SONARIX_RUN_DIR, default /run/sonarix.

Exit status: 0 done, 1 the service answered an error or standard output cannot
be written, 2 usage error, 3 no service or no response.

Examples:
  sonarix-console
  sonarix-console sonarix ssdp list
  sonarix-console "sonarix ssdp start"
  sonarix-console sonarix ssdp stop
  sonarix-console sonarix ssdp adddevice guid=1111 friendlyname=testing ipaddress=192.0.2.7 ecosystem=ORB2
  sonarix-console sonarix ssdp removedevice 192.0.2.7
  sonarix-console sonarix ssdp clearall
  sonarix-console --json sonarix mdns list
  sonarix-console sonarix mdns list _kova-clock._tcp
  sonarix-console sonarix mdns start
  sonarix-console sonarix mdns stop
  sonarix-console sonarix mdns adddevice guid=1112 friendlyname="Living Room" ipaddress=192.0.2.8 modelname=wren
  sonarix-console sonarix mdns removedevice 192.0.2.8
  sonarix-console sonarix mdns clearall _kova-lanyard._tcp
  sonarix-console sonarix mdns addservice type=_kova_testing._tcp name=testing1 domain=local guid=1113
  sonarix-console sonarix mdns removeservice type=_kova_testing._tcp
  sonarix-console help sonarix mdns
  printf 'sonarix ssdp stop\nsonarix ssdp start\n' | sonarix-console
)";

/// A single word is a whole command line. Several words are the words of one command.
std::string CommandFromWords(const std::vector<std::string>& words)
{
    std::string command;
    for (const std::string& word : words)
    {
        command += (command.empty() ? "" : " ") + ConsoleMessages::Quoted(word);
    }
    return words.size() == 1 ? words.front() : command;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    Options options({}, {"json"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "sonarix-console", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    ConsoleClient client(SystemUtils::RunDir() + "/console", options.Has("json"));
    const bool isTerminal = isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0;
    const ExitStatus status = !options.Words().empty() ? client.Run(CommandFromWords(options.Words()))
                              : isTerminal             ? client.RunTerminal()
                                                       : client.RunStream();
    return FlushOutput("sonarix-console", status);
}
