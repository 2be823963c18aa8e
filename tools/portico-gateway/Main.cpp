#include "tools/portico-gateway/GatewayProgram.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include <MfgData.h>

#include <charconv>
#include <csignal>
#include <cstring>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace
{

/// The guid of a unit without manufacturing data, such as a development machine.
constexpr const char* kNoGuid = "guid.is.not.set.perhaps.x86";

constexpr const char* kHelp =
    "Usage: portico-gateway [--port PORT] [--lan-port PORT] [--tls-dir DIR] [--peers FILE]\n"
    "The product's local API gateway: JSON-RPC 2.0 over WebSocket.\n"
    "\n"
    "  --port PORT      port on this machine, 8084 if not given; 0 takes any free one\n"
    "  --lan-port PORT  port for other products, 8090 if not given; 0 takes any free one\n"
    "  --tls-dir DIR    ca.pem, cert.pem and key.pem, for connections with TLS\n"
    "  --peers FILE     where products are, lines 'guid host[:port]', asked before the product table\n"
    "  --help, --version\n"
    "\n"
    "The own guid is that of the manufacturing data (SONARIX_MFG_DATA). SONARIX_LOG sets the log levels.\n";

struct Arguments
{
    Gateway::Settings settings;
    bool isHelp = false;
    bool isVersion = false;
    std::string error;
};

bool ReadPort(const std::string& text, std::uint16_t& port)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

Arguments ReadArguments(const std::vector<std::string>& words)
{
    Arguments arguments;
    for (std::size_t i = 0; i < words.size() && arguments.error.empty(); ++i)
    {
        const std::string& word = words[i];
        arguments.isHelp = arguments.isHelp || word == "--help";
        arguments.isVersion = arguments.isVersion || word == "--version";
        if (word == "--help" || word == "--version")
        {
            continue;
        }
        const bool isKnown = word == "--port" || word == "--lan-port" || word == "--tls-dir" || word == "--peers";
        if (!isKnown || i + 1 == words.size())
        {
            arguments.error = isKnown ? word + " needs a value" : "unknown argument: " + word;
            break;
        }
        const std::string& value = words[++i];
        Gateway::Settings& settings = arguments.settings;
        if (word == "--tls-dir")
        {
            settings.tlsDir = value;
        }
        else if (word == "--peers")
        {
            settings.peersFile = value;
        }
        else if (!ReadPort(value, word == "--port" ? settings.port : settings.lanPort))
        {
            arguments.error = word + " takes a number from 0 to 65535, not " + value;
        }
    }
    return arguments;
}

/// Each connection is a descriptor, and one opened with a guid may be two.
void RaiseDescriptorLimit()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max)
    {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

int Run(const Gateway::Settings& settings)
{
    NotifyTargetTaskIF* const task = IL::CreateTask("PorticoGateway", "");
    std::unique_ptr<Gateway::GatewayProgram> gateway;
    std::promise<std::string> started; // empty: well
    IL::BreakThread(
        [&]
        {
            std::string error;
            gateway = std::make_unique<Gateway::GatewayProgram>(task, settings);
            started.set_value(gateway->Start(error) ? std::string() : error);
        },
        task);
    const std::string error = started.get_future().get();
    if (!error.empty())
    {
        std::cerr << "portico-gateway: " << error << std::endl;
        std::_Exit(1); // the task still runs, and has nothing to save
    }
    IL::JoinTask(task);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Arguments arguments = ReadArguments({argv + 1, argv + argc});
    if (!arguments.error.empty())
    {
        std::cerr << "portico-gateway: " << arguments.error << "\n" << kHelp;
        return 2;
    }
    if (arguments.isHelp || arguments.isVersion)
    {
        std::cout << (arguments.isHelp ? kHelp : "portico-gateway " SONARIX_VERSION "\n");
        return 0;
    }
    DPrint::Initialize();
    signal(SIGPIPE, SIG_IGN);
    RaiseDescriptorLimit();
    arguments.settings.ownGuid = MfgData::Get("guid").value_or(kNoGuid);
    return Run(arguments.settings);
}
