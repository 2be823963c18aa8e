#pragma once

#include <string>

class TiXmlDocument;
class TiXmlElement;

/// Reads XML with TinyXML. Stateless, safe from any thread.
namespace XML
{

/// Parses `text`, which XmlPrecheck has accepted, into `document`. False: TinyXML finds an error, or a text or name is
/// not UTF-8 or contains a NUL after its character references have been replaced.
bool Parse(TiXmlDocument* document, const std::string& text);

std::string ExtractElementName(TiXmlElement* element);

/// The concatenated texts directly in `element`, including CDATA.
std::string ExtractText(TiXmlElement* element);

/// The decimal number in `text`; 0 if it is not one, or is over INT32_MAX: the numbers are stored in int32 fields.
unsigned ToUnsigned(const std::string& text);

} // namespace XML
