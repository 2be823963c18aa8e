#include "tools/portico-gateway/GatewayProgram.h"

#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "tools/clients/options/Options.h"
#include <MfgData.h>

#include <csignal>
#include <future>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

#include <sys/resource.h>

namespace
{

/// Guid of a unit without manufacturing data, for example a development machine.
constexpr const char* kNoGuid = "guid.is.not.set.perhaps.x86";

constexpr const char* kHelp =
    "Usage: portico-gateway [--port PORT] [--lan-port PORT] [--tls-dir DIR] [--peers FILE]\n"
    "The product's local API gateway: JSON-RPC 2.0 over WebSocket.\n"
    "\n"
    "  --port PORT      port for this machine, default 8084; 0: any free port\n"
    "  --lan-port PORT  port for other products, default 8090; 0: any free port\n"
    "  --tls-dir DIR    folder of ca.pem, cert.pem and key.pem, enables TLS\n"
    "  --peers FILE     addresses of products, lines 'guid host[:port]'; they take precedence over the product table\n"
    "  -h, --help, -V, --version\n"
    "\n"
    "The own guid is that of the manufacturing data (SONARIX_MFG_DATA). SONARIX_LOG sets the log levels.\n";

/// Returns the reason if an option is invalid, else an empty string.
std::string ReadSettings(const Options& options, Gateway::Settings& settings)
{
    if (!options.Words().empty())
    {
        return "unknown argument: " + options.Words().front();
    }
    for (const auto& [name, port] : {std::pair("port", &settings.port), std::pair("lan-port", &settings.lanPort)})
    {
        const std::string text = options.Get(name, std::to_string(*port));
        const auto value = Options::ParsePort(text, 0);
        if (!value)
        {
            return std::string("--") + name + " takes a number from 0 to 65535, not " + text;
        }
        *port = *value;
    }
    settings.tlsDir = options.Get("tls-dir", "");
    settings.peersFile = options.Get("peers", "");
    return {};
}

/// Raises the soft limit to the hard one: each connection needs one descriptor, one opened with a guid up to two.
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
    std::promise<std::string> started; // empty: success
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
        std::_Exit(1); // without destructors: the task still runs
    }
    IL::JoinTask(task);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    Options options({"port", "lan-port", "tls-dir", "peers"});
    if (const auto status = options.ParseOrAnswer(argc, argv, "portico-gateway", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    Gateway::Settings settings;
    if (const std::string error = ReadSettings(options, settings); !error.empty())
    {
        return UsageError("portico-gateway", error);
    }
    DPrint::Initialize();
    signal(SIGPIPE, SIG_IGN);
    RaiseDescriptorLimit();
    settings.ownGuid = MfgData::Get("guid").value_or(kNoGuid);
    return Run(settings);
}
