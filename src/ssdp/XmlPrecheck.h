#pragma once

#include <cstddef>
#include <string_view>

/// Checks XML from the network before TinyXML parses it. TinyXML needs time quadratic in the depth of a document and in
/// the attributes of a tag, uses stack for each level, misreads a DOCTYPE, and loops or crashes on some bytes that are
/// not UTF-8. Stateless, safe from any thread, linear in the text.
///
/// Design: markup is recognized by the rules of XML; TinyXML is laxer. A text in which TinyXML sees more levels or
/// attributes than counted here is still bounded by the total numbers of "<" and "=".
namespace XmlPrecheck
{

/// Maximum size of a response, with its headers. Most descriptions have 2 to 8 KiB, those of large devices 20 KiB.
constexpr std::size_t kMaxBytes = std::size_t{64} * 1024;
/// Maximum depth of elements. A description has 6 levels, one with embedded devices 8.
constexpr int kMaxLevels = 32;
/// Maximum number of attributes of one tag. A description has one or two, for its name spaces.
constexpr int kMaxAttributes = 64;
/// Maximum number of "<": most elements have two, a large device has 400. Measured: if each opens a level, TinyXML
/// takes 230 KiB of a task's 512 KiB stack, and 10 ms.
constexpr std::ptrdiff_t kMaxTags = 1024;
/// Maximum number of "=", including those in URLs. Measured: as attributes of one tag they take 5 ms.
constexpr std::ptrdiff_t kMaxEqualSigns = 1024;

/// Returns null if TinyXML can parse `text` safely, well-formed or not. Otherwise returns the reason for a log line.
const char* WhyNotToParse(std::string_view text);

} // namespace XmlPrecheck
