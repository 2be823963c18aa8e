#include "tests/fakes/FakeConsole.h"

#include "platform/console/CommandTable.h"

#include <list>
#include <stdexcept>
#include <vector>

namespace
{

CLIClient::Descriptors s_commands;
CLIClient::Handler s_handler;

} // namespace

FakeConsole::FakeConsole()
{
    CLIClient::SetInitializeOverride(
        [](const CLIClient::Descriptors& commands, const CLIClient::Handler& handler)
        {
            s_commands = commands;
            s_handler = handler;
        });
}

FakeConsole::~FakeConsole()
{
    CLIClient::SetInitializeOverride(nullptr);
    Forget();
}

void FakeConsole::Forget()
{
    s_commands.clear();
    s_handler = nullptr;
}

std::string FakeConsole::Type(const std::string& line) const
{
    std::vector<std::string> words;
    std::string error;
    const std::size_t size =
        Console::SplitWords(line, words, error) ? Console::CommandTable(s_commands).Match(words) : 0;
    std::string command;
    for (std::size_t at = 0; at < size; ++at)
    {
        command += (at > 0 ? " " : "") + words[at];
    }
    std::string response;
    const auto argument = words.begin() + static_cast<std::ptrdiff_t>(size);
    if (size == 0 || !s_handler(command, std::list<std::string>(argument, words.end()), response))
    {
        throw std::runtime_error("no such command: " + line + ' ' + error);
    }
    return response;
}

const CLIClient::Descriptors& FakeConsole::Commands() const
{
    return s_commands;
}
