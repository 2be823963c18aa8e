#pragma once

#include <string>

class TiXmlDocument;
class TiXmlElement;

/// Reading XML through TinyXML. Stateless, from any thread.
namespace XML
{

/// Reads `text`, which XmlLook has let pass, into `document`. False: no well-formed XML (as far as TinyXML sees), or
/// one whose texts and names are no UTF-8, or hold a NUL, once their references are replaced.
bool Parse(TiXmlDocument* document, const std::string& text);

std::string ExtractElementName(TiXmlElement* element);

/// The texts directly in `element`, CDATA too, one behind the other; empty where there is none.
std::string ExtractText(TiXmlElement* element);

/// The decimal number that `text` is; 0 for anything else, and for a number that is no int32, since those are the
/// fields that these numbers go to.
unsigned ToUnsigned(const std::string& text);

} // namespace XML
