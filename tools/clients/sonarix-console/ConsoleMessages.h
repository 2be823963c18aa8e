#pragma once

#include <string>
#include <vector>

/// The lines of the console's socket on the client's side, without '\n'; docs/console-protocol.md describes them.
/// Stateless.
namespace ConsoleMessages
{

struct Command
{
    std::string words;
    std::string help;
    std::string usage;
};

struct Message
{
    enum class Kind
    {
        RESPONSE,
        ASYNC,
        INVALID, ///< not a line of this protocol
    };
    Kind kind = Kind::INVALID;
    bool isOk = false;
    std::string text;
    std::vector<Command> commands; ///< in the response to a help request
};

std::string CommandRequest(const std::string& command);
std::string HelpRequest(const std::string& words);
Message MessageFromLine(const std::string& line);

/// Quotes `word` if needed, so that the service parses it as one word.
std::string Quoted(const std::string& word);

} // namespace ConsoleMessages
