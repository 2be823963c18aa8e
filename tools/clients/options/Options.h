#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A command line: `--name VALUE` or `--name=VALUE`, flags, and words in any order; after `--` all arguments are words.
/// A repeated option has its last value. Names are not abbreviated. A value class.
class Options
{
public:
    /// `valued`, `flags`: the known names, without dashes. `--help`, `-h`, `--version` and `-V` are always known.
    explicit Options(std::vector<std::string> valued, std::vector<std::string> flags = {});

    /// Returns false for an unknown option and a missing value; Error() has the reason.
    [[nodiscard]] bool Parse(int argc, const char* const* argv);

    /// Parse(), and what every program does with the result: prints the help text, the version
    /// ("`program` `version`") or a usage error. Returns the exit status if the program must end, else nothing.
    std::optional<int> ParseOrAnswer(int argc, const char* const* argv, const std::string& program,
                                     const std::string& help, const std::string& version);

    const std::string& Error() const
    {
        return m_error;
    }
    bool WantsHelp() const
    {
        return Has("help");
    }
    bool WantsVersion() const
    {
        return Has("version");
    }
    std::optional<std::string> Get(const std::string& name) const;
    std::string Get(const std::string& name, const std::string& fallback) const;
    bool Has(const std::string& name) const
    {
        return m_values.count(name) != 0;
    }
    const std::vector<std::string>& Words() const
    {
        return m_words;
    }

    /// A number from `least` to 65535, else nothing.
    static std::optional<std::uint16_t> ParsePort(const std::string& text, std::uint16_t least = 1);

private:
    const std::vector<std::string> m_valued;
    const std::vector<std::string> m_flags;
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_words;
    std::string m_error;
};

/// Prints one line with the reason on standard error. Returns the exit status of a usage error, 2.
int UsageError(const std::string& program, const std::string& reason);

/// For the end of a program: flushes standard output. Returns `status`, or 1 if the output cannot be written, which
/// is printed on standard error.
int FlushOutput(const std::string& program, int status);
