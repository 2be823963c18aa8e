#include "tools/clients/sonarix-ipc/Conversation.h"

#include "tools/clients/sonarix-ipc/Command.h"
#include "tools/clients/sonarix-ipc/Print.h"
#include "tools/clients/sonarix-ipc/Stay.h"
#include "tools/clients/sonarix-ipc/Talk.h"

#include <cerrno>
#include <cstring>
#include <iostream>

namespace
{

ExitStatus List(const Command& command, Talk& talk)
{
    const auto answer = talk.Answer(talk.AskForList());
    if (!answer)
    {
        return EXIT_NO_SERVICE;
    }
    std::string error;
    const auto devices = Talk::ReadList(*answer, error);
    if (!devices)
    {
        Say(error);
        return EXIT_ERROR_ANSWER;
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
        Say("the service knows none");
    }
    else
    {
        std::cout << DeviceTable(*devices);
    }
    return EXIT_DONE;
}

ExitStatus Add(Talk& talk)
{
    const auto answer = talk.Answer(talk.AskToAdd());
    return answer ? talk.ReadAdded(*answer) : EXIT_NO_SERVICE;
}

} // namespace

ExitStatus Converse(const Command& command)
{
    Talk talk(command);
    const bool isHeld = command.verb == Command::Verb::ADD && !command.isKept;
    if (isHeld)
    {
        talk.TheDoor().CatchSignals();
    }
    if (!talk.TheDoor().Open())
    {
        Say("no service at " + talk.TheDoor().Path() + ": " + std::strerror(errno));
        return EXIT_NO_SERVICE;
    }
    switch (command.verb)
    {
    case Command::Verb::LIST:
        return List(command, talk);
    case Command::Verb::UPDATE:
        return talk.Update();
    case Command::Verb::REMOVE:
        return talk.Remove();
    case Command::Verb::ANNOUNCE:
        return talk.Announce();
    default:
        return command.verb == Command::Verb::ADD && !isHeld ? Add(talk) : Stay(command, talk).Run();
    }
}
