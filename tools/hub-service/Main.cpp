// Stand-in for the sibling process that knows what the product is: has it advertised.
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
Have the product advertised: post its description to
/startDiscoveryAdvertisement whenever the own record lacks or differs from its
name, and each time that the network comes up.

FILE is a JSON object with the fields of an advertisement (deviceName,
productType, productName, productColor, softwareVersion, productLanguage,
serialNumber, country); options win over it. The guid is the manufacturing
data's.

  --name NAME          of the product, as people see it
  --type TYPE          product type
  --product NAME       model name
  --color COLOR        product colour
  --software VERSION   software version
  --language LANGUAGE  product language
  --serial NUMBER      serial number
  --country COUNTRY    country
  --host HOST          of the gateway; default localhost
  --port PORT          of the gateway; default 8084
  --help, --version
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
        return Fail(options.Error() + " (hub-service --help tells more)", 2);
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
    IL::JoinTask(task); // for the life of the process
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    return Run(argc, argv);
}
