#include "ssdp/XmlPrecheck.h"

#include "base/Utf8.h"

#include <algorithm>

namespace XmlPrecheck
{

namespace
{

constexpr const char* kCutShort = "it ends within a tag";

/// Moves `at` behind the next `end`. Returns false if there is none.
bool SkipPast(std::string_view text, std::size_t& at, std::string_view end)
{
    const std::size_t found = text.find(end, at);
    at = found == std::string_view::npos ? text.size() : found + end.size();
    return found != std::string_view::npos;
}

/// Moves `at` from the "<" of a tag behind its ">", and counts its attributes. Returns false if the tag has no end.
bool SkipTag(std::string_view text, std::size_t& at, int& attributes)
{
    char quote = '\0';
    for (++at; at < text.size(); ++at)
    {
        const char c = text[at];
        if (quote != '\0')
        {
            quote = c == quote ? '\0' : quote;
        }
        else if (c == '>')
        {
            ++at;
            return true;
        }
        else if (c == '"' || c == '\'')
        {
            quote = c;
        }
        else if (c == '=')
        {
            ++attributes;
        }
    }
    return false;
}

const char* WhyNotByItsTags(std::string_view text)
{
    int level = 0;
    for (std::size_t at = text.find('<'); at < text.size(); at = text.find('<', at))
    {
        const std::string_view rest = text.substr(at);
        int attributes = 0;
        bool isWhole = false;
        if (rest.starts_with("<!--"))
        {
            at += 4;
            isWhole = SkipPast(text, at, "-->");
        }
        else if (rest.starts_with("<![CDATA["))
        {
            isWhole = SkipPast(text, at, "]]>");
        }
        else if (rest.starts_with("<!"))
        {
            return "it has a document type";
        }
        else if (rest.starts_with("<?"))
        {
            isWhole = SkipPast(text, at, "?>");
        }
        else if (rest.starts_with("</"))
        {
            isWhole = SkipPast(text, at, ">");
            --level;
        }
        else
        {
            isWhole = SkipTag(text, at, attributes);
            level += isWhole && text[at - 2] == '/' ? 0 : 1;
        }
        if (!isWhole)
        {
            return kCutShort;
        }
        if (level > kMaxLevels)
        {
            return "its elements are nested too deeply";
        }
        if (attributes > kMaxAttributes)
        {
            return "one of its tags has too many attributes";
        }
    }
    return nullptr;
}

} // namespace

const char* WhyNotToParse(std::string_view text)
{
    if (text.size() > kMaxBytes)
    {
        return "it is too long";
    }
    if (text.find('\0') != std::string_view::npos || !Utf8::IsValid(text))
    {
        return "it is not UTF-8 text";
    }
    if (std::count(text.begin(), text.end(), '<') > kMaxTags ||
        std::count(text.begin(), text.end(), '=') > kMaxEqualSigns)
    {
        return "it has too many tags or attributes";
    }
    return WhyNotByItsTags(text);
}

} // namespace XmlPrecheck
