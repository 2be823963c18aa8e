#include "tools/clients/options/Options.h"

#include <algorithm>
#include <charconv>
#include <utility>

Options::Options(std::vector<std::string> valued, std::vector<std::string> flags)
    : m_valued(std::move(valued))
    , m_flags(std::move(flags))
{
}

bool Options::Parse(int argc, const char* const* argv)
{
    for (int index = 1; index < argc; ++index)
    {
        const std::string text = argv[index];
        if (text.size() < 3 || text.compare(0, 2, "--") != 0) // "-" alone is a word: standard input
        {
            if (text.size() > 1 && text[0] == '-')
            {
                m_error = "unknown option " + text;
                return false;
            }
            m_words.push_back(text);
            continue;
        }
        bool usedNext = false;
        if (!TakeOption(text.substr(2), index + 1 < argc ? argv[index + 1] : nullptr, usedNext))
        {
            return false;
        }
        index += usedNext ? 1 : 0;
    }
    return true;
}

bool Options::TakeOption(const std::string& text, const char* next, bool& usedNext)
{
    if (text == "help" || text == "version")
    {
        (text == "help" ? m_help : m_version) = true;
        return true;
    }
    if (std::find(m_flags.begin(), m_flags.end(), text) != m_flags.end())
    {
        m_values[text];
        return true;
    }
    const std::size_t equals = text.find('=');
    const std::string name = text.substr(0, equals);
    if (std::find(m_valued.begin(), m_valued.end(), name) == m_valued.end())
    {
        m_error = "unknown option --" + name;
        return false;
    }
    if (equals != std::string::npos)
    {
        m_values[name] = text.substr(equals + 1);
        return true;
    }
    if (next == nullptr)
    {
        m_error = "--" + name + " needs a value";
        return false;
    }
    usedNext = true;
    m_values[name] = next;
    return true;
}

std::optional<std::string> Options::Get(const std::string& name) const
{
    const auto found = m_values.find(name);
    return found == m_values.end() ? std::nullopt : std::make_optional(found->second);
}

std::string Options::Get(const std::string& name, const std::string& fallback) const
{
    return Get(name).value_or(fallback);
}

std::optional<std::uint16_t> Options::ParsePort(const std::string& text)
{
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (error != std::errc() || end != text.data() + text.size() || port == 0)
    {
        return std::nullopt;
    }
    return port;
}
