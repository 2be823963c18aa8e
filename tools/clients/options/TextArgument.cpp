#include "tools/clients/options/TextArgument.h"

#include <fstream>
#include <iostream>
#include <iterator>

namespace
{

bool ReadAll(std::istream& stream, std::string& text)
{
    text.assign(std::istreambuf_iterator<char>(stream), {});
    return !stream.bad();
}

} // namespace

bool ReadTextArgument(const std::string& word, std::string& text, std::string& error)
{
    text = word;
    if (word == "-")
    {
        ReadAll(std::cin, text);
    }
    else if (word.starts_with("@"))
    {
        std::ifstream file(word.substr(1));
        if (!file || !ReadAll(file, text))
        {
            error = "cannot read " + word.substr(1);
            return false;
        }
    }
    return true;
}
