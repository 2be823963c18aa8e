#include "tests/fakes/FakeConsole.h"

#include <algorithm>
#include <cctype>
#include <list>
#include <stdexcept>

namespace
{

CLIClient::Descriptors s_commands;
CLIClient::Handler s_handler;

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

/// Splits at blanks. Blanks between double quotes are part of the word.
std::list<std::string> WordsOf(const std::string& line)
{
    std::list<std::string> words{""};
    bool isQuoted = false;
    for (const char letter : line)
    {
        isQuoted = isQuoted != (letter == '"');
        if (letter == ' ' && !isQuoted && !words.back().empty())
        {
            words.emplace_back();
        }
        else if (letter != '"' && (letter != ' ' || isQuoted))
        {
            words.back() += letter;
        }
    }
    return words;
}

} // namespace

FakeConsole::FakeConsole()
{
    CLIClient::s_initializeOverride.Set(
        [](const CLIClient::Descriptors& commands, const CLIClient::Handler& handler)
        {
            s_commands = commands;
            s_handler = handler;
        });
}

FakeConsole::~FakeConsole()
{
    CLIClient::s_initializeOverride.Set(nullptr);
    Forget();
}

void FakeConsole::Forget()
{
    s_commands.clear();
    s_handler = nullptr;
}

std::string FakeConsole::Type(const std::string& line) const
{
    std::list<std::string> arguments = WordsOf(line);
    std::string command;
    std::string response;
    const auto isRegistered = [&command](const auto& each) { return each->command == Lower(command); };
    while (!arguments.empty() && std::none_of(s_commands.begin(), s_commands.end(), isRegistered))
    {
        command += (command.empty() ? "" : " ") + arguments.front();
        arguments.pop_front();
    }
    if (std::none_of(s_commands.begin(), s_commands.end(), isRegistered) || !s_handler(command, arguments, response))
    {
        throw std::runtime_error("no such command: " + line);
    }
    return response;
}

const CLIClient::Descriptors& FakeConsole::Commands() const
{
    return s_commands;
}
