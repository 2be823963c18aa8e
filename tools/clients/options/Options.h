#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

/// A command line of `--name value` (or `--name=value`) options, flags and plain words. A value; never prints.
class Options
{
public:
    /// `valued`, `flags`: the names, without dashes, of the options that are known; `--help` and `--version` always
    /// are.
    explicit Options(std::vector<std::string> valued, std::vector<std::string> flags = {});

    /// False, with the reason in Error().
    [[nodiscard]] bool Parse(int argc, const char* const* argv);
    const std::string& Error() const
    {
        return m_error;
    }

    bool WantsHelp() const
    {
        return m_help;
    }
    bool WantsVersion() const
    {
        return m_version;
    }
    std::optional<std::string> Get(const std::string& name) const;
    std::string Get(const std::string& name, const std::string& fallback) const;
    bool Has(const std::string& flag) const
    {
        return m_values.count(flag) != 0;
    }
    const std::vector<std::string>& Words() const
    {
        return m_words;
    }

    /// 1 to 65535.
    static std::optional<std::uint16_t> ParsePort(const std::string& text);

private:
    bool TakeOption(const std::string& text, const char* next, bool& usedNext);

    std::vector<std::string> m_valued;
    std::vector<std::string> m_flags;
    std::map<std::string, std::string> m_values;
    std::vector<std::string> m_words;
    std::string m_error;
    bool m_help = false;
    bool m_version = false;
};
