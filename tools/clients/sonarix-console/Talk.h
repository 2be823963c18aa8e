#pragma once

#include "tools/clients/sonarix-console/Link.h"
#include "tools/clients/sonarix-console/Signals.h"
#include "tools/clients/sonarix-console/Wire.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// Exit statuses of the program.
enum ExitStatus
{
    EXIT_DONE = 0,
    EXIT_ERROR_ANSWER = 1, ///< the service answered an error to some command, or an answer could not be written
    EXIT_USAGE = 2,
    EXIT_NO_SERVICE = 3,
};

/// Questions and answers of one console, and how a person gets to see them. For one thread, which it blocks.
class Talk final
{
public:
    /// `json`: answers as the service sends them, one line each, instead of their text.
    Talk(const std::string& path, bool json);

    /// One command; "help" and the beginning of commands is answered by what the service tells of them. Answers go to
    /// standard output, errors to standard error.
    ExitStatus Run(const std::string& command);
    /// Each line of standard input, until its end or until the service has gone; the worst status of all.
    ExitStatus RunStream();
    /// A person at a terminal.
    ExitStatus RunTerminal();

    /// `mdns list` waits a second for each of its types; others who ask come first.
    static constexpr std::chrono::seconds kAnswerLimit{30};

private:
    using Print = std::function<void(const std::string& text)>;

    bool Open();
    bool Ask(const std::string& request, std::string& answer);
    void ShowAsync(const std::string& text);
    void ShowHelp(const std::vector<Wire::Command>& commands) const;
    ExitStatus Learn();
    bool IsGivenUp();
    void TakeUnasked();
    bool Say(const std::string& problem) const;

    Link m_link;
    const bool m_json;
    Print m_printAsync;                    ///< whole lines
    std::optional<Signals> m_signals;      ///< at a terminal
    bool m_isEnding = false;               ///< nobody wants another line
    std::vector<Wire::Command> m_commands; ///< what the service knows, at a terminal
};
