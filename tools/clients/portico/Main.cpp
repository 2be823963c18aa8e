// Command-line client of the product's local API gateway.
#include "runtime/DPrint.h"
#include "tools/clients/portico/Command.h"
#include "tools/clients/portico/RunCommand.h"

#include <csignal>
#include <iostream>
#include <unistd.h>

namespace
{

constexpr const char* kHelp = R"(Usage: portico [OPTION]... COMMAND
Send requests to the product's local API gateway.

  get PATH             print the response, as indented JSON
  post PATH [BODY]     send a body: JSON, @FILE, or - for standard input
  put PATH [BODY]      likewise
  delete PATH [BODY]   likewise
  watch PATH           print each notification, one JSON per line, until Ctrl-C

  --guid GUID          send to another product
  --host HOST          default localhost
  --port PORT          default 8084
  -h, --help, -V, --version

Exit status: 0 done, 1 the response is an error or standard output cannot be
written, 2 usage error, 3 no gateway.

Examples:
  portico get /sonarix/products
  portico watch /sonarix/info
  portico post /startDiscoveryAdvertisement '{"deviceName": "Kitchen"}'
)";

int Run(int argc, char** argv)
{
    Options options({"guid", "host", "port"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "portico", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    Command command;
    std::string error;
    if (!ReadCommand(options, command, error))
    {
        return UsageError("portico", error);
    }
    DPrint::Initialize();
    DPrint::SetLevels("0"); // the program prints errors itself
    return RunCommand(command);
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    _exit(
        FlushOutput("portico", Run(argc, argv))); // the I/O task of the library still runs: no static may be destroyed
}
