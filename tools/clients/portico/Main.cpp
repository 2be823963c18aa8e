// A person's client of the product's local API gateway.
#include "runtime/DPrint.h"
#include "tools/clients/portico/Command.h"
#include "tools/clients/portico/Conversation.h"

#include <csignal>
#include <iostream>
#include <unistd.h>

namespace
{

constexpr const char* kHelp = R"(Usage: portico [OPTION]... COMMAND
Talk to the product's local API gateway.

  get PATH             print what the path answers, as indented JSON
  post PATH [BODY]     send a body: JSON, @FILE, or - for standard input
  put PATH [BODY]      likewise
  delete PATH [BODY]   likewise
  watch PATH           print what the path notifies, one JSON a line, until Ctrl-C

  --guid GUID          talk to another product
  --host HOST          default localhost
  --port PORT          default 8084
  --help, --version

Exit status: 0 answered, 1 an error was answered or the answer could not be
written, 2 usage, 3 no gateway.

Examples:
  portico get /sonarix/products
  portico watch /sonarix/info
  portico post /startDiscoveryAdvertisement '{"deviceName": "Kitchen"}'
)";

int Run(int argc, char** argv)
{
    Options options({"guid", "host", "port"});
    const bool isParsed = options.Parse(argc, argv);
    if (isParsed && options.WantsHelp())
    {
        std::cout << kHelp;
        return EXIT_ANSWERED;
    }
    if (isParsed && options.WantsVersion())
    {
        std::cout << "portico " << SONARIX_VERSION << "\n";
        return EXIT_ANSWERED;
    }
    Command command;
    std::string error = options.Error();
    if (!isParsed || !ReadCommand(options, command, error))
    {
        std::cerr << "portico: " << error << " (portico --help tells more)\n";
        return EXIT_USAGE;
    }
    DPrint::Initialize();
    DPrint::SetLevels("0"); // what a person needs to know is told by the program itself
    return Converse(command);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    int status = Run(argc, argv);
    if (!std::cout.flush())
    {
        std::cerr << "portico: standard output cannot be written\n";
        status = EXIT_ERROR_ANSWER;
    }
    _exit(status); // the library's I/O task never stops; statics are not to go under its feet
}
