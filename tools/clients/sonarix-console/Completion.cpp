#include "tools/clients/sonarix-console/Completion.h"

#include <algorithm>
#include <cctype>
#include <iterator>
#include <set>
#include <sstream>

namespace
{

using Words = std::vector<std::string>;

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    return text;
}

Words Split(const std::string& text)
{
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

/// Returns "key=" for each `key=value` in the usage text whose key is not in `words` yet.
std::set<std::string> KeysOf(const std::string& usage, const Words& words)
{
    std::set<std::string> keys;
    for (const std::string& word : Split(usage))
    {
        const std::size_t equals = word.find('=');
        const std::size_t begin = word.find_last_of("[(", equals) + 1;
        if (equals != std::string::npos && equals > begin)
        {
            keys.insert(word.substr(begin, equals + 1 - begin));
        }
    }
    for (const std::string& word : words)
    {
        keys.erase(word.substr(0, word.find('=') + 1));
    }
    return keys;
}

std::set<std::string> NextWords(const std::vector<ConsoleMessages::Command>& commands, const Words& typed)
{
    std::set<std::string> next;
    for (const ConsoleMessages::Command& command : commands)
    {
        const Words words = Split(Lower(command.words));
        const std::size_t common = std::min(words.size(), typed.size());
        if (!std::equal(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(common), typed.begin(),
                        [](const std::string& word, const std::string& other) { return word == Lower(other); }))
        {
            continue;
        }
        if (typed.size() < words.size())
        {
            next.insert(words[typed.size()]);
        }
        else
        {
            next.merge(KeysOf(command.usage, typed));
        }
    }
    return next;
}

} // namespace

Completion Completion::Of(const std::vector<ConsoleMessages::Command>& commands, const std::string& before)
{
    const std::size_t blank = before.find_last_of(" \t");
    const std::string begun = Lower(blank == std::string::npos ? before : before.substr(blank + 1));
    Words typed = Split(before.substr(0, before.size() - begun.size()));
    std::set<std::string> candidates;
    if (typed.empty())
    {
        candidates = {"help", "quit"};
    }
    else if (typed.front() == "help")
    {
        typed.erase(typed.begin());
    }
    candidates.merge(NextWords(commands, typed));

    Completion completion;
    for (const std::string& candidate : candidates)
    {
        if (candidate.starts_with(begun))
        {
            completion.offered.push_back(candidate);
        }
    }
    if (completion.offered.empty())
    {
        return completion;
    }
    const std::string& first = completion.offered.front(); // sorted, so the common prefix of these two is that of all
    const std::string& last = completion.offered.back();
    const auto end = std::mismatch(first.begin(), first.end(), last.begin(), last.end()).first;
    completion.addition = std::string(first.begin() + static_cast<std::ptrdiff_t>(begun.size()), end);
    completion.addition += completion.offered.size() == 1 && !first.ends_with("=") ? " " : "";
    return completion;
}
