#pragma once

#include <optional>
#include <string>

/// Base64 as the JSON form of bytes has it: written with + and /, padded; read also with - and _, and without padding
/// (RFC 4648 sections 4 and 5).
namespace Base64
{

std::string Encode(const std::string& bytes);
std::optional<std::string> Decode(const std::string& text); ///< nothing if the text is invalid

} // namespace Base64
