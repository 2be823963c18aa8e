#include "tools/clients/sonarix-ipc/RunCommand.h"

#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/ContinuousCommand.h"
#include "tools/clients/sonarix-ipc/DeviceText.h"
#include "tools/clients/sonarix-ipc/IpcClient.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace
{

ExitStatus List(const Command& command, IpcClient& client)
{
    const auto response = client.WaitForResponse(client.RequestList());
    if (!response)
    {
        return EXIT_NO_SERVICE;
    }
    std::string error;
    const auto devices = IpcClient::DevicesFromResponse(*response, error);
    if (!devices)
    {
        PrintError(error);
        return EXIT_ERROR_RESPONSE;
    }
    if (command.isJson)
    {
        for (const Device& device : *devices)
        {
            std::cout << device.json << "\n";
        }
    }
    else if (devices->empty())
    {
        PrintError("the service knows none");
    }
    else
    {
        std::cout << DeviceTable(*devices);
    }
    return EXIT_DONE;
}

ExitStatus Add(IpcClient& client)
{
    const auto response = client.WaitForResponse(client.RequestAdd());
    return response ? client.ReportAdded(*response) : EXIT_NO_SERVICE;
}

} // namespace

ExitStatus RunCommand(const Command& command)
{
    IpcClient client(command);
    const bool isHeld = command.verb == Command::Verb::ADD && !command.isKept;
    if (isHeld)
    {
        client.CatchSignals();
    }
    if (!client.Connection().Open())
    {
        PrintError("no service at " + client.Connection().Socket().Path() + ": " + std::strerror(errno));
        return EXIT_NO_SERVICE;
    }
    switch (command.verb)
    {
    case Command::Verb::LIST:
        return List(command, client);
    case Command::Verb::UPDATE:
        return client.Update();
    case Command::Verb::REMOVE:
        return client.Remove();
    case Command::Verb::ANNOUNCE:
        return client.Announce();
    default:
        return command.verb == Command::Verb::ADD && !isHeld ? Add(client) : ContinuousCommand(command, client).Run();
    }
}
