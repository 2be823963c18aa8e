#pragma once

#include <CLIClient.h>

#include <cstddef>
#include <string>
#include <vector>

/// The words of what a person typed, and whose they are.
namespace Console
{

/// Splits at blanks and tabs. Double quotes hold a word together, also in its middle (`name="Living Room"`), and within
/// them a backslash takes a quote or a backslash as it is. False, with the reason in `error`: a quote without its end,
/// another control character.
[[nodiscard]] bool SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error);

/// The commands of a service. A value.
class CommandTable
{
public:
    explicit CommandTable(CLIClient::Descriptors descriptors);

    /// How many of the words are those of the longest command that they begin with; 0 where there is none.
    std::size_t Match(const std::vector<std::string>& words) const;
    /// Those whose words begin with `words`, the last one perhaps unfinished, in the order of their registration.
    CLIClient::Descriptors Beginning(const std::vector<std::string>& words) const;

private:
    struct Command
    {
        std::vector<std::string> words; ///< in lower case
        std::shared_ptr<CLIClient::CLICmdDescriptor> descriptor;
    };
    std::vector<Command> m_commands;
};

} // namespace Console
