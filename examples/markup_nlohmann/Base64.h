#pragma once

#include <optional>
#include <string>

/// The text form of a record's bytes: the alphabet with + and /, padded. Reading takes the one with - and _ too, and
/// what lacks its padding.
namespace Base64
{

std::string Encode(const std::string& bytes);
std::optional<std::string> Decode(const std::string& text); ///< nothing: no such text

} // namespace Base64
