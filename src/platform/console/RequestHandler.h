#pragma once

#include "platform/console/CommandTable.h"
#include <CLIClient.h>

#include <string>

namespace Console
{

/// From a line of the socket to the line that answers it. On the task of the commands.
class LineAnswerer
{
public:
    LineAnswerer(CLIClient::Descriptors descriptors, CLIClient::Handler handler);

    /// Any bytes, without a line's end. An exception out of the handler is an answer too.
    std::string Answer(const std::string& line) const;

private:
    std::string Run(const std::string& text) const;

    const CommandTable m_commands;
    const CLIClient::Handler m_handler;
};

} // namespace Console
