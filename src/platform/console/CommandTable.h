#pragma once

#include <CLIClient.h>

#include <cstddef>
#include <string>
#include <vector>

/// Parsing of the debug console's command lines.
namespace Console
{

/// Splits `text` at blanks and tabs. Double quotes may enclose a word or a part of it (`name="Living Room"`); between
/// them, \" is a quote and \\ a backslash. Returns false, with the reason in `error`, for a quote without its end and
/// for a control character other than a tab.
[[nodiscard]] bool SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error);

/// The commands of a service. A value class.
class CommandTable
{
public:
    explicit CommandTable(CLIClient::Descriptors descriptors);

    /// Finds the longest command that `words` begins with. Returns the number of its words; 0 if there is none.
    std::size_t Match(const std::vector<std::string>& words) const;
    /// Returns the commands that begin with `words`, whose last word may be incomplete, in the order of registration.
    CLIClient::Descriptors WithPrefix(const std::vector<std::string>& words) const;

private:
    struct Command
    {
        std::vector<std::string> words; ///< in lower case
        std::shared_ptr<CLIClient::CLICmdDescriptor> descriptor;
    };
    std::vector<Command> m_commands;
};

} // namespace Console
