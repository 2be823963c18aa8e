#pragma once

struct Command;

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_DONE = 0,
    EXIT_ERROR_RESPONSE = 1, ///< the gateway or the product answered an error, or standard output cannot be written
    EXIT_USAGE = 2,
    EXIT_NO_GATEWAY = 3,
};

/// Executes `command` at the gateway. A watch ends if no gateway is there at the start, if the gateway refuses it, and
/// if standard output is closed. Responses are printed on standard output, errors on standard error.
/// Blocks; not to be called on a task.
ExitStatus RunCommand(const Command& command);
