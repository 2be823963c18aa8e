// Stand-in for the process that knows the product's description and requests its advertisement.
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "tools/clients/options/Options.h"
#include "tools/hub-service/Description.h"
#include "tools/hub-service/HubClient.h"

#include <csignal>

namespace
{

constexpr const char* kHelp = R"(Usage: hub-service [OPTION]... [FILE]
Requests the product's advertisement: posts its description to
/startDiscoveryAdvertisement if the name in the own record is missing or
different, and each time the network comes up.

FILE is a JSON object with the fields of an advertisement (deviceName,
productType, productName, productColor, softwareVersion, productLanguage,
serialNumber, country). Options override it. The guid comes from the
manufacturing data.

  --name NAME          friendly name of the product
  --type TYPE          product type
  --product NAME       model name
  --color COLOR        product colour
  --software VERSION   software version
  --language LANGUAGE  product language
  --serial NUMBER      serial number
  --country COUNTRY    country
  --host HOST          host of the gateway; default localhost
  --port PORT          port of the gateway; default 8084
  -h, --help, -V, --version
)";

int Run(int argc, char** argv)
{
    std::vector<std::string> names = DescriptionOptions();
    names.insert(names.end(), {"host", "port"});
    Options options(names);
    if (const auto status = options.ParseOrAnswer(argc, argv, "hub-service", kHelp, SONARIX_VERSION))
    {
        return *status;
    }
    const auto port = Options::ParsePort(options.Get("port", "8084"));
    if (!port)
    {
        return UsageError("hub-service", "--port takes a number from 1 to 65535");
    }
    DPrint::Initialize();
    HUBAPI::AdvertisementInfo info;
    std::string error;
    if (!ReadDescription(options, info, error))
    {
        return UsageError("hub-service", error);
    }
    NotifyTargetTaskIF* const task = IL::CreateTask("HubServiceTask", "");
    HubClient client(task, info);
    client.Start(options.Get("host", "localhost"), *port);
    IL::JoinTask(task); // the task never ends
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
