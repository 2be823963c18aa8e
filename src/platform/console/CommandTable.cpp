#include "platform/console/CommandTable.h"

#include <algorithm>
#include <utility>

namespace
{

bool IsBlank(char letter)
{
    return letter == ' ' || letter == '\t';
}

bool IsControl(char letter)
{
    return static_cast<unsigned char>(letter) < 0x20 || letter == 0x7F;
}

char Lower(char letter)
{
    return letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
}

bool IsSameWord(const std::string& typed, const std::string& lower)
{
    return std::equal(typed.begin(), typed.end(), lower.begin(), lower.end(),
                      [](char left, char right) { return Lower(left) == right; });
}

bool HasPrefix(const std::string& lower, const std::string& typed)
{
    return typed.size() <= lower.size() && IsSameWord(typed, lower.substr(0, typed.size()));
}

} // namespace

bool Console::SplitWords(const std::string& text, std::vector<std::string>& words, std::string& error)
{
    bool isInWord = false;
    bool isQuoted = false;
    for (std::size_t at = 0; at < text.size(); ++at)
    {
        const char letter = text[at];
        if (IsControl(letter) && letter != '\t')
        {
            error = "a control character in the command";
            return false;
        }
        if (IsBlank(letter) && !isQuoted)
        {
            isInWord = false;
            continue;
        }
        if (!isInWord)
        {
            words.emplace_back();
            isInWord = true;
        }
        if (letter == '"')
        {
            isQuoted = !isQuoted;
            continue;
        }
        const bool isEscape = isQuoted && letter == '\\' && at + 1 < text.size();
        at += isEscape && (text[at + 1] == '"' || text[at + 1] == '\\') ? 1U : 0U;
        words.back() += text[at];
    }
    if (isQuoted)
    {
        error = "a quote without its end";
    }
    return !isQuoted;
}

Console::CommandTable::CommandTable(CLIClient::Descriptors descriptors)
{
    for (auto& descriptor : descriptors)
    {
        Command command;
        std::string error;
        std::string lower = descriptor->command;
        std::transform(lower.begin(), lower.end(), lower.begin(), Lower);
        if (SplitWords(lower, command.words, error) && !command.words.empty())
        {
            command.descriptor = std::move(descriptor);
            m_commands.push_back(std::move(command));
        }
    }
}

std::size_t Console::CommandTable::Match(const std::vector<std::string>& words) const
{
    std::size_t longest = 0;
    for (const Command& command : m_commands)
    {
        const std::size_t size = command.words.size();
        if (size > longest && size <= words.size() &&
            std::equal(command.words.begin(), command.words.end(), words.begin(),
                       [](const std::string& lower, const std::string& typed) { return IsSameWord(typed, lower); }))
        {
            longest = size;
        }
    }
    return longest;
}

CLIClient::Descriptors Console::CommandTable::WithPrefix(const std::vector<std::string>& words) const
{
    CLIClient::Descriptors found;
    for (const Command& command : m_commands)
    {
        bool fits = words.size() <= command.words.size();
        for (std::size_t at = 0; fits && at < words.size(); ++at)
        {
            fits = at + 1 < words.size() ? IsSameWord(words[at], command.words[at])
                                         : HasPrefix(command.words[at], words[at]);
        }
        if (fits)
        {
            found.push_back(command.descriptor);
        }
    }
    return found;
}
