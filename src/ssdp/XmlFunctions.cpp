#include "ssdp/XmlFunctions.h"

#include "base/Utf8.h"

#include <charconv>
#include <limits>
#include <system_error>
#include <tinyxml.h>

namespace XML
{

namespace
{

bool IsText(const std::string& text)
{
    return text.find('\0') == std::string::npos && Utf8::IsValid(text);
}

/// Visits all nodes without recursion: the depth comes from the network.
bool AreTexts(const TiXmlNode* node)
{
    while (node != nullptr)
    {
        if (!IsText(node->ValueStr()))
        {
            return false;
        }
        if (node->FirstChild() != nullptr)
        {
            node = node->FirstChild();
            continue;
        }
        while (node != nullptr && node->NextSibling() == nullptr)
        {
            node = node->Parent();
        }
        node = node != nullptr ? node->NextSibling() : nullptr;
    }
    return true;
}

} // namespace

bool Parse(TiXmlDocument* document, const std::string& text)
{
    document->Parse(text.c_str(), nullptr, TIXML_ENCODING_UTF8);
    return !document->Error() && document->RootElement() != nullptr && AreTexts(document);
}

std::string ExtractElementName(TiXmlElement* element)
{
    return element->ValueStr();
}

std::string ExtractText(TiXmlElement* element)
{
    std::string text;
    for (const TiXmlNode* child = element->FirstChild(); child != nullptr; child = child->NextSibling())
    {
        if (const TiXmlText* const part = child->ToText())
        {
            text += part->ValueStr();
        }
    }
    return text;
}

unsigned ToUnsigned(const std::string& text)
{
    unsigned number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool isNumber = error == std::errc() && stop == end &&
                          number <= static_cast<unsigned>(std::numeric_limits<std::int32_t>::max());
    return isNumber ? number : 0;
}

} // namespace XML
