#pragma once

#include "tools/clients/options/MessageConnection.h"
#include "tools/clients/options/SignalDescriptor.h"
#include "tools/clients/sonarix-console/ConsoleMessages.h"
#include "tools/clients/sonarix-console/LineReader.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_DONE = 0,
    EXIT_ERROR_RESPONSE = 1, ///< the service answered an error, or standard output cannot be written
    EXIT_USAGE = 2,
    EXIT_NO_SERVICE = 3,
};

/// Sends commands to the service's console and prints the responses. For a single-threaded program: operations block.
class ConsoleClient final
{
public:
    /// `json`: prints the responses as received, one line each, instead of their texts.
    ConsoleClient(const std::string& path, bool json);

    /// Runs one command. "help" and the beginning of a command prints the matching commands. Responses are printed on
    /// standard output, errors on standard error.
    ExitStatus Run(const std::string& command);
    /// Runs each line of standard input until its end or until the service is gone. Returns the highest status.
    ExitStatus RunStream();
    /// Runs the commands that a user types at a terminal.
    ExitStatus RunTerminal();

    /// Timeout of a response. `mdns list` takes up to 1 s for each type, and commands of other consoles may be first.
    static constexpr std::chrono::seconds kResponseTimeout{30};

private:
    using Print = std::function<void(const std::string& text)>;

    bool Open();
    bool Request(const std::string& request, std::string& response);
    void PrintAsync(const std::string& line);
    void PrintHelp(const std::vector<ConsoleMessages::Command>& commands) const;
    ExitStatus LoadCommands();
    bool TakeSignal();
    void ReadAsync();
    bool Fail(const std::string& reason) const;

    MessageConnection<LineReader> m_connection;
    const bool m_json;
    Print m_printAsync;                               ///< prints whole lines
    std::optional<SignalDescriptor> m_signals;        ///< at a terminal only
    bool m_isEnding = false;                          ///< no further command is read
    std::vector<ConsoleMessages::Command> m_commands; ///< all commands of the service, at a terminal only
};
