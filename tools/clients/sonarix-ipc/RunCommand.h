#pragma once

struct Command;

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_DONE = 0,           ///< also for a request that the service never answers
    EXIT_ERROR_RESPONSE = 1, ///< the service answered an error, or standard output cannot be written
    EXIT_USAGE = 2,
    EXIT_NO_SERVICE = 3, ///< no service, connection lost, or no response in time
    EXIT_NOT_YET = 4,    ///< the service answered a failure, but may execute the request later
};

/// Executes `command` at the service. A watch ends if no service is there at the start and if standard output is
/// closed. A record without --keep is published until SIGINT, SIGTERM or SIGHUP. Both continue after a restart of the
/// service. Lists, changes and outcomes are printed on standard output, anything else on standard error. For a
/// single-threaded program: blocks.
ExitStatus RunCommand(const Command& command);
