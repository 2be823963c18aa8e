#pragma once

#include "platform/console/CommandTable.h"
#include <CLIClient.h>

#include <string>

namespace Console
{

/// Executes the request in a line of the socket and formats the response. Task: that of the commands.
class RequestHandler
{
public:
    RequestHandler(CLIClient::Descriptors descriptors, CLIClient::Handler handler);

    /// `line` may contain any bytes but '\n'. If the command throws, the response is an error with the exception's
    /// text.
    std::string Handle(const std::string& line) const;

private:
    std::string Run(const std::string& text) const;

    const CommandTable m_commands;
    const CLIClient::Handler m_handler;
};

} // namespace Console
