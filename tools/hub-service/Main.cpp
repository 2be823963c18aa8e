// Stand-in for the process that knows the product's description and requests its advertisement.
#include "runtime/DPrint.h"
#include "runtime/Task.h"
#include "tools/clients/options/Options.h"
#include "tools/hub-service/Description.h"
#include "tools/hub-service/HubClient.h"

#include <csignal>
#include <iostream>

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

int Fail(const std::string& what, int status)
{
    std::cerr << "hub-service: " << what << "\n";
    return status;
}

int Run(int argc, char** argv)
{
    std::vector<std::string> names = DescriptionOptions();
    names.insert(names.end(), {"host", "port"});
    Options options(names);
    if (!options.Parse(argc, argv))
    {
        return Fail(options.Error() + " (see hub-service --help)", 2);
    }
    if (options.WantsHelp() || options.WantsVersion())
    {
        std::cout << (options.WantsHelp() ? kHelp : "hub-service " SONARIX_VERSION "\n");
        return 0;
    }
    const auto port = Options::ParsePort(options.Get("port", "8084"));
    if (!port)
    {
        return Fail("--port takes a number from 1 to 65535", 2);
    }
    DPrint::Initialize();
    HUBAPI::AdvertisementInfo info;
    std::string error;
    if (!ReadDescription(options, info, error))
    {
        return Fail(error, 2);
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
