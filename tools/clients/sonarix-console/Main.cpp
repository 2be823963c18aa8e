// A person's end of the service's debug console.
#include "runtime/SystemUtils.h"
#include "tools/clients/options/Options.h"
#include "tools/clients/sonarix-console/Talk.h"
#include "tools/clients/sonarix-console/Wire.h"

#include <csignal>
#include <iostream>
#include <string>
#include <unistd.h>
#include <vector>

namespace
{

constexpr const char* kHelp = R"(Usage: sonarix-console [OPTION]... [COMMAND]
Look into the product's discovery service and steer it by hand.

Without a command: a prompt with history and completion on a terminal, else
each line of standard input is a command; an empty one, and one that begins
with #, is left out. "help" tells what the service knows, "help COMMAND" how
it is used.

  sonarix ssdp list         what SSDP has found, and the made-up products
  sonarix ssdp start        start SSDP, after it was stopped here
  sonarix ssdp stop         stop SSDP, and withdraw its made-up products
  sonarix ssdp adddevice    make a product up, or change one of the same guid
  sonarix ssdp removedevice withdraw made-up products of these addresses
  sonarix ssdp clearall     withdraw all made-up products
  sonarix mdns list         what mDNS has found, and the made-up products
  sonarix mdns start        start mDNS, after it was stopped here
  sonarix mdns stop         stop mDNS, and withdraw its made-up products
  sonarix mdns adddevice    make a product up, or change one of the same guid
  sonarix mdns removedevice withdraw made-up products of these addresses
  sonarix mdns clearall     tell everybody that all products are offline
  sonarix mdns addservice   publish a record
  sonarix mdns removeservice
                            withdraw the record of a type

  --json                    answers as the service sends them, one JSON a line
  --help, --version

Words with blanks in them stand in double quotes: friendlyname="Living Room".
The service listens in the folder SONARIX_RUN_DIR, /run/sonarix unless set.

Exit status: 0 done, 1 the service answered an error or the answer could not be
written, 2 usage, 3 no service, or no answer.

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

/// One word is a whole command line; several are its words.
std::string CommandOf(const std::vector<std::string>& words)
{
    if (words.size() == 1)
    {
        return words.front();
    }
    std::string command;
    for (const std::string& word : words)
    {
        command += (command.empty() ? "" : " ") + Wire::Quoted(word);
    }
    return command;
}

int Run(int argc, char** argv)
{
    Options options({}, {"json"});
    const bool isParsed = options.Parse(argc, argv);
    if (isParsed && options.WantsHelp())
    {
        std::cout << kHelp;
        return EXIT_DONE;
    }
    if (isParsed && options.WantsVersion())
    {
        std::cout << "sonarix-console " << SONARIX_VERSION << "\n";
        return EXIT_DONE;
    }
    if (!isParsed)
    {
        std::cerr << "sonarix-console: " << options.Error() << " (sonarix-console --help tells more)\n";
        return EXIT_USAGE;
    }
    Talk talk(SystemUtils::RunDir() + "/console", options.Has("json"));
    if (!options.Words().empty())
    {
        return talk.Run(CommandOf(options.Words()));
    }
    return isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0 ? talk.RunTerminal() : talk.RunStream();
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    int status = Run(argc, argv);
    if (!std::cout.flush())
    {
        std::cerr << "sonarix-console: standard output cannot be written\n";
        status = EXIT_ERROR_ANSWER;
    }
    return status;
}
