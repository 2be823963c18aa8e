#pragma once

struct Command;

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_ANSWERED = 0,
    EXIT_ERROR_ANSWER = 1, ///< the gateway or the product answered an error, or the answer could not be written
    EXIT_USAGE = 2,
    EXIT_NO_GATEWAY = 3,
};

/// Holds the conversation with the gateway that `command` asks for; a watch ends only where no gateway is there to
/// begin with, the gateway refuses it, or standard output is closed. Answers go to standard output, errors to standard
/// error. Blocks the calling thread, which is no task.
ExitStatus Converse(const Command& command);
