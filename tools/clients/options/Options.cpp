#include "tools/clients/options/Options.h"

#include <algorithm>
#include <charconv>
#include <getopt.h>
#include <iostream>
#include <utility>

Options::Options(std::vector<std::string> valued, std::vector<std::string> flags)
    : m_valued(std::move(valued))
    , m_flags(std::move(flags))
{
}

bool Options::Parse(int argc, const char* const* argv)
{
    std::vector<option> known = {{"help", no_argument, nullptr, 'h'}, {"version", no_argument, nullptr, 'V'}};
    for (const std::string& name : m_valued)
    {
        known.push_back({name.c_str(), required_argument, nullptr, 0});
    }
    for (const std::string& name : m_flags)
    {
        known.push_back({name.c_str(), no_argument, nullptr, 0});
    }
    known.push_back({});
    std::vector<char*> arguments;
    for (int at = 0; at < argc; ++at)
    {
        arguments.push_back(const_cast<char*>(argv[at])); // getopt_long writes only to its copy of the pointers
    }
    arguments.push_back(nullptr);
    opterr = 0;
    optind = 0; // restarts getopt_long
    for (;;)
    {
        const int next = std::max(optind, 1); // unchanged within a group of short options, for example "-hV"
        const std::string element = next < argc ? argv[next] : "";
        int index = -1;
        // '-': getopt_long returns words in order, as 1. ':': it returns ':' for a missing value, else '?'.
        const int found = getopt_long(argc, arguments.data(), "-:hV", known.data(), &index);
        const bool isLong = element.starts_with("--");
        const std::string name = isLong ? element.substr(2, element.find('=') - 2) : "";
        if (found == -1)
        {
            break;
        }
        if (found == 1)
        {
            m_words.emplace_back(optarg);
        }
        else if (found == ':')
        {
            m_error = element + " needs a value";
            return false;
        }
        else if (found == '?' || (isLong && name != known[static_cast<std::size_t>(index)].name))
        {
            const bool isFlag = found == '?' && isLong && optopt != 0;
            m_error = isFlag ? "--" + name + " takes no value" : "unknown option " + (isLong ? "--" + name : element);
            return false;
        }
        else
        {
            m_values[isLong ? name : found == 'h' ? "help" : "version"] = optarg != nullptr ? optarg : "";
        }
    }
    m_words.insert(m_words.end(), argv + optind, argv + argc);
    return true;
}

std::optional<int> Options::ParseOrAnswer(int argc, const char* const* argv, const std::string& program,
                                          const std::string& help, const std::string& version)
{
    if (!Parse(argc, argv))
    {
        return UsageError(program, m_error);
    }
    if (WantsHelp() || WantsVersion())
    {
        std::cout << (WantsHelp() ? help : program + ' ' + version + '\n');
        return FlushOutput(program, 0);
    }
    return std::nullopt;
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

std::optional<std::uint16_t> Options::ParsePort(const std::string& text, std::uint16_t least)
{
    std::uint16_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    return isNumber && port >= least ? std::make_optional(port) : std::nullopt;
}

int UsageError(const std::string& program, const std::string& reason)
{
    std::cerr << program << ": " << reason << " (see " << program << " --help)\n";
    return 2;
}

int FlushOutput(const std::string& program, int status)
{
    if (std::cout.flush())
    {
        return status;
    }
    std::cerr << program << ": standard output cannot be written\n";
    return 1;
}
