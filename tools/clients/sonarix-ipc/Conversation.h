#pragma once

struct Command;

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_DONE = 0,         ///< or taken by the service, of what it never answers
    EXIT_ERROR_ANSWER = 1, ///< the service answered an error, or the answer could not be written
    EXIT_USAGE = 2,
    EXIT_NO_SERVICE = 3, ///< none there, or it went, or did not answer in time
    EXIT_NOT_YET = 4,    ///< the service answered a failure for what it may still do
};

/// Holds the conversation with the service that `command` asks for. A watch ends only where no service is there to
/// begin with, or standard output is closed; a record that is not kept is published until a signal that asks for the
/// end. Both outlive a restart of the service. Lists, changes and outcomes go to standard output, the rest to
/// standard error. Blocks the calling thread, the only one.
ExitStatus Converse(const Command& command);
