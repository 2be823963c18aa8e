#pragma once

#include <CLIClient.h>

#include <string>

/// The lines of the console's socket, without '\n': one JSON object each. docs/console-protocol.md describes them.
namespace Console
{

struct Request
{
    enum class Kind
    {
        COMMAND,
        HELP,
    };
    Kind kind = Kind::COMMAND;
    std::string text; ///< UTF-8: the command line, or the prefix of the commands to list
};

/// Returns false, with the reason in `error`, if `line` is not a request.
[[nodiscard]] bool RequestFromLine(const std::string& line, Request& request, std::string& error);

/// U+FFFD replaces each invalid byte of the texts.
std::string FormatResponse(bool isOk, const std::string& response);
std::string FormatAsync(const std::string& text);
std::string FormatCommands(const CLIClient::Descriptors& descriptors);

} // namespace Console
