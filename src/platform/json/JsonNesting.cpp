#include "JsonNesting.h"

#include <cstddef>

bool JsonText::IsNestedTooDeep(const std::string& text)
{
    int depth = 0;
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
            if (++depth > kMaxNesting)
            {
                return true;
            }
        }
        else if (letter == ']' || letter == '}')
        {
            --depth;
        }
    }
    return false;
}
