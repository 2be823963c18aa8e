#pragma once

#include <CLIClient.h>

#include <string>

/// The lines of the console's socket, see docs/console-protocol.md: one JSON object each, here without its end.
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
    std::string text; ///< UTF-8: what was typed, or the beginning of the commands that are asked for
};

/// False, with the reason in `error`, for any bytes that are no request.
[[nodiscard]] bool ReadRequest(const std::string& line, Request& request, std::string& error);

/// Texts that are not UTF-8 come out with U+FFFD in the place of each wrong byte.
std::string FormatAnswer(bool isOk, const std::string& response);
std::string FormatAsync(const std::string& text);
std::string FormatCommands(const CLIClient::Descriptors& descriptors);

} // namespace Console
