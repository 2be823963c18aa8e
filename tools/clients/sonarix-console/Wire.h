#pragma once

#include <string>
#include <vector>

/// The lines of the console's socket from the client's side, as docs/console-protocol.md has them; here without their
/// ends. Stateless.
namespace Wire
{

struct Command
{
    std::string words;
    std::string help;
    std::string usage;
};

struct Line
{
    enum class Kind
    {
        ANSWER,
        ASYNC,
        BROKEN, ///< nothing that a service says
    };
    Kind kind = Kind::BROKEN;
    bool isOk = false;
    std::string text;
    std::vector<Command> commands; ///< of an answer to a question for help
};

std::string AskToRun(const std::string& command);
std::string AskForHelp(const std::string& words);
Line Read(const std::string& text);

/// One word that the service reads as this text.
std::string Quoted(const std::string& word);

} // namespace Wire
