#include "JsonBounds.h"

#include <array>

bool JsonText::IsTooComplex(const std::string& text)
{
    struct Level
    {
        bool isObject = false;
        std::size_t members = 1;
    };
    std::array<Level, kMaxNesting + 1> levels; // the first is around the text
    std::size_t depth = 0;
    bool isInString = false;
    for (std::size_t at = 0; at < text.size(); ++at)
    {
        const char letter = text[at];
        if (isInString)
        {
            at += letter == '\\' ? 1U : 0U;
            isInString = letter != '"';
        }
        else if (letter == '"')
        {
            isInString = true;
        }
        else if (letter == '[' || letter == '{')
        {
            if (depth == kMaxNesting)
            {
                return true;
            }
            levels[++depth] = {letter == '{', 1};
        }
        else if (letter == ']' || letter == '}')
        {
            depth -= depth > 0 ? 1U : 0U;
        }
        else if (letter == ',' && levels[depth].isObject && ++levels[depth].members > kMaxMembers)
        {
            return true;
        }
    }
    return false;
}
